// Subscribing to a topic for the bytes its messages came in, not decoded: what a recorder
// keeps, so a recording holds exactly what was on the wire (no re-serialisation, no loss of
// unknown fields, no cost of a parse).
//
// Underneath it is a bus subscriber strategy with an operations object (RawBytesOperations)
// whose messages are RawBytes: the bus hands it the received bytes, and it declares no
// descriptor, so no stamp check runs and samples of every description of the type are taken.
// What the bus knows besides the bytes (receive time, the description's fingerprint, the
// publisher's numbering) comes from bus::CurrentDelivery().
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "korvan/bus/korvan_message_interface.h"
#include "korvan/bus/subscriber_strategy.h"
#include "tarvikdds/messaging/qos.h"

namespace tarvik {
namespace quessa {
class Node;
}  // namespace quessa

namespace korvan {
namespace tools {

// One received message as bytes.
struct RawBytes {
  std::string bytes;
};

// The bus's view of RawBytes messages of one type name. A sample from another process is
// copied as it came; one from a publisher in this process (a live object) is serialised
// deterministically, as it would have been for the wire. Immutable after construction.
class RawBytesOperations : public bus::korvan_message_interface {
 public:
  // `type_name`: the topic's type as publishers name it, so the bus matches the reader with
  // them and raises no type warnings.
  explicit RawBytesOperations(std::string type_name) : type_name_(std::move(type_name)) {}

  std::string MessageType() override { return type_name_; }
  std::string MessageType(const std::shared_ptr<void>&) override { return type_name_; }
  std::string GetTypeName() override { return type_name_; }
  bool HasDescriptor() override { return false; }
  bool IsPBDerived() override { return false; }
  bool IsPBLike() override { return false; }
  bool IsPB() override { return false; }
  const google::protobuf::Descriptor* GetDescriptor(const std::shared_ptr<void>&) override {
    return nullptr;
  }
  const google::protobuf::Descriptor* GetDescriptor() override { return nullptr; }
  const google::protobuf::Descriptor* GetDescriptor(const std::string&) override { return nullptr; }
  // No stamps: the bytes stay as they came.
  std::string GetPublisherId(const std::shared_ptr<void>&) override { return {}; }
  void SetPublisherIdStr(const std::shared_ptr<void>&, const std::string&) override {}
  void SetCounterVal(const std::shared_ptr<void>&, uint64_t) override {}
  uint64_t GetCounterVal(const std::shared_ptr<void>&) override { return 0; }
  void SetPublisherTsVal(std::shared_ptr<void>, uint64_t) override {}
  void SetPublishPtpTs(const std::shared_ptr<void>&, uint64_t) override {}
  uint64_t GetPublishPtpTs(const std::shared_ptr<void>&) override { return 0; }
  void SetCRCVal(const std::shared_ptr<void>&, uint32_t) override {}
  uint32_t GetCRCVal(const std::shared_ptr<void>&) override { return 0; }
  size_t ByteSizeLong(const std::shared_ptr<void>& msg) override;
  size_t NaiveSize() override { return 0; }
  bool IsInitialized(const std::shared_ptr<void>&) override { return true; }
  void CopyFrom(std::shared_ptr<void> dst, const void* src) override;
  bool SerializeToString(const std::shared_ptr<void>& msg,
                         std::shared_ptr<std::string>& out) override;
  bool ParseFromString(const std::shared_ptr<std::string>& in, std::shared_ptr<void>& msg) override;
  bool SerializeToArray(const std::shared_ptr<void>& msg, void* buf, int size) override;
  bool ParseFromArray(const void* buf, int size, std::shared_ptr<void> msg) override;
  bool parseMessage(std::shared_ptr<void>& dst, const void* data, int size, bool is_object,
                    bool flag) override;
  int NewMessage(std::shared_ptr<void>& msg, const std::string& type_name) override;
  void OnRecvCallback(const std::shared_ptr<void>&, uint64_t) override {}
  bool HasAllocator() override { return false; }
  std::shared_ptr<void> Allocate() override { return nullptr; }
  bool HasDeallocator() override { return false; }
  void Deallocate(std::shared_ptr<void>&) override {}

  // Nothing to replace: each replacer returns an empty callable and keeps none.
  SerializeToStringFn SetSerializeToString(const SerializeToStringFn&) override { return {}; }
  ParseFromStringFn SetParseFromString(const ParseFromStringFn&) override { return {}; }
  SerializeToArrayFn SetSerializeToArray(const SerializeToArrayFn&) override { return {}; }
  ParseFromArrayFn SetParseFromArray(const ParseFromArrayFn&) override { return {}; }
  AllocatorFn SetAllocator(const AllocatorFn&) override { return {}; }
  DeallocatorFn SetDeAllocator(const DeallocatorFn&) override { return {}; }
  OnRecvFn SetOnrecvCallback(const OnRecvFn&) override { return {}; }
  SetUInt64Fn SetCounterValCallback(const SetUInt64Fn&) override { return {}; }
  SetUInt32Fn SetCrcValCallback(const SetUInt32Fn&) override { return {}; }
  SetStringFn SetPublisherIdStrCallback(const SetStringFn&) override { return {}; }
  SetUInt64Fn SetPublisherTsCallback(const SetUInt64Fn&) override { return {}; }
  SetUInt64Fn SetPublisherPtpCallback(const SetUInt64Fn&) override { return {}; }

 private:
  const std::string type_name_;
};

// What the bus told about one message besides its bytes.
struct RawReceived {
  uint64_t receive_time_ns = 0;  // Unix epoch
  uint64_t type_hash = 0;        // description the publisher wrote it with; 0 unknown
  bool from_wire = false;        // false: a publisher in this process (bytes serialised here)
  // The publisher and the message's number within it, 0 and 0 when the bus does not tell:
  // the numbers show how many messages a sampling subscriber did not take.
  uint64_t writer_key = 0;
  uint64_t sequence = 0;
};

// Subscribes to `topic` for bytes. `on_bytes` runs on the bus's delivery thread of this
// subscriber and may keep the bytes (they are its to move). Destroying the subscriber waits
// for a running callback.
class RawSubscriber {
 public:
  using OnBytes = std::function<void(std::string&& bytes, const RawReceived& info)>;

  // `node` must outlive the subscriber. The topic's configured entry is used when it has
  // one, as for any subscriber. A non-zero `sample_interval` makes it a sampling subscriber
  // (unless the entry says otherwise): publishers on this host do not wake it, it takes the
  // newest of what came every so often, up to the depth of `qos`.
  RawSubscriber(quessa::Node& node, const std::string& topic, const std::string& type_name,
                const quessa::QoS& qos, OnBytes on_bytes,
                std::chrono::milliseconds sample_interval = std::chrono::milliseconds(0));
  ~RawSubscriber();
  RawSubscriber(const RawSubscriber&) = delete;
  RawSubscriber& operator=(const RawSubscriber&) = delete;

  bool ok() const { return strategy_ != nullptr; }
  int MatchedPublishers() const { return strategy_ ? strategy_->matchedPublishers() : 0; }
  const std::string& topic() const { return topic_; }

 private:
  const std::string topic_;
  OnBytes on_bytes_;
  std::shared_ptr<bus::SubscriberStrategy> strategy_;
};

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
