#include "core/delivery_queue.h"

#include <pthread.h>

#include <algorithm>
#include <iterator>

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

DeliveryQueue::DeliveryQueue(std::string topic, size_t keep_last, Convert convert, Deliver deliver,
                             bool inline_delivery)
    : topic_(std::move(topic)),
      keep_last_(keep_last),
      convert_(std::move(convert)),
      deliver_(std::move(deliver)),
      inline_(inline_delivery) {}

DeliveryQueue::~DeliveryQueue() {
  Stop();
}

void DeliveryQueue::Start(int threads, std::vector<TransportReader*> pull_readers) {
  std::lock_guard<std::mutex> lock(mutex_);
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
    std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
    items_.clear();
    pull_readers_.clear();
    threads.swap(threads_);
  }
  wake_.notify_all();
  for (auto& t : threads) {
    if (t.get_id() == std::this_thread::get_id()) {
      t.detach();
    } else {
      t.join();
    }
  }
  // An inline delivery on a writer's thread may still be running: wait for it.
  if (inline_ && !DeliveringOnThisThread())
    std::lock_guard<std::mutex> wait(delivering_);
}

void DeliveryQueue::OnSample(const InboundSample& sample) {
  if (stopped_)
    return;
  DeliveryItem item;
  if (!convert_(sample, &item))
    return;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    if (stopped_)
      return;
    if (inline_ && !sample.replayed && items_.empty() && !DeliveringOnThisThread() &&
        delivering_.try_lock()) {
      lock.unlock();
      DeliverInline(item);
      return;
    }
    if (keep_last_ > 0 && items_.size() >= keep_last_)
      items_.pop_front();
    items_.push_back(std::move(item));
  }
  wake_.notify_one();
}

void DeliveryQueue::DeliverInline(DeliveryItem& item) {
  std::lock_guard<std::mutex> held(delivering_, std::adopt_lock);
  if (stopped_)
    return;
  DeliveringScope scope(this);
  deliver_(item);
}

void DeliveryQueue::DirectPathOpening(uint64_t writer_key,
                                      std::function<bool(uint64_t* from_sequence)> started) {
  std::lock_guard<std::mutex> lock(paths_mutex_);
  PathState& state = paths_[writer_key];
  state.started = std::move(started);
  state.direct = false;
}

void DeliveryQueue::DirectPathClosed(uint64_t writer_key) {
  std::lock_guard<std::mutex> lock(paths_mutex_);
  paths_.erase(writer_key);
}

uint64_t DeliveryQueue::OtherPathReached(uint64_t writer_key) {
  std::lock_guard<std::mutex> lock(paths_mutex_);
  auto it = paths_.find(writer_key);
  return it == paths_.end() ? 0 : it->second.network_reached;
}

bool DeliveryQueue::Admit(const InboundSample& sample) {
  if (sample.writer_key == 0 || sample.shared_memory)
    return true;
  std::lock_guard<std::mutex> lock(paths_mutex_);
  auto it = paths_.find(sample.writer_key);
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
  // The writer starts the direct path before it sends the sample that the path begins with,
  // so asking now cannot miss a start that this copy is part of.
  if (!state.direct && state.started)
    state.direct = state.started(&state.direct_from);
  return !state.direct || sample.sequence < state.direct_from;
}

void DeliveryQueue::OnReadable() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    readable_ = true;
  }
  wake_.notify_one();
}

void DeliveryQueue::Run() {
  std::string name = "kv:" + topic_;
  name.resize(std::min<size_t>(name.size(), 15));
  pthread_setname_np(pthread_self(), name.c_str());

  std::vector<DeliveryItem> taken;
  size_t take_batch = kTakeBatch;
  for (;;) {
    DeliveryItem item;
    std::vector<TransportReader*> readers;
    std::unique_lock<std::mutex> delivering(delivering_, std::defer_lock);
    {
      std::unique_lock<std::mutex> lock(mutex_);
      wake_.wait(lock, [this] { return stopped_ || !items_.empty() || readable_; });
      if (stopped_)
        return;
      if (!items_.empty()) {
        if (inline_) {
          // Take the delivery lock before the item, so a writer delivering inline cannot
          // overtake what is queued.
          lock.unlock();
          delivering.lock();
          lock.lock();
          if (stopped_)
            return;
          if (items_.empty())
            continue;
        }
        item = std::move(items_.front());
        items_.pop_front();
      } else {
        readable_ = false;
        readers = pull_readers_;
        if (readers.empty())
          continue;
      }
    }
    if (!readers.empty()) {
      // Convert outside the lock, queue in one go; the items are delivered by the next rounds.
      // Large samples are taken a few at a time, so at most a few megabytes of converted
      // messages wait here.
      size_t count = 0;
      size_t bytes = 0;
      for (TransportReader* reader : readers) {
        count += reader->Take(take_batch, [&](const InboundSample& sample) {
          bytes += sample.size;
          if (!Admit(sample))
            return;
          DeliveryItem converted;
          if (convert_(sample, &converted))
            taken.push_back(std::move(converted));
        });
      }
      const size_t asked = take_batch;
      const size_t average = count > 0 ? bytes / count : 0;
      take_batch =
          std::max<size_t>(1, std::min(kTakeBatch, kTakeBytes / std::max<size_t>(average, 1)));
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopped_)
        return;
      for (auto& converted : taken)
        items_.push_back(std::move(converted));
      taken.clear();
      if (count >= asked)
        readable_ = true;  // more may be waiting
      continue;
    }
    DeliveringScope scope(this);
    deliver_(item);
  }
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
