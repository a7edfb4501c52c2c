// Delivery of one reader's samples on the bus's own threads (private to the bus).
//
// Pushed samples (in-process transport) are converted on the writer's thread and queued;
// taken samples (network transport) stay in the transport until a delivery thread takes and
// converts them, so the transport's flow control still applies. Each queue has its own
// threads, so a slow consumer delays only itself.
//
// Inline mode (one delivery thread): a pushed sample is delivered on the writer's thread when
// nothing of this queue is waiting or being delivered, and queued otherwise. Order per writer
// is kept; a writer publishing again from inside the delivery is queued, not recursed into.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "infra/mutex.h"
#include "korvan/bus/delivery_context.h"
#include "korvan/bus/transport.h"

namespace tarvik {
namespace korvan {
namespace bus {

struct DeliveryItem {
  std::shared_ptr<void> message;  // typed subscribers
  std::string bytes;              // services and clients
  Correlation correlation;
  DeliveryContext context;  // handed to the subscriber's callback (message filled then)
};

class DeliveryQueue : public ReaderSink, public std::enable_shared_from_this<DeliveryQueue> {
 public:
  // Turns a sample into an item; false drops the sample. Runs on the writer's thread for
  // pushed samples and on a delivery thread for taken ones; must be thread-safe.
  using Convert = std::function<bool(const InboundSample&, DeliveryItem*)>;
  // Consumes an item on a delivery thread (or the writer's, inline).
  using Deliver = std::function<void(DeliveryItem&)>;

  // `keep_last` bounds the pushed samples waiting (the oldest is dropped); 0 keeps all.
  DeliveryQueue(std::string topic, size_t keep_last, Convert convert, Deliver deliver,
                bool inline_delivery = false);
  ~DeliveryQueue() override;

  // Starts `threads` delivery threads (one in inline mode) that also take from
  // `pull_readers` (not owned; they must stay alive until Stop returns).
  void Start(int threads, std::vector<TransportReader*> pull_readers);
  // Stops delivery and waits for the threads and for an inline delivery in progress, except
  // when called from inside a delivery (that one finishes once Deliver returns). Nothing is
  // delivered after Stop; samples pushed later are ignored.
  void Stop();

  void OnSample(const InboundSample& sample) override;
  void OnReadable() override;

 private:
  void Run() KORVAN_EXCLUDES(mutex_, delivering_);
  // Inline mode, on a delivery thread: delivers the oldest queued item holding `delivering_`,
  // taken before the item so that a writer delivering inline cannot overtake what is queued.
  // False once stopped.
  bool DeliverQueuedInline() KORVAN_EXCLUDES(mutex_, delivering_);
  bool DeliveringOnThisThread() const;
  // Delivers on the writer's thread; the caller took `delivering_`, this gives it back.
  void DeliverInline(DeliveryItem& item) KORVAN_RELEASE(delivering_);

  const std::string topic_;
  const size_t keep_last_;
  const Convert convert_;
  const Deliver deliver_;
  const bool inline_;

  inf::Mutex mutex_;
  inf::CondVar wake_;
  std::deque<DeliveryItem> items_ KORVAN_GUARDED_BY(mutex_);
  bool readable_ KORVAN_GUARDED_BY(mutex_) = false;
  std::atomic<bool> stopped_{false};  // set under mutex_; read without it to leave early
  std::vector<TransportReader*> pull_readers_ KORVAN_GUARDED_BY(mutex_);
  std::vector<std::thread> threads_ KORVAN_GUARDED_BY(mutex_);
  // Inline mode: held by whoever delivers, the delivery thread or a writer's thread. Waited
  // for before mutex_ is taken; under mutex_ it is only tried.
  inf::Mutex delivering_;
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
