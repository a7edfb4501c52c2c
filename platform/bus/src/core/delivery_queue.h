// Delivery of one reader's samples on the bus's own threads (private to the bus).
//
// Pushed samples (in-process transport) are converted on the writer's thread and queued;
// taken samples (network transport) stay in the transport until a delivery thread takes and
// converts them, so the transport's flow control still applies. Each queue has its own
// threads, so a slow consumer delays only itself.
//
// A reader that a writer serves through shared memory may still get copies of that writer's
// samples over the network (sent for other readers, or in flight when it switched): the queue
// drops the network copies of samples that the direct path carries, so each sample is
// delivered once.
//
// Inline mode (one delivery thread): a pushed sample is delivered on the writer's thread when
// nothing of this queue is waiting or being delivered, and queued otherwise. Order per writer
// is kept; a writer publishing again from inside the delivery is queued, not recursed into.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "infra/thread_annotations.h"
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
  void DirectPathOpening(uint64_t writer_key,
                         std::function<bool(uint64_t* from_sequence)> started) override;
  void DirectPathClosed(uint64_t writer_key) override;
  uint64_t OtherPathReached(uint64_t writer_key) override;

 private:
  void Run();
  // False for a network copy of a sample that a direct path carries.
  bool Admit(const InboundSample& sample);
  bool DeliveringOnThisThread() const;
  void DeliverInline(DeliveryItem& item);

  const std::string topic_;
  const size_t keep_last_;
  const Convert convert_;
  const Deliver deliver_;
  const bool inline_;

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<DeliveryItem> items_;
  bool readable_ = false;
  std::atomic<bool> stopped_{false};
  std::vector<TransportReader*> pull_readers_;
  std::vector<std::thread> threads_;
  // Inline mode: held by whoever delivers, the delivery thread or a writer's thread.
  std::mutex delivering_;

  struct PathState {
    std::function<bool(uint64_t*)> started;  // set while a direct path is opening or open
    uint64_t direct_from = 0;                // first sequence the direct path carries
    bool direct = false;
    uint64_t network_reached = 0;  // one past the highest sequence seen over the network
  };
  std::mutex paths_mutex_;
  std::unordered_map<uint64_t, PathState> paths_ KORVAN_GUARDED_BY(paths_mutex_);
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
