#include "tarvikdds/messaging/dds_subscriber_impl.h"

#include <algorithm>

#include "infra/env.h"
#include "infra/time.h"
#include "korvan/bus/delivery_context.h"
#include "korvan/bus/korvan_bus_manager.h"
#include "korvan/bus/singleton.h"
#include "tarvikdds/detail/logging.h"
#include "tarvikdds/messaging/topic_config.h"

namespace tarvik {
namespace quessa {
namespace {

using korvan::Time;
using korvan::bus::KorvanBusManager;
using korvan::utils::Singleton;

// A message whose PTP publish time is this much older than its arrival (nanoseconds) is
// reported as delayed.
constexpr uint64_t kTransmitDelayLimit = 100000000;

int64_t SteadyNanoseconds() {
  return static_cast<int64_t>(korvan::inf::Env::Current()->NowNanos());
}

}  // namespace

SubscriberImpl::SubscriberImpl(const std::string& topic, const MessageCallback& callback,
                               const QoS& qos,
                               std::shared_ptr<korvan::bus::korvan_message_interface> operations,
                               uint32_t fault_threshold, const std::string& node_name,
                               const std::string& domain)
    : Participant(topic, fault_threshold), operations_(std::move(operations)) {
  Init(callback, qos, operations_ ? operations_->GetDescriptor() : nullptr, node_name, domain);
}

SubscriberImpl::SubscriberImpl(const std::string& topic, const MessageCallback& callback,
                               const QoS& qos, const google::protobuf::Descriptor* descriptor,
                               std::shared_ptr<korvan::bus::korvan_message_interface> operations,
                               uint32_t fault_threshold, const std::string& node_name,
                               const std::string& domain)
    : Participant(topic, fault_threshold), operations_(std::move(operations)) {
  Init(callback, qos, descriptor, node_name, domain);
}

SubscriberImpl::~SubscriberImpl() {
  KORVAN_LOG_INFO << "Subscriber deconstruct: " << topic_;
  // Delivery stops first: the bus's thread must not run a callback that is being released.
  strategy_.reset();
  {
    korvan::inf::MutexLock lock(&rejected_lock_);
    rejected_.clear();
    rejected_count_ = 0;
  }
  {
    korvan::inf::MutexLock lock(&received_lock_);
    received_.clear();
    received_count_ = 0;
  }
  message_callback_ = nullptr;
}

void SubscriberImpl::Init(const MessageCallback& callback, const QoS& qos,
                          const google::protobuf::Descriptor* descriptor,
                          const std::string& node_name, const std::string& domain) {
  Participant::Init(descriptor);
  KORVAN_LOG_INFO << "[timeline] Creating Subscriber for topic " << topic_
                  << " with counter: " << counter_exists_
                  << ", publisher_id: " << publisher_id_exists_ << ", crc: " << crc_exists_
                  << ", publish_ts: " << publish_ts_exists_
                  << ", publish_ptp_ts: " << publish_ptp_ts_exists_;
  if (callback) {
    message_callback_ = callback;
  } else {
    message_callback_ = [this](const std::shared_ptr<void>& msg) { collectMsg(msg); };
  }
  bool configured = false;
  const korvan::bus::TopicConfig config =
      TopicConfigFor(topic_, qos, node_name, domain, &configured);
  own_configuration_ = !configured;
  strategy_ = Singleton<KorvanBusManager>::Instance()->createSubscriberStrategy(
      config, operations_,
      [this](const std::shared_ptr<void>& msg, uint64_t) {
        if (msg) {
          KORVAN_LOG_DETAIL << topic_ << "get a msg";
        } else {
          KORVAN_LOG_DETAIL << topic_ << "get a null ptr msg";
        }
        OnMessage(msg);
      },
      nullptr, nullptr);
  KORVAN_LOG_INFO << "Created Subscriber for topic " << node_name << ":" << topic_ << " with QoS("
                  << qos.history_type << "," << qos.history_depth << "," << qos.reliability << ","
                  << qos.durability << ")";
}

void SubscriberImpl::OnMessage(const std::shared_ptr<void>& msg) {
  const uint64_t now = Time::Ptp(Time::kNanosecond);
  KORVAN_LOG_DETAIL << "Subscriber OnMessage called at: " << now;
  receive_interval_ = now - last_receive_time_;
  last_receive_time_ = now;

  if (crc_exists_ && !CrcCheckedOnTheWire(msg)) {
    const uint32_t carried = operations_->GetCRCVal(msg);
    operations_->SetCRCVal(msg, 0);
    auto bytes = std::make_shared<std::string>();
    operations_->SerializeToString(msg, bytes);
    const uint32_t computed = CalculateCRC(*bytes);
    if (carried != computed) {
      OnCRCError(carried, computed);
      if (crc_error_callback_)
        crc_error_callback_(carried, computed);
      korvan::inf::MutexLock lock(&rejected_lock_);
      rejected_.push_back(msg);
      ++rejected_count_;
      return;
    }
    operations_->SetCRCVal(msg, carried);
  }

  bool deliver = true;
  if (counter_exists_ && own_configuration_)
    deliver = validateMsgSeq(msg);
  if (deliver) {
    if (publish_ptp_ts_exists_) {
      const uint64_t published = operations_->GetPublishPtpTs(msg);
      if (published + kTransmitDelayLimit < now)
        OnTimestampError(published, now);
    }
    if (message_callback_) {
      const int64_t start = SteadyNanoseconds();
      CheckUpdateTs();
      message_callback_(msg);
      last_callback_cost_ = SteadyNanoseconds() - start;
    }
  }
  KORVAN_LOG_DETAIL << "Subscriber OnMessage called finish: " << now;
}

bool SubscriberImpl::CrcCheckedOnTheWire(const std::shared_ptr<void>& msg) {
  // The bus worked out the CRC over the bytes this message was parsed from. A mismatch takes
  // the slow path, which decides and reports exactly as before.
  const korvan::bus::DeliveryContext* delivery = korvan::bus::CurrentDelivery();
  return delivery != nullptr && delivery->message == msg.get() && delivery->has_wire_check &&
         static_cast<uint32_t>(delivery->wire_check) == operations_->GetCRCVal(msg);
}

void SubscriberImpl::collectMsg(const std::shared_ptr<void>& msg) {
  KORVAN_LOG_DETAIL << "Subscriber collected a new message: " << topic_;
  korvan::inf::MutexLock lock(&received_lock_);
  if (received_count_ >= depth_.load(std::memory_order_relaxed) && !received_.empty()) {
    received_.pop_front();
    --received_count_;
  }
  received_.push_back(msg);
  ++received_count_;
}

void SubscriberImpl::ReadReceived(std::vector<std::shared_ptr<void>>& out) {
  out.clear();
  bool was_empty;
  {
    korvan::inf::MutexLock lock(&received_lock_);
    was_empty = received_.empty();
    out.assign(received_.begin(), received_.end());
    received_.clear();
    received_count_ = 0;
  }
  if (was_empty)
    CheckUpdateTs();
}

bool SubscriberImpl::HasReceived() {
  korvan::inf::MutexLock lock(&received_lock_);
  return !received_.empty();
}

void SubscriberImpl::MannualInitParticipant() {
  AppSetExits(false, false, false, false, false);
}

bool SubscriberImpl::ValidateSeq(uint64_t counter, const std::shared_ptr<void>& msg) {
  return validateSeq(counter, last_counter_, msg);
}

bool SubscriberImpl::PackUuid(const std::string& id, PublisherKey* key) {
  // 8-4-4-4-12 lower-case hex digits, as GenerateUUID writes them.
  if (id.size() != 36)
    return false;
  uint64_t words[2] = {0, 0};
  int digits = 0;
  for (size_t i = 0; i < id.size(); ++i) {
    const char c = id[i];
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (c != '-')
        return false;
      continue;
    }
    int value;
    if (c >= '0' && c <= '9') {
      value = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      value = c - 'a' + 10;
    } else {
      return false;  // upper case too: "A" and "a" must stay two identities, as in text
    }
    uint64_t& word = words[digits / 16];
    word = (word << 4) | static_cast<uint64_t>(value);
    ++digits;
  }
  key->high = words[0];
  key->low = words[1];
  return true;
}

bool SubscriberImpl::ValidateSeq(uint64_t counter, const std::string& publisher_id,
                                 const std::shared_ptr<void>& msg) {
  korvan::inf::MutexLock lock(&sequence_lock_);
  PublisherKey key;
  if (PackUuid(publisher_id, &key)) {
    auto it = publisher_counters_.find(key);
    if (it != publisher_counters_.end())
      return validateSeq(counter, it->second, msg);
    publisher_counters_.emplace(key, counter);  // a new publisher starts anywhere
    return true;
  }
  auto it = other_publisher_counters_.find(publisher_id);
  if (it != other_publisher_counters_.end())
    return validateSeq(counter, it->second, msg);
  other_publisher_counters_.emplace(publisher_id, counter);
  return true;
}

bool SubscriberImpl::validateSeq(uint64_t counter, uint64_t& last,
                                 const std::shared_ptr<void>& msg) {
  if (counter > last || last == kNoCounter) {
    if (last != kNoCounter && counter != last + 1) {
      OnSeqError(last + 1, counter, receive_interval_, static_cast<uint64_t>(last_callback_cost_));
      if (sequence_error_callback_)
        sequence_error_callback_(msg, last, counter);
    }
    last = counter;
    return true;
  }
  OnSeqError(last + 1, counter, receive_interval_, static_cast<uint64_t>(last_callback_cost_));
  if (sequence_error_callback_)
    sequence_error_callback_(msg, last, counter);
  return false;
}

bool SubscriberImpl::validateMsgSeq(const std::shared_ptr<void>& msg) {
  const uint64_t counter = operations_->GetCounterVal(msg);
  bool ok;
  if (publisher_id_exists_) {
    ok = ValidateSeq(counter, operations_->GetPublisherId(msg), msg);
  } else {
    ok = ValidateSeq(counter, msg);
  }
  if (ok)
    return true;
  korvan::inf::MutexLock lock(&rejected_lock_);
  while (rejected_count_ > 2 * static_cast<size_t>(depth_.load(std::memory_order_relaxed)) &&
         !rejected_.empty()) {
    rejected_.pop_front();
    --rejected_count_;
  }
  rejected_.push_back(msg);
  ++rejected_count_;
  return false;
}

bool SubscriberImpl::validateMsgForRead(const std::shared_ptr<void>& msg) {
  korvan::inf::MutexLock lock(&rejected_lock_);
  if (rejected_.empty())
    return true;
  auto it = std::find(rejected_.begin(), rejected_.end(), msg);
  if (it == rejected_.end())
    return true;
  rejected_.erase(it);
  --rejected_count_;
  return false;
}

int SubscriberImpl::MatchedPublishers() const {
  return strategy_ ? strategy_->matchedPublishers() : 0;
}

uint64_t SubscriberImpl::DroppedSamples() const {
  return strategy_ ? strategy_->droppedSamples() : 0;
}

size_t SubscriberImpl::RejectedCount() {
  korvan::inf::MutexLock lock(&rejected_lock_);
  return rejected_count_;
}

}  // namespace quessa
}  // namespace tarvik
