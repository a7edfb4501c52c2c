// The bus's subscribing strategy: a reader on each transport of the topic feeding one
// delivery queue, whose threads parse and hand messages to the callback.
#pragma once

#include <memory>
#include <vector>

#include "core/bus_core.h"
#include "core/channel.h"
#include "korvan/bus/subscriber_strategy.h"

namespace tarvik {
namespace korvan {
namespace bus {

class SubscriberEndpoint : public SubscriberStrategy {
 public:
  // Null when no transport could create a reader. `config` must be complete.
  static std::shared_ptr<SubscriberEndpoint> Create(
      const std::shared_ptr<BusCore>& core, const TopicConfig& config,
      std::shared_ptr<korvan_message_interface> operations, MessageCallback callback,
      Allocator allocator, Deallocator deallocator);

  int matchedPublishers() override;
  uint64_t droppedSamples() override;

 private:
  SubscriberEndpoint() = default;

  std::unique_ptr<ChannelReader> channel_;
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
