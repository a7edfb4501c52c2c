#include "korvan/tools/rate_window.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace tarvik {
namespace korvan {
namespace tools {

void RateWindow::Add(uint64_t time_ns, size_t bytes, int64_t delay_ns) {
  arrivals_.push_back({time_ns, bytes, delay_ns});
  ++total_;
  while (arrivals_.size() > max_samples_)
    arrivals_.pop_front();
}

RateSummary RateWindow::Summary() const {
  RateSummary s;
  s.samples = arrivals_.size();
  if (arrivals_.empty())
    return s;
  s.first_ns = arrivals_.front().time_ns;
  s.last_ns = arrivals_.back().time_ns;
  // Bytes and delays over every arrival; periods between neighbours.
  double byte_sum = 0;
  s.min_bytes = std::numeric_limits<size_t>::max();
  double delay_sum = 0;
  double delay_sq = 0;
  s.min_delay_s = std::numeric_limits<double>::max();
  for (const Arrival& a : arrivals_) {
    byte_sum += static_cast<double>(a.bytes);
    s.min_bytes = std::min(s.min_bytes, a.bytes);
    s.max_bytes = std::max(s.max_bytes, a.bytes);
    if (a.delay_ns >= 0) {
      const double d = static_cast<double>(a.delay_ns) / 1e9;
      ++s.delays;
      delay_sum += d;
      delay_sq += d * d;
      s.min_delay_s = std::min(s.min_delay_s, d);
      s.max_delay_s = std::max(s.max_delay_s, d);
    }
  }
  s.mean_bytes = byte_sum / static_cast<double>(arrivals_.size());
  if (s.delays > 0) {
    s.mean_delay_s = delay_sum / static_cast<double>(s.delays);
    s.stddev_delay_s = std::sqrt(
        std::max(0.0, delay_sq / static_cast<double>(s.delays) - s.mean_delay_s * s.mean_delay_s));
  } else {
    s.min_delay_s = 0;
  }
  if (arrivals_.size() < 2)
    return s;
  double sum = 0;
  double sq = 0;
  s.min_period_s = std::numeric_limits<double>::max();
  for (size_t i = 1; i < arrivals_.size(); ++i) {
    const double p = static_cast<double>(arrivals_[i].time_ns - arrivals_[i - 1].time_ns) / 1e9;
    sum += p;
    sq += p * p;
    s.min_period_s = std::min(s.min_period_s, p);
    s.max_period_s = std::max(s.max_period_s, p);
  }
  const double n = static_cast<double>(arrivals_.size() - 1);
  s.mean_period_s = sum / n;
  s.stddev_period_s = std::sqrt(std::max(0.0, sq / n - s.mean_period_s * s.mean_period_s));
  s.rate_hz = s.mean_period_s > 0 ? 1.0 / s.mean_period_s : 0;
  const double span =
      static_cast<double>(arrivals_.back().time_ns - arrivals_.front().time_ns) / 1e9;
  // Bytes that arrived after the first arrival, over the time they took.
  s.bytes_per_s = span > 0 ? (byte_sum - static_cast<double>(arrivals_.front().bytes)) / span : 0;
  return s;
}

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
