// What the harness runs, from its command line.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace korvan_bench {

// Sizes from this one up run the smaller round-trip counts.
inline constexpr int64_t kLargePayload = 512 * 1024;
// ... and from this one a quarter of those.
inline constexpr int64_t kHugePayload = 4 * 1024 * 1024;

struct Config {
  bool help = false;
  bool quick = false;
  std::vector<int64_t> sizes = {64, 4096, 65536, 1048576};
  // The same-host set (part "shm"); from 4 MiB on it runs a quarter of the large counts.
  std::vector<int64_t> shm_sizes = {64, 4096, 65536, 1048576, 4194304, 16777216};
  int64_t count = 10000;  // over all rounds
  int64_t warmup = 500;   // per round
  int64_t large_count = 1000;
  int64_t large_warmup = 50;
  int64_t rounds = 5;
  double seconds = 1.0;  // per round
  double warmup_seconds = 0.5;
  int64_t throughput_rounds = 5;
  double ddsperf_seconds = 3.0;
  double micro_min_time = 0.1;
  std::set<std::string> parts = {"latency", "throughput", "ddsperf", "shm", "micro"};
  std::vector<bool> pinnings = {false, true};
  int64_t domain = 201;
  std::string log_level = "3";
  std::string out_dir = "bench/results";
  std::string log_dir;  // empty: next to the binary
};

extern const char kUsage[];

// Fills `c` from the options after argv[0]; --quick first, then every explicit option over it.
// False, with `error` set, for anything it cannot use.
bool ParseConfig(int argc, char** argv, Config* c, std::string* error);

}  // namespace korvan_bench
