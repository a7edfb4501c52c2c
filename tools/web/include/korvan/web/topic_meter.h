// TopicMeter: rate, bandwidth and transmit delay of one topic over the last second or two, for
// BusSource implementations that measure topics themselves. Record is called on the delivery
// thread(s) and Snapshot on any other; both take a short internal lock.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "infra/mutex.h"
#include "infra/thread_annotations.h"
#include "korvan/web/bus_source.h"

namespace tarvik::korvan::web {

using inf::Mutex;
using inf::MutexLock;

class TopicMeter {
 public:
  // `bucket_ns` times `kBuckets` is the window; the newest bucket, still filling, is left out
  // of the figures so that they do not dip at every bucket change.
  explicit TopicMeter(int64_t bucket_ns = 250'000'000);

  // One message received; it stands for `messages` sent (those a sampling reader skipped
  // count with its size, 0 when it was counted already), and its delay counts once.
  void Record(int64_t receive_ns, std::optional<int64_t> publish_ns, size_t bytes,
              uint64_t messages = 1);
  // Figures as of `now_ns` (same clock as the receive times). `topic` is left empty.
  TopicStats Snapshot(int64_t now_ns) const;

  static constexpr size_t kBuckets = 9;

 private:
  struct Bucket {
    int64_t index = -1;  // receive_ns / bucket_ns of what it holds
    uint64_t messages = 0;
    uint64_t bytes = 0;
    uint64_t delayed = 0;  // messages with a publish stamp
    double delay_sum_ms = 0;
  };

  const int64_t bucket_ns_;
  mutable Mutex mu_;
  std::array<Bucket, kBuckets> buckets_ KORVAN_GUARDED_BY(mu_);
  uint64_t total_ KORVAN_GUARDED_BY(mu_) = 0;
};

}  // namespace tarvik::korvan::web
