#include "core/publisher_endpoint.h"

#include "trevam/log.h"

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

constexpr char kModule[] = "korvan_bus";

}  // namespace

std::shared_ptr<PublisherEndpoint> PublisherEndpoint::Create(
    const std::shared_ptr<BusCore>& core, const TopicConfig& config,
    std::shared_ptr<korvan_message_interface> operations) {
  std::shared_ptr<PublisherEndpoint> endpoint(new PublisherEndpoint());
  endpoint->topic_ = config.name();
  endpoint->type_name_ = operations->MessageType();
  endpoint->operations_ = std::move(operations);
  endpoint->channel_ = ChannelWriter::Open(
      core, config, endpoint->type_name_, endpoint->operations_->GetDescriptor(),
      core->BusNameOf(config.node_name(), config.node_domain()));
  if (!endpoint->channel_)
    return nullptr;
  return endpoint;
}

bool PublisherEndpoint::Sendable(const std::shared_ptr<void>& msg) {
  if (!msg)
    return false;
  if (operations_->IsInitialized(msg))
    return true;
  inf::MutexLock lock(&report_mutex_);
  if (!reported_incomplete_) {
    reported_incomplete_ = true;
    TREVAM_ERROR(kModule) << "topic '" << topic_ << "': a " << type_name_
                          << " lacks required fields and was not sent (reported once)";
  }
  return false;
}

int PublisherEndpoint::publish(const std::shared_ptr<void>& msg, int) {
  if (!Sendable(msg))
    return 0;
  OutboundSample sample(msg, operations_.get(), type_name_);
  return channel_->Write(sample);
}

int PublisherEndpoint::publishSerialized(const std::shared_ptr<void>& msg, std::string bytes, int) {
  if (!Sendable(msg))
    return 0;
  OutboundSample sample(msg, operations_.get(), type_name_, std::move(bytes));
  return channel_->Write(sample);
}

int PublisherEndpoint::matchedSubscribers() {
  return channel_->MatchedReaders();
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
