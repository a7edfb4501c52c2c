#include "core/channel.h"

#include "infra/global_data.h"

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

EndpointDescription Describe(BusCore& core, const TopicConfig& config, const std::string& type_name,
                             const google::protobuf::Descriptor* descriptor,
                             std::function<void()> on_match_change) {
  EndpointDescription description;
  description.on_match_change = std::move(on_match_change);
  description.entity_id = common::GlobalData::GenerateUUID();
  description.topic = config.name();
  description.type_name = type_name;
  description.type_hash = core.RegisterType(descriptor);
  description.config = config;
  return description;
}

std::unique_ptr<EntityRegistration> Register(const std::shared_ptr<BusCore>& core,
                                             const EndpointDescription& description, RoleType role,
                                             const std::string& node_name) {
  EntityRecord record;
  record.entity_id = description.entity_id;
  record.role_type = role;
  record.node_name = node_name;
  record.topic_name = description.topic;
  record.type_name = description.type_name;
  record.type_hash = description.type_hash;
  const Qos& qos = description.config.qos();
  record.history = static_cast<int32_t>(qos.history());
  record.depth = static_cast<int32_t>(qos.depth());
  record.durability = static_cast<int32_t>(qos.durability());
  record.reliability = static_cast<int32_t>(qos.reliability());
  return core->Announce(record);
}

}  // namespace

std::unique_ptr<ChannelWriter> ChannelWriter::Open(const std::shared_ptr<BusCore>& core,
                                                   const TopicConfig& config,
                                                   const std::string& type_name,
                                                   const google::protobuf::Descriptor* descriptor,
                                                   const std::string& node_name,
                                                   std::function<void()> on_match_change) {
  auto channel = std::make_unique<ChannelWriter>();
  EndpointDescription description =
      Describe(*core, config, type_name, descriptor, std::move(on_match_change));
  for (const auto& transport : core->TransportsFor(config.transport())) {
    auto writer = transport->CreateWriter(description);
    if (!writer)
      return nullptr;
    channel->writers_.push_back(std::move(writer));
  }
  channel->registration_ = Register(core, description, kRolePublisher, node_name);
  return channel;
}

int ChannelWriter::Write(OutboundSample& sample) {
  int result = 1;
  for (auto& writer : writers_) {
    if (writer->Write(sample) <= 0)
      result = 0;
  }
  return result;
}

int ChannelWriter::MatchedReaders() {
  int matched = 0;
  for (auto& writer : writers_)
    matched += writer->MatchedReaders();
  return matched;
}

std::unique_ptr<ChannelReader> ChannelReader::Open(
    const std::shared_ptr<BusCore>& core, const TopicConfig& config, const std::string& type_name,
    const google::protobuf::Descriptor* descriptor, const std::string& node_name,
    std::shared_ptr<DeliveryQueue> queue, std::function<void()> on_match_change) {
  auto channel = std::make_unique<ChannelReader>();
  channel->queue_ = std::move(queue);
  EndpointDescription description =
      Describe(*core, config, type_name, descriptor, std::move(on_match_change));
  std::vector<TransportReader*> pull_readers;
  for (const auto& transport : core->TransportsFor(config.transport())) {
    auto reader = transport->CreateReader(description, channel->queue_);
    if (!reader)
      return nullptr;  // the destructor stops the queue
    pull_readers.push_back(reader.get());
    channel->readers_.push_back(std::move(reader));
  }
  channel->queue_->Start(config.delivery_threads(), pull_readers);
  channel->registration_ = Register(core, description, kRoleSubscriber, node_name);
  return channel;
}

ChannelReader::~ChannelReader() {
  if (queue_)
    queue_->Stop();  // its threads take from the readers
  readers_.clear();
}

int ChannelReader::MatchedWriters() {
  int matched = 0;
  for (auto& reader : readers_)
    matched += reader->MatchedWriters();
  return matched;
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
