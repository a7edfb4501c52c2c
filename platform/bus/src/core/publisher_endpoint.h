// The bus's publishing strategy: writes every message to each transport of its topic.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/bus_core.h"
#include "core/channel.h"
#include "infra/mutex.h"
#include "korvan/bus/publisher_strategy.h"

namespace tarvik {
namespace korvan {
namespace bus {

class PublisherEndpoint : public PublisherStrategy {
 public:
  // Null when no transport could create a writer. `config` must be complete (see Resolve in
  // the manager).
  static std::shared_ptr<PublisherEndpoint> Create(
      const std::shared_ptr<BusCore>& core, const TopicConfig& config,
      std::shared_ptr<korvan_message_interface> operations);

  int publish(const std::shared_ptr<void>& msg, int flags) override;
  int publishSerialized(const std::shared_ptr<void>& msg, std::string bytes, int flags) override;
  int matchedSubscribers() override;

 private:
  PublisherEndpoint() = default;
  bool Sendable(const std::shared_ptr<void>& msg);

  std::string topic_;
  std::string type_name_;
  std::shared_ptr<korvan_message_interface> operations_;
  std::unique_ptr<ChannelWriter> channel_;
  inf::Mutex report_mutex_;
  bool reported_incomplete_ KORVAN_GUARDED_BY(report_mutex_) = false;
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
