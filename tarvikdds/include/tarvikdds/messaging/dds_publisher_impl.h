// PublisherImpl: the sending end of a topic. Turns a topic and a QoS into a publishing
// strategy of the bus and, on every Publish, stamps the integrity fields that the message
// type declares (publish time, PTP time, counter, publisher identity, CRC) before handing the
// message over.
//
// Publish updates the counter without a lock: use one publisher from one thread at a time.
// The two name strings are the owning node's (node name, domain).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "korvan/bus/korvan_message_interface.h"
#include "korvan/bus/publisher_strategy.h"
#include "tarvikdds/bus/stamp_fields.h"
#include "tarvikdds/messaging/dds_participant.h"
#include "tarvikdds/messaging/qos.h"

namespace tarvik {
namespace quessa {

class PublisherImpl : public Participant {
 public:
  PublisherImpl(const std::string& topic, const QoS& qos,
                std::shared_ptr<korvan::bus::korvan_message_interface> operations,
                uint32_t fault_threshold, const std::string& node_name, const std::string& domain);
  PublisherImpl(const std::string& topic, const QoS& qos,
                const google::protobuf::Descriptor* descriptor,
                std::shared_ptr<korvan::bus::korvan_message_interface> operations,
                uint32_t fault_threshold, const std::string& node_name, const std::string& domain);
  ~PublisherImpl() override;

  // Creates the bus strategy; a configured entry for the topic overrides `qos`.
  void Init(const QoS& qos, const google::protobuf::Descriptor* descriptor,
            const std::string& node_name, const std::string& domain);
  // Stamps and sends `msg`; false when there is no strategy or it refused the message.
  bool Publish(const std::shared_ptr<void>& msg);

  // Subscribers currently matched, in this process and elsewhere (0 without a strategy).
  int MatchedSubscribers() const;
  const QoS& qos() const { return qos_; }

 private:
  QoS qos_;
  std::shared_ptr<korvan::bus::korvan_message_interface> operations_;
  std::shared_ptr<korvan::bus::PublisherStrategy> strategy_;
  uint64_t counter_ = 0;
  std::unique_ptr<korvan::bus::CrcLayout> crc_patcher_;  // for types that carry a crc
};

}  // namespace quessa
}  // namespace tarvik
