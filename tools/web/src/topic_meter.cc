#include "korvan/web/topic_meter.h"

namespace tarvik::korvan::web {

TopicMeter::TopicMeter(int64_t bucket_ns) : bucket_ns_(bucket_ns > 0 ? bucket_ns : 1) {}

void TopicMeter::Record(int64_t receive_ns, std::optional<int64_t> publish_ns, size_t bytes,
                        uint64_t messages) {
  const int64_t index = receive_ns / bucket_ns_;
  MutexLock lock(&mu_);
  Bucket& b = buckets_[static_cast<size_t>(index) % kBuckets];
  if (b.index != index) {
    if (b.index > index)
      return;  // older than the window
    b = Bucket{};
    b.index = index;
  }
  b.messages += messages;
  b.bytes += bytes * messages;
  if (publish_ns) {
    ++b.delayed;
    b.delay_sum_ms += static_cast<double>(receive_ns - *publish_ns) / 1e6;
  }
  total_ += messages;
}

TopicStats TopicMeter::Snapshot(int64_t now_ns) const {
  const int64_t current = now_ns / bucket_ns_;
  const int64_t oldest = current - static_cast<int64_t>(kBuckets) + 1;
  uint64_t messages = 0, bytes = 0, delayed = 0;
  double delay_sum = 0;
  TopicStats stats;
  {
    MutexLock lock(&mu_);
    for (const Bucket& b : buckets_) {
      if (b.index < oldest || b.index >= current)
        continue;
      messages += b.messages;
      bytes += b.bytes;
      delayed += b.delayed;
      delay_sum += b.delay_sum_ms;
    }
    stats.messages = total_;
  }
  const double window_s = static_cast<double>(bucket_ns_) * static_cast<double>(kBuckets - 1) / 1e9;
  stats.rate_hz = static_cast<double>(messages) / window_s;
  stats.bandwidth_bytes_per_s = static_cast<double>(bytes) / window_s;
  if (delayed > 0)
    stats.delay_ms = delay_sum / static_cast<double>(delayed);
  return stats;
}

}  // namespace tarvik::korvan::web
