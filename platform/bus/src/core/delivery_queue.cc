#include "core/delivery_queue.h"

#include <pthread.h>

#include <algorithm>
#include <iterator>

#include "core/qos_rules.h"

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

constexpr size_t kTakeBatch = 64;
constexpr size_t kMaxPathStates = 4096;  // writers remembered per reader
constexpr size_t kTakeBytes = 4 << 20;

// The queues this thread is delivering for, innermost last.
thread_local std::vector<const DeliveryQueue*> t_delivering;

class DeliveringScope {
 public:
  explicit DeliveringScope(const DeliveryQueue* queue) { t_delivering.push_back(queue); }
  ~DeliveringScope() { t_delivering.pop_back(); }
};

}  // namespace

DeliveryQueue::Limits DeliveryQueue::Limits::For(const Qos& qos) {
  Limits limits;
  if (qos.history() == kHistoryKeepAll) {
    limits.max_samples = ReaderSampleLimit(qos);
  } else {
    limits.keep_last = ReaderSampleLimit(qos);
  }
  limits.reliable = qos.reliability() != kReliabilityBestEffort;
  return limits;
}

DeliveryQueue::DeliveryQueue(std::string topic, Limits limits, Convert convert, Deliver deliver,
                             bool inline_delivery)
    : topic_(std::move(topic)),
      limits_(limits),
      convert_(std::move(convert)),
      deliver_(std::move(deliver)),
      inline_(inline_delivery) {}

DeliveryQueue::~DeliveryQueue() {
  Stop();
}

void DeliveryQueue::Start(int threads, std::vector<TransportReader*> pull_readers) {
  inf::MutexLock lock(&mutex_);
  pull_readers_ = std::move(pull_readers);
  if (inline_)
    threads = 1;  // inline order relies on a single delivery thread
  // The threads keep the queue alive, so Stop from inside Deliver cannot pull it away from
  // under the thread that called it.
  for (int i = 0; i < std::max(threads, 1); ++i) {
    threads_.emplace_back([self = shared_from_this()] { self->Run(); });
  }
}

bool DeliveryQueue::DeliveringOnThisThread() const {
  return std::find(t_delivering.begin(), t_delivering.end(), this) != t_delivering.end();
}

void DeliveryQueue::Stop() {
  std::vector<std::thread> threads;
  {
    inf::MutexLock lock(&mutex_);
    stopped_ = true;
    items_.clear();
    pull_readers_.clear();
    threads.swap(threads_);
  }
  wake_.SignalAll();
  room_.SignalAll();
  for (auto& t : threads) {
    if (t.get_id() == std::this_thread::get_id()) {
      t.detach();
    } else {
      t.join();
    }
  }
  // An inline delivery on a writer's thread may still be running: wait for it.
  if (inline_ && !DeliveringOnThisThread())
    inf::MutexLock wait(&delivering_);
}

// A sample that is not ours, does not parse or comes after Stop is not a refusal: the writer
// did its part.
bool DeliveryQueue::OnSample(const InboundSample& sample) {
  if (stopped_)
    return true;
  DeliveryItem item;
  if (!convert_(sample, &item))
    return true;
  {
    inf::MutexLock lock(&mutex_);
    if (stopped_)
      return true;
    if (inline_ && !sample.replayed && items_.empty() && !DeliveringOnThisThread() &&
        delivering_.TryLock()) {
      lock.Release();
      DeliverInline(item);
      return true;
    }
    if (!MakeRoom(sample)) {
      dropped_.fetch_add(1, std::memory_order_relaxed);
      // A best-effort reader may lose samples; only a reliable one fails the write.
      return !limits_.reliable;
    }
    if (stopped_)
      return true;
    items_.push_back(std::move(item));
  }
  wake_.Signal();
  return true;
}

bool DeliveryQueue::MakeRoom(const InboundSample& sample) {
  if (limits_.keep_last > 0) {
    if (items_.size() >= limits_.keep_last) {
      items_.pop_front();
      dropped_.fetch_add(1, std::memory_order_relaxed);
    }
    return true;
  }
  if (limits_.max_samples == 0 || items_.size() < limits_.max_samples)
    return true;
  // Full. Only a reliable reader holds the writer back, never a replay (the transport holds
  // its lock) and never the thread that empties this queue: it would wait for itself.
  if (!limits_.reliable || sample.replayed || DeliveringOnThisThread() ||
      sample.wait_until == std::chrono::steady_clock::time_point{}) {
    return false;
  }
  while (!stopped_ && items_.size() >= limits_.max_samples) {
    if (!room_.WaitUntil(&mutex_, sample.wait_until))
      break;
  }
  return stopped_ || items_.size() < limits_.max_samples;
}

void DeliveryQueue::TrimToKeepLast() {
  while (limits_.keep_last > 0 && items_.size() > limits_.keep_last) {
    items_.pop_front();
    dropped_.fetch_add(1, std::memory_order_relaxed);
  }
}

void DeliveryQueue::OnDropped(uint64_t count) {
  dropped_.fetch_add(count, std::memory_order_relaxed);
}

void DeliveryQueue::DeliverInline(DeliveryItem& item) {
  inf::MutexLock held(&delivering_, inf::kAdoptLock);
  if (stopped_)
    return;
  DeliveringScope scope(this);
  deliver_(item);
}

