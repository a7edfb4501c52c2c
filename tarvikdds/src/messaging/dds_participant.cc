#include "tarvikdds/messaging/dds_participant.h"

#include <google/protobuf/descriptor.h>

#include "infra/env.h"
#include "infra/global_data.h"
#include "tarvikdds/bus/stamp_fields.h"
#include "tarvikdds/detail/logging.h"

namespace tarvik {
namespace quessa {
namespace {

namespace bus = korvan::bus;

// Looks the field up by name and counts it only when it is also the field of that number.
bool FindStamp(const google::protobuf::Descriptor* descriptor, const char* name, int number,
               const google::protobuf::FieldDescriptor** handle) {
  *handle = descriptor->FindFieldByName(name);
  return *handle != nullptr && *handle == descriptor->FindFieldByNumber(number);
}

}  // namespace

Participant::Participant(const std::string& topic) : Participant(topic, 0) {}

Participant::Participant(const std::string& topic, uint32_t fault_threshold)
    : topic_(topic),
      participant_id_(korvan::common::GlobalData::GenerateUUID()),
      fault_threshold_(fault_threshold) {}

Participant::~Participant() {
  KORVAN_LOG_INFO << "Message counter mismatch count:" << mismatch_count_;
}

void Participant::Init(const google::protobuf::Descriptor* descriptor) {
  if (descriptor == nullptr)
    return;
  descriptor_ = descriptor;
  type_name_ = descriptor->full_name();
  counter_exists_ = FindStamp(descriptor, bus::kCounterName, bus::kCounterNumber, &counter_field_);
  publisher_id_exists_ =
      FindStamp(descriptor, bus::kPublisherIdName, bus::kPublisherIdNumber, &publisher_id_field_);
  crc_exists_ = FindStamp(descriptor, bus::kCrcName, bus::kCrcNumber, &crc_field_);
  publish_ts_exists_ =
      FindStamp(descriptor, bus::kPublishTsName, bus::kPublishTsNumber, &publish_ts_field_);
  publish_ptp_ts_exists_ = FindStamp(descriptor, bus::kPublishPtpTsName, bus::kPublishPtpTsNumber,
                                     &publish_ptp_ts_field_);
}

void Participant::SetFaultThreshold(uint32_t milliseconds) {
  fault_threshold_ = milliseconds;
}

uint32_t Participant::CalculateCRC(const std::string& bytes) {
  if (bytes.empty())
    return 0;
  return bus::Crc32(bytes.data(), bytes.size());
}

void Participant::OnSeqError(uint64_t expected, uint64_t actual) {
  KORVAN_LOG_ERROR << topic_ << ": Message counter mismatch, expected: " << expected
                   << " actual: " << actual;
}

void Participant::OnSeqError(uint64_t expected, uint64_t actual, uint64_t interval,
                             uint64_t last_cb_cost) {
  if (mismatch_count_ % 1000 == 0) {
    KORVAN_LOG_ERROR << topic_ << ": Message counter mismatch, expected: " << expected
                     << " actual: " << actual << " interval: " << interval
                     << "ns last_cb_cost: " << last_cb_cost;
  }
  ++mismatch_count_;
}

void Participant::OnCRCError(uint32_t expected, uint32_t actual) {
  KORVAN_LOG_ERROR << topic_ << ": CRC error, expected: " << expected << " acutal: " << actual;
}

void Participant::OnTimestampError(uint64_t publish, uint64_t receive) {
  KORVAN_LOG_INFO << topic_
                  << ": Transmit delay is high: " << static_cast<int64_t>(receive - publish);
}

void Participant::CheckUpdateTs() {
  if (fault_threshold_ == 0)
    return;
  const int64_t now = static_cast<int64_t>(korvan::inf::Env::Current()->NowNanos() / 1000000);
  if (last_update_ms_ == 0) {
    last_update_ms_ = now;
    if (now == 0)
      return;
  }
  const int64_t gap = now - last_update_ms_;
  if (gap > static_cast<int64_t>(fault_threshold_)) {
    if (!update_fault_) {
      KORVAN_LOG_ERROR << "Update gap(ms): " << gap << " Topic: " << topic_;
      update_fault_ = true;
    }
  } else if (update_fault_) {
    KORVAN_LOG_ERROR << "Update gap(ms) OK: " << gap << " Topic: " << topic_;
    update_fault_ = false;
  }
  last_update_ms_ = now;
}

void Participant::AppSetExits(bool crc, bool counter, bool publisher_id, bool publish_ts,
                              bool publish_ptp_ts) {
  crc_exists_ = crc;
  counter_exists_ = counter;
  publisher_id_exists_ = publisher_id;
  publish_ts_exists_ = publish_ts;
  publish_ptp_ts_exists_ = publish_ptp_ts;
}

}  // namespace quessa
}  // namespace tarvik
