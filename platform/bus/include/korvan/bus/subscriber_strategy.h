// The receiving end of a topic, as created by KorvanBusManager::createSubscriberStrategy.
//
// Messages are handed to the strategy's callback on the bus's delivery threads: one thread per
// subscriber unless the topic configures more (delivery_threads), so a slow callback delays
// only its own subscriber. Destroying the strategy stops delivery and waits for a running
// callback, except when destroyed from inside that callback.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

namespace tarvik {
namespace korvan {
namespace bus {

class SubscriberStrategy {
 public:
  // Called with each received message and its arrival number (1, 2, ... per subscriber).
  using MessageCallback = std::function<void(const std::shared_ptr<void>&, uint64_t)>;
  // Optional: provides the object a received message is parsed into.
  using Allocator = std::function<std::shared_ptr<void>()>;
  // Optional: called with a delivered message after the callback returned.
  using Deallocator = std::function<void(std::shared_ptr<void>&)>;

  virtual ~SubscriberStrategy() = default;

  // Number of publishers currently matched, in this process and elsewhere.
  virtual int matchedPublishers() = 0;

  // Messages meant for this subscriber that it did not and will not receive, since it was
  // created: overwritten while waiting (keep-last), refused while full (keep-all; the
  // publisher was told), lost on a best-effort path, or numbered by their publisher but never
  // sent because the write failed. Losses after a publisher's last message are not seen. Any
  // thread.
  virtual uint64_t droppedSamples() { return 0; }
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
