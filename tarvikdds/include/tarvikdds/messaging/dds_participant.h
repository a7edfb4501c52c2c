// Participant: what publishers, subscribers, services and clients share. It holds the topic
// identity of one endpoint, finds which integrity stamps the message type declares, computes
// the CRC and reports broken streams (counter gaps, CRC mismatches, transmit delay, update
// gaps). It only reports; holding a bad message back is the subscriber's business.
//
// Driven by one endpoint: the checks run on the publishing thread or the bus delivery thread
// of that endpoint and take no lock.
#pragma once

#include <cstdint>
#include <string>

#include "tarvikdds/proto/monitor_messages.pb.h"

namespace google {
namespace protobuf {
class Descriptor;
class FieldDescriptor;
}  // namespace protobuf
}  // namespace google

namespace tarvik {
namespace quessa {

class Participant {
 public:
  explicit Participant(const std::string& topic);
  Participant(const std::string& topic, uint32_t fault_threshold);
  virtual ~Participant();
  Participant(const Participant&) = delete;
  Participant& operator=(const Participant&) = delete;

  // Records the message type and which stamp fields it declares; null changes nothing.
  void Init(const google::protobuf::Descriptor* descriptor);
  // Largest allowed gap between updates, in milliseconds; 0 switches the check off.
  void SetFaultThreshold(uint32_t milliseconds);

  // Standard CRC-32 (reflected, polynomial 0xEDB88320) of `bytes`; 0 for no bytes.
  uint32_t CalculateCRC(const std::string& bytes);

  void OnSeqError(uint64_t expected, uint64_t actual);
  // Logs only the 1st, 1001st, 2001st ... mismatch, but counts every one.
  void OnSeqError(uint64_t expected, uint64_t actual, uint64_t interval, uint64_t last_cb_cost);
  void OnCRCError(uint32_t expected, uint32_t actual);
  void OnTimestampError(uint64_t publish, uint64_t receive);
  // Reports the start and the end of a gap longer than the threshold, once each.
  void CheckUpdateTs();

  // Override the stamp flags found by Init.
  void AppSetExits(bool crc, bool counter, bool publisher_id, bool publish_ts, bool publish_ptp_ts);
  void AppSetCrcExists(bool exists) { crc_exists_ = exists; }
  void AppSetCounterExist(bool exists) { counter_exists_ = exists; }
  void AppSetPubIDExists(bool exists) { publisher_id_exists_ = exists; }
  void AppSetPubTSExitsts(bool exists) { publish_ts_exists_ = exists; }
  void AppSetPubPtpTSExists(bool exists) { publish_ptp_ts_exists_ = exists; }

  // Topology changes travel by snapshot, not by events: these do nothing.
  void CreatePerfWriter() {}
  void PublishPerfData(messages::internal::MonitorMessage_Event, uint32_t) {}

  const std::string& topic() const { return topic_; }
  const std::string& type_name() const { return type_name_; }
  // This endpoint's identity: a random UUID taken at construction.
  const std::string& participant_id() const { return participant_id_; }
  bool crc_exists() const { return crc_exists_; }
  bool counter_exists() const { return counter_exists_; }
  bool publisher_id_exists() const { return publisher_id_exists_; }
  bool publish_ts_exists() const { return publish_ts_exists_; }
  bool publish_ptp_ts_exists() const { return publish_ptp_ts_exists_; }
  uint64_t mismatch_count() const { return mismatch_count_; }
  uint32_t fault_threshold() const { return fault_threshold_; }

 protected:
  std::string topic_;
  std::string type_name_;
  std::string participant_id_;
  const google::protobuf::Descriptor* descriptor_ = nullptr;
  const google::protobuf::FieldDescriptor* counter_field_ = nullptr;
  const google::protobuf::FieldDescriptor* publisher_id_field_ = nullptr;
  const google::protobuf::FieldDescriptor* crc_field_ = nullptr;
  const google::protobuf::FieldDescriptor* publish_ts_field_ = nullptr;
  const google::protobuf::FieldDescriptor* publish_ptp_ts_field_ = nullptr;
  bool crc_exists_ = false;
  bool counter_exists_ = false;
  bool publisher_id_exists_ = false;
  bool publish_ts_exists_ = false;
  bool publish_ptp_ts_exists_ = false;
  uint64_t mismatch_count_ = 0;
  uint32_t fault_threshold_ = 0;
  int64_t last_update_ms_ = 0;
  bool update_fault_ = false;
};

}  // namespace quessa
}  // namespace tarvik
