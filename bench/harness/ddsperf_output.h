// Reading the external baseline's output. Its ping prints, once a second, the round-trip
// figures of that second; its sub prints running totals.
#pragma once

#include <cstdint>
#include <string>

#include "common/bench_common.h"

namespace korvan_bench {

// Combines the per-second lines of a ping run: min and max over all seconds, the other
// figures averaged weighted by each second's count (an approximation for the percentiles).
// count 0 when no line was found.
Summary ParseDdsperfPing(const std::string& output);

struct DdsperfRate {
  bool ok = false;
  double messages_per_s = 0;
  uint64_t lost = 0;
};
// Rate between the second report line and the last one before the publisher left: the first
// second holds discovery and warm-up.
DdsperfRate ParseDdsperfSub(const std::string& output);

}  // namespace korvan_bench
