#include "core/channel.h"

#include <algorithm>

#include "core/qos_rules.h"

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
                                             const std::string& node_name,
                                             const std::string& shared_memory = std::string()) {
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
  record.shared_memory = shared_memory;
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
  std::string locator;
  for (const auto& transport : core->TransportsFor(config)) {
    auto writer = transport->CreateWriter(description);
    if (!writer)
      return nullptr;
    if (!writer->Locator().empty()) {
      locator = writer->Locator();
      channel->has_direct_ = true;
    }
    channel->writers_.push_back(std::move(writer));
  }
  channel->durable_ = config.qos().durability() == kDurabilityTransientLocal;
  {
    inf::MutexLock lock(&channel->write_mutex_);  // not shared yet; for the analysis
    channel->reached_.resize(channel->writers_.size());
  }
  channel->registration_ = Register(core, description, kRolePublisher, node_name, locator);
  return channel;
}

bool ChannelWriter::Covered(size_t index, const std::vector<std::string>& served) {
  Reached& reached = reached_[index];
  uint64_t version = reached.version;
  std::vector<std::string> ids;
  reached.known = writers_[index]->ReachedReaders(&version, &ids);
  if (!reached.known)
    return false;
  if (!reached.ids || version != reached.version) {
    std::sort(ids.begin(), ids.end());
    reached.ids = std::make_shared<const std::vector<std::string>>(std::move(ids));
    reached.version = version;
  }
  return std::includes(served.begin(), served.end(), reached.ids->begin(), reached.ids->end());
}

int ChannelWriter::Write(OutboundSample& sample) {
  int result = 1;
  if (!has_direct_) {
    sample.sequence = next_sequence_.fetch_add(1, std::memory_order_relaxed);
    for (auto& writer : writers_) {
      if (writer->Write(sample) <= 0)
        result = 0;
    }
    return result;
  }
  inf::MutexLock lock(&write_mutex_);
  sample.sequence = next_sequence_.fetch_add(1, std::memory_order_relaxed);
  std::shared_ptr<const std::vector<std::string>> served;
  TransportWriter* direct = nullptr;
  for (size_t i = 0; i < writers_.size(); ++i) {
    TransportWriter& writer = *writers_[i];
    const bool covered = served && Covered(i, *served);
    if (covered && !durable_)
      continue;  // every reader of this path got the sample directly
    if (writer.Write(sample) <= 0)
      result = 0;
    if (auto now_served = writer.ServedByLastWrite()) {
      served = std::move(now_served);
      direct = &writer;
    } else if (direct != nullptr) {
      // Readers that move to the direct path wait for what this path already sent them.
      direct->NoteNetworkSent(reached_[i].known ? reached_[i].ids : nullptr, sample.sequence + 1);
    }
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
  for (const auto& transport : core->TransportsFor(config)) {
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