void DeliveryQueue::DirectPathOpening(uint64_t writer_key, bool network_carries_all,
                                      std::function<bool(uint64_t* from_sequence)> started) {
  inf::MutexLock lock(&paths_mutex_);
  PathState& state = paths_[writer_key];
  state.started = std::move(started);
  state.direct = false;
  if (network_carries_all && !state.seen)
    state.seen = std::make_unique<SeenWindow>();
}

void DeliveryQueue::DirectPathClosed(uint64_t writer_key) {
  inf::MutexLock lock(&paths_mutex_);
  auto it = paths_.find(writer_key);
  if (it == paths_.end())
    return;
  // Network copies are admitted from here on, but those of samples already delivered.
  it->second.started = nullptr;
  it->second.direct = false;
}

uint64_t DeliveryQueue::OtherPathReached(uint64_t writer_key) {
  inf::MutexLock lock(&paths_mutex_);
  auto it = paths_.find(writer_key);
  return it == paths_.end() ? 0 : it->second.network_reached;
}

bool DeliveryQueue::Admit(const InboundSample& sample) {
  if (sample.writer_key == 0)
    return true;
  inf::MutexLock lock(&paths_mutex_);
  auto it = paths_.find(sample.writer_key);
  if (sample.shared_memory)
    return it == paths_.end() || !it->second.seen || it->second.seen->FirstTime(sample.sequence);
  if (it == paths_.end()) {
    if (paths_.size() >= kMaxPathStates) {
      // Writers without a direct path need no state but for a switch: never grow without bound.
      for (auto old = paths_.begin(); old != paths_.end();)
        old = old->second.started ? std::next(old) : paths_.erase(old);
    }
    it = paths_.emplace(sample.writer_key, PathState()).first;
  }
  PathState& state = it->second;
  state.network_reached = std::max(state.network_reached, sample.sequence + 1);
  if (state.seen)
    return state.seen->FirstTime(sample.sequence);
  // The writer starts the direct path before it sends the sample that the path begins with,
  // so asking now cannot miss a start that this copy is part of.
  if (!state.direct && state.started)
    state.direct = state.started(&state.direct_from);
  return !state.direct || sample.sequence < state.direct_from;
}

void DeliveryQueue::OnReadable() {
  {
    inf::MutexLock lock(&mutex_);
    readable_ = true;
  }
  wake_.Signal();
}

void DeliveryQueue::Run() {
  std::string name = "kv:" + topic_;
  name.resize(std::min<size_t>(name.size(), 15));
  pthread_setname_np(pthread_self(), name.c_str());

  std::vector<DeliveryItem> taken;
  const size_t limit = limits_.keep_last > 0     ? limits_.keep_last
                       : limits_.max_samples > 0 ? limits_.max_samples
                                                 : kTakeBatch;
  // Grows once the sizes are known: a first batch of large samples could hold gigabytes.
  size_t take_batch = 1;
  for (;;) {
    DeliveryItem item;
    std::vector<TransportReader*> readers;
    bool deliver_inline = false;
    {
      inf::MutexLock lock(&mutex_);
      while (!stopped_ && items_.empty() && !readable_)
        wake_.Wait(&mutex_);
      if (stopped_)
        return;
      if (!items_.empty()) {
        if (inline_) {
          deliver_inline = true;
        } else {
          item = std::move(items_.front());
          items_.pop_front();
          room_.Signal();
        }
      } else {
        readable_ = false;
        readers = pull_readers_;
        if (readers.empty())
          continue;
      }
    }
    if (deliver_inline) {
      if (!DeliverQueuedInline())
        return;
      continue;
    }
    if (!readers.empty()) {
      // Convert outside the lock, queue in one go; the items are delivered by the next rounds.
      // Large samples are taken a few at a time, so at most a few megabytes of converted
      // messages wait here.
      size_t count = 0;
      size_t largest = 0;
      for (TransportReader* reader : readers) {
        count += reader->Take(take_batch, [&](const InboundSample& sample) {
          largest = std::max(largest, sample.size);
          if (!Admit(sample))
            return;
          DeliveryItem converted;
          if (convert_(sample, &converted))
            taken.push_back(std::move(converted));
        });
      }
      const size_t asked = take_batch;
      // Sized by the largest sample of the last batch; never more at once than the reader may
      // hold.
      if (count > 0) {
        take_batch = std::min<size_t>(
            std::max<size_t>(1, std::min(kTakeBatch, kTakeBytes / std::max<size_t>(largest, 1))),
            limit);
      }
      inf::MutexLock lock(&mutex_);
      if (stopped_)
        return;
      for (auto& converted : taken)
        items_.push_back(std::move(converted));
      taken.clear();
      TrimToKeepLast();
      if (count >= asked)
        readable_ = true;  // more may be waiting
      continue;
    }
    DeliveringScope scope(this);
    deliver_(item);
  }
}

bool DeliveryQueue::DeliverQueuedInline() {
  inf::MutexLock delivering(&delivering_);
  DeliveryItem item;
  {
    inf::MutexLock lock(&mutex_);
    if (stopped_)
      return false;
    if (items_.empty())
      return true;
    item = std::move(items_.front());
    items_.pop_front();
    room_.Signal();
  }
  DeliveringScope scope(this);
  deliver_(item);
  return true;
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
