// The sending end of a topic, as created by KorvanBusManager::createPublisherStrategy.
//
// publish() may be called from any thread; one strategy serves one publisher. Destroying the
// strategy withdraws the endpoint from the bus and from discovery.
#pragma once

#include <memory>
#include <string>

namespace tarvik {
namespace korvan {
namespace bus {

class PublisherStrategy {
 public:
  virtual ~PublisherStrategy() = default;

  // Sends `msg` (a message of the strategy's type) to every matched subscriber: in this
  // process through the in-process path, elsewhere through DDS. `flags` is reserved (0).
  // Returns 1 when the message was handed to every transport, 0 or less when it could not be
  // sent (null message, serialisation failure, transport error).
  virtual int publish(const std::shared_ptr<void>& msg, int flags) = 0;
  // The same for a message whose wire form the caller has already made: `bytes` must be
  // exactly what serialising `msg` gives. Saves the bus a second serialisation.
  virtual int publishSerialized(const std::shared_ptr<void>& msg, std::string bytes, int flags) {
    (void)bytes;
    return publish(msg, flags);
  }

  // Number of subscribers currently matched, in this process and elsewhere.
  virtual int matchedSubscribers() = 0;
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
