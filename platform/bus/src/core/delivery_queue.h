// Delivery of one reader's samples on the bus's own threads (private to the bus).
//
// Pushed samples (in-process transport) are converted on the writer's thread and queued;
// taken samples (network transport) stay in the transport until a delivery thread takes and
// converts them, so the transport's flow control still applies. Each queue has its own
// threads, so a slow consumer delays only itself.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "korvan/bus/transport.h"

namespace tarvik {
namespace korvan {
namespace bus {

struct DeliveryItem {
  std::shared_ptr<void> message;  // typed subscribers
  std::string bytes;              // services and clients
  Correlation correlation;
};

class DeliveryQueue : public ReaderSink, public std::enable_shared_from_this<DeliveryQueue> {
 public:
  // Turns a sample into an item; false drops the sample. Runs on the writer's thread for
  // pushed samples and on a delivery thread for taken ones; must be thread-safe.
  using Convert = std::function<bool(const InboundSample&, DeliveryItem*)>;
  // Consumes an item on a delivery thread.
  using Deliver = std::function<void(DeliveryItem&)>;

  // `keep_last` bounds the pushed samples waiting (the oldest is dropped); 0 keeps all.
  DeliveryQueue(std::string topic, size_t keep_last, Convert convert, Deliver deliver);
  ~DeliveryQueue() override;

  // Starts `threads` delivery threads that also take from `pull_readers` (not owned; they must
  // stay alive until Stop returns).
  void Start(int threads, std::vector<TransportReader*> pull_readers);
  // Stops delivery and waits for the threads, except the calling one when Stop is called from
  // inside Deliver (it finishes once Deliver returns). Nothing is delivered after Stop.
  void Stop();

  void OnSample(const InboundSample& sample) override;
  void OnReadable() override;

 private:
  void Run();

  const std::string topic_;
  const size_t keep_last_;
  const Convert convert_;
  const Deliver deliver_;

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<DeliveryItem> items_;
  bool readable_ = false;
  bool stopped_ = false;
  std::vector<TransportReader*> pull_readers_;
  std::vector<std::thread> threads_;
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
