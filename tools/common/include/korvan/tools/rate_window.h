// Statistics of a stream of arrivals over a sliding window, for hz, bw and delay: the
// period between arrivals (mean, min, max, standard deviation), the rate, the bandwidth and
// the transmit delay. Not thread-safe: one owner adds and reads (guard it when a bus thread
// adds while another reads).
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

namespace tarvik {
namespace korvan {
namespace tools {

struct RateSummary {
  size_t samples = 0;     // arrivals in the window
  uint64_t first_ns = 0;  // time of the first and of the last arrival in the window
  uint64_t last_ns = 0;
  double rate_hz = 0;  // 1 / mean period
  double mean_period_s = 0;
  double min_period_s = 0;
  double max_period_s = 0;
  double stddev_period_s = 0;
  double bytes_per_s = 0;  // over the window's time span
  double mean_bytes = 0;
  size_t min_bytes = 0;
  size_t max_bytes = 0;
  size_t delays = 0;  // arrivals that carried a publish time
  double mean_delay_s = 0;
  double min_delay_s = 0;
  double max_delay_s = 0;
  double stddev_delay_s = 0;
};

class RateWindow {
 public:
  // Keeps at most `max_samples` arrivals.
  explicit RateWindow(size_t max_samples = 10000) : max_samples_(max_samples) {}

  // An arrival at `time_ns` of `bytes`; `delay_ns` >= 0 when the message carried a publish
  // time (receive time minus publish time).
  void Add(uint64_t time_ns, size_t bytes, int64_t delay_ns = -1);
  RateSummary Summary() const;
  void Clear() { arrivals_.clear(); }
  uint64_t total() const { return total_; }

 private:
  struct Arrival {
    uint64_t time_ns;
    size_t bytes;
    int64_t delay_ns;
  };
  size_t max_samples_;
  std::deque<Arrival> arrivals_;
  uint64_t total_ = 0;
};

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
