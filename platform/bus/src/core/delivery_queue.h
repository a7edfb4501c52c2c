// Delivery of one reader's samples on the bus's own threads (private to the bus).
//
// Pushed samples (in-process transport) are converted on the writer's thread and queued;
// taken samples (network transport) stay in the transport until a delivery thread takes and
// converts them, so the transport's flow control still applies. Each queue has its own
// threads, so a slow consumer delays only itself.
//
// A reader that a writer serves through shared memory may still get copies of that writer's
// samples over the network (sent for other readers, in flight when it switched, or sent to
// everyone as the writer keeps history): the queue drops the copies of samples that the other
// path carries or delivered, so each sample is delivered once.
//
// Inline mode (one delivery thread): a pushed sample is delivered on the writer's thread when
// nothing of this queue is waiting or being delivered, and queued otherwise. Order per writer
// is kept; a writer publishing again from inside the delivery is queued, not recursed into.
//
// The queue keeps the readers' QoS contract (see ReaderSink): it holds at most the reader's
// sample limit, overwrites the oldest for keep-last, holds a reliable writer back when full
// for keep-all (refusing the sample once the writer's wait is over), and counts every sample
// it drops together with those the transports report lost.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "core/seen_window.h"
#include "infra/mutex.h"
#include "korvan/bus/delivery_context.h"
#include "korvan/bus/korvan_bus_config.pb.h"
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

  // How many samples wait at most, and what happens when the queue is full.
  struct Limits {
    size_t keep_last = 0;    // > 0: keep the newest keep_last; older ones are dropped
    size_t max_samples = 0;  // keep-all (keep_last 0): hold at most this many; 0 unbounded
    bool reliable = true;    // keep-all and full: a reliable reader holds the writer back
    // The limits of a reader with `qos` (complete).
    static Limits For(const Qos& qos);
  };

  DeliveryQueue(std::string topic, Limits limits, Convert convert, Deliver deliver,
                bool inline_delivery = false);
  ~DeliveryQueue() override;

  // Starts `threads` delivery threads (one in inline mode) that also take from
  // `pull_readers` (not owned; they must stay alive until Stop returns).
  void Start(int threads, std::vector<TransportReader*> pull_readers);
  // Stops delivery and waits for the threads and for an inline delivery in progress, except
  // when called from inside a delivery (that one finishes once Deliver returns). Nothing is
  // delivered after Stop; samples pushed later are ignored.
  void Stop();

  bool OnSample(const InboundSample& sample) override;
  void OnReadable() override;
  void OnDropped(uint64_t count) override;
  void DirectPathOpening(uint64_t writer_key, bool network_carries_all,
                         std::function<bool(uint64_t* from_sequence)> started) override;
  void DirectPathClosed(uint64_t writer_key) override;
  uint64_t OtherPathReached(uint64_t writer_key) override;

  // Samples this reader lost: dropped here for want of room, or reported by a transport.
  uint64_t dropped() const { return dropped_.load(std::memory_order_relaxed); }

 private:
  void Run() KORVAN_EXCLUDES(mutex_, delivering_);
  // Inline mode, on a delivery thread: delivers the oldest queued item holding `delivering_`,
  // taken before the item so that a writer delivering inline cannot overtake what is queued.
  // False once stopped.
  bool DeliverQueuedInline() KORVAN_EXCLUDES(mutex_, delivering_);
  // False for a copy of a sample that another path carries or already delivered.
  bool Admit(const InboundSample& sample) KORVAN_EXCLUDES(paths_mutex_);
  bool DeliveringOnThisThread() const;
  // Delivers on the writer's thread; the caller took `delivering_`, this gives it back.
  void DeliverInline(DeliveryItem& item) KORVAN_RELEASE(delivering_);
  // Makes room for one more item; false when there is none (the sample is then refused).
  // May wait on room_, giving mutex_ up meanwhile.
  bool MakeRoom(const InboundSample& sample) KORVAN_REQUIRES(mutex_);
  // Drops the oldest items beyond the keep-last depth.
  void TrimToKeepLast() KORVAN_REQUIRES(mutex_);

  const std::string topic_;
  const Limits limits_;
  const Convert convert_;
  const Deliver deliver_;
  const bool inline_;

  inf::Mutex mutex_;
  inf::CondVar wake_;
  inf::CondVar room_;  // an item left items_, or the queue stopped
  std::deque<DeliveryItem> items_ KORVAN_GUARDED_BY(mutex_);
  std::atomic<uint64_t> dropped_{0};
  bool readable_ KORVAN_GUARDED_BY(mutex_) = false;
  std::atomic<bool> stopped_{false};  // set under mutex_; read without it to leave early
  std::vector<TransportReader*> pull_readers_ KORVAN_GUARDED_BY(mutex_);
  std::vector<std::thread> threads_ KORVAN_GUARDED_BY(mutex_);
  // Inline mode: held by whoever delivers, the delivery thread or a writer's thread. Waited
  // for before mutex_ is taken; under mutex_ it is only tried.
  inf::Mutex delivering_;

  struct PathState {
    std::function<bool(uint64_t*)> started;  // set while a direct path is opening or open
    uint64_t direct_from = 0;                // first sequence the direct path carries
    bool direct = false;
    uint64_t network_reached = 0;  // one past the highest sequence seen over the network
    // Set when the network carries every sample: the first copy wins.
    std::unique_ptr<SeenWindow> seen;
  };
  inf::Mutex paths_mutex_;
  std::unordered_map<uint64_t, PathState> paths_ KORVAN_GUARDED_BY(paths_mutex_);
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
