#include "tarvikdds/messaging/dds_publisher_impl.h"

#include "infra/system_info.h"
#include "infra/time.h"
#include "korvan/bus/korvan_bus_manager.h"
#include "korvan/bus/singleton.h"
#include "tarvikdds/bus/stamp_fields.h"
#include "tarvikdds/messaging/topic_config.h"

#include "tarvikdds/detail/logging.h"

namespace tarvik {
namespace quessa {
namespace {

using korvan::Time;
using korvan::bus::KorvanBusManager;
using korvan::utils::Singleton;

}  // namespace

PublisherImpl::PublisherImpl(const std::string& topic, const QoS& qos,
                             std::shared_ptr<korvan::bus::korvan_message_interface> operations,
                             uint32_t fault_threshold, const std::string& node_name,
                             const std::string& domain)
    : Participant(topic, fault_threshold), operations_(std::move(operations)) {
  Init(qos, nullptr, node_name, domain);
}

PublisherImpl::PublisherImpl(const std::string& topic, const QoS& qos,
                             const google::protobuf::Descriptor* descriptor,
                             std::shared_ptr<korvan::bus::korvan_message_interface> operations,
                             uint32_t fault_threshold, const std::string& node_name,
                             const std::string& domain)
    : Participant(topic, fault_threshold), operations_(std::move(operations)) {
  Init(qos, descriptor, node_name, domain);
}

PublisherImpl::~PublisherImpl() = default;

void PublisherImpl::Init(const QoS& qos, const google::protobuf::Descriptor* descriptor,
                         const std::string& node_name, const std::string& domain) {
  Participant::Init(descriptor);
  if (crc_exists_ && descriptor != nullptr) {
    crc_patcher_ = std::make_unique<korvan::bus::CrcLayout>(descriptor);
  }
  KORVAN_LOG_INFO << "[timeline] Creating Publisher for topic " << topic_
                  << " with counter: " << counter_exists_
                  << ", publisher_id: " << publisher_id_exists_ << ", crc: " << crc_exists_
                  << ", publish_ts: " << publish_ts_exists_
                  << ", publish_ptp_ts: " << publish_ptp_ts_exists_;
  qos_ = qos;
  bool configured = false;
  const korvan::bus::TopicConfig config =
      TopicConfigFor(topic_, qos, node_name, domain, &configured);
  strategy_ = Singleton<KorvanBusManager>::Instance()->createPublisherStrategy(config, operations_);
  KORVAN_LOG_INFO << "Created Publisher for topic " << domain << ":" << topic_ << " with QoS("
                  << qos.history_type << "," << qos.history_depth << "," << qos.reliability << ","
                  << qos.durability << ")";
}

bool PublisherImpl::Publish(const std::shared_ptr<void>& msg) {
  CheckUpdateTs();
  tarvikdds::IsMonitoringEnabled();
  if (publish_ts_exists_)
    operations_->SetPublisherTsVal(msg, Time::Utc(Time::kNanosecond));
  if (publish_ptp_ts_exists_)
    operations_->SetPublishPtpTs(msg, Time::Ptp(Time::kNanosecond));
  if (counter_exists_)
    operations_->SetCounterVal(msg, counter_++);
  if (publisher_id_exists_)
    operations_->SetPublisherIdStr(msg, participant_id_);
  if (crc_exists_) {
    operations_->SetCRCVal(msg, 0);
    auto bytes = std::make_shared<std::string>();
    operations_->SerializeToString(msg, bytes);
    const uint32_t crc = CalculateCRC(*bytes);
    operations_->SetCRCVal(msg, crc);
    // The bytes just made become the wire form, with the CRC patched in: the bus then need
    // not serialise a second time.
    if (strategy_ && msg && crc_patcher_ &&
        crc_patcher_->Patch(*static_cast<const google::protobuf::Message*>(msg.get()), crc,
                            bytes.get())) {
      return strategy_->publishSerialized(msg, std::move(*bytes), 0) > 0;
    }
  }
  if (!strategy_)
    return false;
  return strategy_->publish(msg, 0) > 0;
}

int PublisherImpl::MatchedSubscribers() const {
  return strategy_ ? strategy_->matchedSubscribers() : 0;
}

}  // namespace quessa
}  // namespace tarvik
