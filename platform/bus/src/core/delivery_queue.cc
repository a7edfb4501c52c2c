#include "core/delivery_queue.h"

#include <pthread.h>

#include <algorithm>

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

constexpr size_t kTakeBatch = 64;

}  // namespace

DeliveryQueue::DeliveryQueue(std::string topic, size_t keep_last, Convert convert, Deliver deliver)
    : topic_(std::move(topic)),
      keep_last_(keep_last),
      convert_(std::move(convert)),
      deliver_(std::move(deliver)) {}

DeliveryQueue::~DeliveryQueue() {
  Stop();
}

void DeliveryQueue::Start(int threads, std::vector<TransportReader*> pull_readers) {
  std::lock_guard<std::mutex> lock(mutex_);
  pull_readers_ = std::move(pull_readers);
  // The threads keep the queue alive, so Stop from inside Deliver cannot pull it away from
  // under the thread that called it.
  for (int i = 0; i < std::max(threads, 1); ++i) {
    threads_.emplace_back([self = shared_from_this()] { self->Run(); });
  }
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
}

void DeliveryQueue::OnSample(const InboundSample& sample) {
  DeliveryItem item;
  if (!convert_(sample, &item))
    return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_)
      return;
    if (keep_last_ > 0 && items_.size() >= keep_last_)
      items_.pop_front();
    items_.push_back(std::move(item));
  }
  wake_.notify_one();
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
  for (;;) {
    DeliveryItem item;
    std::vector<TransportReader*> readers;
    bool pull = false;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      wake_.wait(lock, [this] { return stopped_ || !items_.empty() || readable_; });
      if (stopped_)
        return;
      if (!items_.empty()) {
        item = std::move(items_.front());
        items_.pop_front();
      } else {
        readable_ = false;
        readers = pull_readers_;
        pull = true;
      }
    }
    if (pull) {
      // Convert outside the lock, queue in one go; the items are delivered by the next rounds.
      size_t count = 0;
      for (TransportReader* reader : readers) {
        count += reader->Take(kTakeBatch, [&](const InboundSample& sample) {
          DeliveryItem converted;
          if (convert_(sample, &converted))
            taken.push_back(std::move(converted));
        });
      }
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopped_)
        return;
      for (auto& converted : taken)
        items_.push_back(std::move(converted));
      taken.clear();
      if (count >= kTakeBatch)
        readable_ = true;  // more may be waiting
      continue;
    }
    deliver_(item);
  }
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
