// What one harness run measured, and its three renderings: JSON, a Markdown report with the
// library / raw ratio of every figure, and the data and script of the latency plot.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "common/bench_common.h"

namespace korvan_bench {

// The implementations compared.
inline constexpr char kRaw[] = "raw";                 // Cyclone DDS C API, the bus's shape
inline constexpr char kRawInline[] = "raw_inline";    // ... replying in the listener
inline constexpr char kLibStamped[] = "lib_stamped";  // library, five stamp fields
inline constexpr char kLibPlain[] = "lib_plain";      // library, no stamp fields
inline constexpr char kInprocStamped[] = "inproc_stamped";
inline constexpr char kInprocPlain[] = "inproc_plain";
inline constexpr char kInprocInlineStamped[] = "inproc_inline_stamped";
inline constexpr char kInprocInlinePlain[] = "inproc_inline_plain";

inline constexpr char kDdsperf[] = "ddsperf";  // Cyclone's own tool

// The "same host, shared memory" set, measured at its own sizes (Report::shm_sizes).
inline constexpr char kSetRawUdp[] = "set_raw_udp";          // raw Cyclone over UDP loopback
inline constexpr char kSetCycloneShm[] = "set_cyclone_shm";  // raw Cyclone, its iceoryx mode
inline constexpr char kSetLibShm[] = "set_lib_shm";          // library, shared-memory path
inline constexpr char kSetIceoryx[] = "set_iceoryx";         // iceoryx's own pub/sub
inline constexpr const char* kSetImpls[] = {kSetRawUdp, kSetCycloneShm, kSetLibShm, kSetIceoryx};

struct ProcessFigures {
  bool present = false;
  int64_t cpu_ns = 0;     // over the measured part
  uint64_t messages = 0;  // round trips or messages in that part
  int64_t peak_rss_kib = 0;
  double CpuNsPerMessage() const {
    return messages > 0 ? static_cast<double>(cpu_ns) / static_cast<double>(messages) : 0;
  }
};

struct LatencyRun {
  std::string impl;
  bool pinned = false;
  int64_t size = 0;
  bool ok = false;
  Summary latency;  // ns
  int64_t retries = 0;
  ProcessFigures ping;  // for in-process runs: the one process
  ProcessFigures pong;
};

struct ThroughputRun {
  std::string impl;
  int64_t size = 0;
  bool ok = false;
  double messages_per_s = 0;
  double megabytes_per_s = 0;  // payload bytes, 10^6
  uint64_t lost = 0;
  uint64_t sent = 0;
  ProcessFigures pub;
  ProcessFigures sub;
};

struct MicroResult {
  std::string name;
  double ns_per_op = 0;
  double bytes_per_second = 0;
};

struct Report {
  std::map<std::string, std::string> meta;  // printed in the header, kept in the JSON
  std::vector<int64_t> sizes;
  std::vector<int64_t> shm_sizes;
  std::deque<LatencyRun> latency;  // a deque: the harness keeps references while it grows
  std::deque<ThroughputRun> throughput;
  std::vector<MicroResult> micro;

  const LatencyRun* FindLatency(const std::string& impl, bool pinned, int64_t size) const;
  const ThroughputRun* FindThroughput(const std::string& impl, int64_t size) const;
};

struct Goal {
  std::string text;   // what is asked
  std::string where;  // which figure
  double value = 0;
  double limit = 0;
  bool met = false;
};
// The speed goals, evaluated on the medians and rates present in `report`.
std::vector<Goal> EvaluateGoals(const Report& report);

// "64 B", "4 KiB", "1 MiB", "1500 B".
std::string SizeLabel(int64_t bytes);
// Microseconds from nanoseconds with three significant digits or more ("12.3", "0.845").
std::string Micros(double ns);
// library / raw, two decimals; "-" when either is missing or raw is 0.
std::string Ratio(std::optional<double> library, std::optional<double> raw);

std::string ToJson(const Report& report);
std::string ToMarkdown(const Report& report);
// Whitespace-separated columns for gnuplot: size, then the median round trip (µs) of raw,
// library stamped, library unstamped, in-process stamped, ddsperf and raw in the listener;
// "NaN" where missing.
std::string PlotData(const Report& report, bool pinned);
// A gnuplot script that reads the two data files and writes `png`.
std::string PlotScript(const Report& report, const std::string& unpinned_data,
                       const std::string& pinned_data, const std::string& png);
// The same for the shared-memory set: size, then the medians of kSetImpls in order.
std::string ShmPlotData(const Report& report, bool pinned);
std::string ShmPlotScript(const Report& report, const std::string& unpinned_data,
                          const std::string& pinned_data, const std::string& png);

}  // namespace korvan_bench
