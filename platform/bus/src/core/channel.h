// The two halves every bus endpoint is made of (private to the bus): a writer on each
// transport of a topic, or a reader on each transport feeding one delivery queue; either
// listed in discovery while it lives.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/bus_core.h"
#include "core/delivery_queue.h"

namespace tarvik {
namespace korvan {
namespace bus {

class ChannelWriter {
 public:
  // Null when a transport could not create its writer. `config` must be complete.
  // `descriptor` (may be null) is the type's, whose description the bus makes known.
  // `on_match_change` (optional) runs whenever MatchedReaders() may have changed.
  static std::unique_ptr<ChannelWriter> Open(const std::shared_ptr<BusCore>& core,
                                             const TopicConfig& config,
                                             const std::string& type_name,
                                             const google::protobuf::Descriptor* descriptor,
                                             const std::string& node_name,
                                             std::function<void()> on_match_change = nullptr);
  // 1 when every transport took the sample, 0 otherwise.
  int Write(OutboundSample& sample);
  int MatchedReaders();

 private:
  std::vector<std::unique_ptr<TransportWriter>> writers_;
  std::unique_ptr<EntityRegistration> registration_;
};

class ChannelReader {
 public:
  // Null when a transport could not create its reader. Starts `queue` with the configured
  // number of delivery threads. `on_match_change` (optional) runs whenever MatchedWriters()
  // may have changed.
  static std::unique_ptr<ChannelReader> Open(
      const std::shared_ptr<BusCore>& core, const TopicConfig& config, const std::string& type_name,
      const google::protobuf::Descriptor* descriptor, const std::string& node_name,
      std::shared_ptr<DeliveryQueue> queue, std::function<void()> on_match_change = nullptr);
  // Stops delivery before the readers go.
  ~ChannelReader();
  int MatchedWriters();
  // Samples lost to this reader (see DeliveryQueue::dropped).
  uint64_t Dropped() const { return queue_ ? queue_->dropped() : 0; }

 private:
  std::shared_ptr<DeliveryQueue> queue_;
  std::vector<std::unique_ptr<TransportReader>> readers_;
  std::unique_ptr<EntityRegistration> registration_;
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
