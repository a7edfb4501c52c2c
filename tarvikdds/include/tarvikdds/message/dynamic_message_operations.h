// DynamicMessageOperations: the bus's view (korvan_message_interface) of a message type known
// only at run time, for programs that were not compiled with the type: tools that print,
// record, replay or publish whatever travels on the bus.
//
// The type is a descriptor from any pool (ProtobufFactory's, or one built from a description
// fetched from the bus) together with its prototype from a dynamic message factory; both must
// outlive this object. Messages are google::protobuf::Message objects made from the
// prototype. Stamp fields the type declares are written and read through reflection, and
// serialised deterministically, exactly as for a compiled type, so publishers and
// subscribers built on these operations stamp and check like any other.
//
// Receiving: samples written with another description of the type (another fingerprint) are
// not decoded, since this description may not fit them; the CRC of a stamped type is checked
// over the received bytes.
//
// Threads: immutable after construction; any thread may call it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "korvan/bus/korvan_message_interface.h"
#include "korvan/bus/receive_hooks.h"
#include "tarvikdds/bus/stamp_fields.h"

namespace google {
namespace protobuf {
class Descriptor;
class Message;
}  // namespace protobuf
}  // namespace google

namespace tarvik {
namespace korvan {
namespace message {

class DynamicMessageOperations : public bus::korvan_message_interface, public bus::ReceiveHooks {
 public:
  DynamicMessageOperations(const google::protobuf::Descriptor* descriptor,
                           const google::protobuf::Message* prototype);
  ~DynamicMessageOperations() override;

  // A fresh message of the type.
  std::shared_ptr<google::protobuf::Message> New() const;

  std::string MessageType() override;
  std::string MessageType(const std::shared_ptr<void>& msg) override;
  std::string GetTypeName() override;
  bool HasDescriptor() override { return true; }
  bool IsPBDerived() override { return true; }
  bool IsPBLike() override { return true; }
  bool IsPB() override { return true; }
  const google::protobuf::Descriptor* GetDescriptor(const std::shared_ptr<void>&) override {
    return descriptor_;
  }
  const google::protobuf::Descriptor* GetDescriptor() override { return descriptor_; }
  const google::protobuf::Descriptor* GetDescriptor(const std::string& name) override;
  std::string GetPublisherId(const std::shared_ptr<void>& msg) override;
  void SetPublisherIdStr(const std::shared_ptr<void>& msg, const std::string& id) override;
  void SetCounterVal(const std::shared_ptr<void>& msg, uint64_t counter) override;
  uint64_t GetCounterVal(const std::shared_ptr<void>& msg) override;
  void SetPublisherTsVal(std::shared_ptr<void> msg, uint64_t ts) override;
  void SetPublishPtpTs(const std::shared_ptr<void>& msg, uint64_t ts) override;
  uint64_t GetPublishPtpTs(const std::shared_ptr<void>& msg) override;
  void SetCRCVal(const std::shared_ptr<void>& msg, uint32_t crc) override;
  uint32_t GetCRCVal(const std::shared_ptr<void>& msg) override;
  size_t ByteSizeLong(const std::shared_ptr<void>& msg) override;
  size_t NaiveSize() override;
  bool IsInitialized(const std::shared_ptr<void>& msg) override;
  void CopyFrom(std::shared_ptr<void> dst, const void* src) override;
  bool SerializeToString(const std::shared_ptr<void>& msg,
                         std::shared_ptr<std::string>& out) override;
  bool ParseFromString(const std::shared_ptr<std::string>& in, std::shared_ptr<void>& msg) override;
  bool SerializeToArray(const std::shared_ptr<void>& msg, void* buf, int size) override;
  bool ParseFromArray(const void* buf, int size, std::shared_ptr<void> msg) override;
  bool parseMessage(std::shared_ptr<void>& dst, const void* data, int size, bool is_object,
                    bool flag) override;
  int NewMessage(std::shared_ptr<void>& msg, const std::string& type_name) override;
  void OnRecvCallback(const std::shared_ptr<void>& msg, uint64_t n) override;
  bool HasAllocator() override { return static_cast<bool>(allocator_); }
  std::shared_ptr<void> Allocate() override;
  bool HasDeallocator() override { return static_cast<bool>(deallocator_); }
  void Deallocate(std::shared_ptr<void>& msg) override;

  SerializeToStringFn SetSerializeToString(const SerializeToStringFn& fn) override;
  ParseFromStringFn SetParseFromString(const ParseFromStringFn& fn) override;
  SerializeToArrayFn SetSerializeToArray(const SerializeToArrayFn& fn) override;
  ParseFromArrayFn SetParseFromArray(const ParseFromArrayFn& fn) override;
  AllocatorFn SetAllocator(const AllocatorFn& fn) override;
  DeallocatorFn SetDeAllocator(const DeallocatorFn& fn) override;
  OnRecvFn SetOnrecvCallback(const OnRecvFn& fn) override;
  SetUInt64Fn SetCounterValCallback(const SetUInt64Fn& fn) override;
  SetUInt32Fn SetCrcValCallback(const SetUInt32Fn& fn) override;
  SetStringFn SetPublisherIdStrCallback(const SetStringFn& fn) override;
  SetUInt64Fn SetPublisherTsCallback(const SetUInt64Fn& fn) override;
  SetUInt64Fn SetPublisherPtpCallback(const SetUInt64Fn& fn) override;

  bool RequiresSameDescription() const override { return true; }
  bool InspectWire(const std::shared_ptr<void>& msg, const void* data, size_t size,
                   uint64_t* check) const override;

 private:
  const google::protobuf::Descriptor* descriptor_;
  const google::protobuf::Message* prototype_;
  const bus::StampFieldSet stamps_;
  const bus::CrcLayout crc_layout_;

  SerializeToStringFn msg_to_str_;
  ParseFromStringFn str_to_msg_;
  SerializeToArrayFn msg_to_arr_;
  ParseFromArrayFn arr_to_msg_;
  SetUInt64Fn set_counter_value_;
  SetStringFn set_publisher_id_;
  SetUInt64Fn set_publisher_ts_;
  SetUInt64Fn set_publisher_ptp_;
  SetUInt32Fn set_crc_value_;
  AllocatorFn allocator_;
  DeallocatorFn deallocator_;
  OnRecvFn on_recv_;
};

}  // namespace message
}  // namespace korvan
}  // namespace tarvik
