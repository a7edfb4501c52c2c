// Counting what a reader never received, from the sequence numbers its samples carry (private
// to the bus; for every transport whose samples are numbered per writer).
//
// A writer numbers its samples 1, 2, 3, ...; a reader that sees writer w jump from n to m
// lost the m - n - 1 samples between: overwritten in a keep-last history, lost on a
// best-effort path, refused by a full reader, or never sent because the write failed. The
// first sample seen from a writer only marks where the reader joined (see Start); a sample
// numbered 0 is not numbered. Losses after a writer's last sample are not visible.
#pragma once

#include <cstdint>
#include <unordered_map>

namespace tarvik {
namespace korvan {
namespace bus {

class SequenceGaps {
 public:
  // The samples of `writer` lost just before `sequence`. Not thread-safe: one caller at a
  // time, in the order the samples were received.
  uint64_t Observe(uint64_t writer, uint64_t sequence);
  // For transports that see a sample arrive before it is taken: the reader's first sample of
  // a writer it does not know yet is `sequence`, so a later Observe counts what was lost
  // after it arrived, also before that sample is observed. No effect on a known writer.
  void Start(uint64_t writer, uint64_t sequence);

 private:
  std::unordered_map<uint64_t, uint64_t> last_;  // writer -> highest sequence seen
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
