#include "core/publisher_endpoint.h"

#include "infra/global_data.h"
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

  EndpointDescription description;
  description.entity_id = common::GlobalData::GenerateUUID();
  description.topic = config.name();
  description.type_name = endpoint->type_name_;
  description.config = config;
  for (const auto& transport : core->TransportsFor(config.transport())) {
    auto writer = transport->CreateWriter(description);
    if (!writer)
      return nullptr;
    endpoint->writers_.push_back(std::move(writer));
  }

  EntityRecord record;
  record.entity_id = description.entity_id;
  record.role_type = kRolePublisher;
  record.node_name = core->BusNameOf(config.node_name(), config.node_domain());
  record.topic_name = config.name();
  record.type_name = endpoint->type_name_;
  endpoint->registration_ = core->Announce(record);
  return endpoint;
}

int PublisherEndpoint::publish(const std::shared_ptr<void>& msg, int) {
  if (!msg)
    return 0;
  if (!operations_->IsInitialized(msg)) {
    std::lock_guard<std::mutex> lock(report_mutex_);
    if (!reported_incomplete_) {
      reported_incomplete_ = true;
      TREVAM_ERROR(kModule) << "topic '" << topic_ << "': a " << type_name_
                            << " lacks required fields and was not sent (reported once)";
    }
    return 0;
  }
  OutboundSample sample(msg, operations_.get(), type_name_);
  int result = 1;
  for (auto& writer : writers_) {
    if (writer->Write(sample) <= 0)
      result = 0;
  }
  return result;
}

int PublisherEndpoint::matchedSubscribers() {
  int matched = 0;
  for (auto& writer : writers_)
    matched += writer->MatchedReaders();
  return matched;
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
