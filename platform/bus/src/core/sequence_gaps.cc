#include "core/sequence_gaps.h"

#include <cstddef>

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

// Writers come and go; past this many all are forgotten. Each then starts afresh at its next
// sample, which can hide at most one gap per writer.
constexpr size_t kMaxWriters = 4096;

}  // namespace

uint64_t SequenceGaps::Observe(uint64_t writer, uint64_t sequence) {
  if (sequence == 0)
    return 0;
  auto it = last_.find(writer);
  if (it == last_.end()) {
    if (last_.size() >= kMaxWriters)
      last_.clear();
    last_.emplace(writer, sequence);
    return 0;
  }
  const uint64_t last = it->second;
  if (sequence <= last)
    return 0;  // not newer: nothing was skipped to reach it
  it->second = sequence;
  return sequence - last - 1;
}

void SequenceGaps::Start(uint64_t writer, uint64_t sequence) {
  if (sequence == 0 || last_.count(writer) != 0)
    return;
  if (last_.size() >= kMaxWriters)
    last_.clear();
  last_.emplace(writer, sequence - 1);
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
