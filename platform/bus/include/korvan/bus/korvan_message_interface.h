// The bus's view of one message type: how to create, serialise, parse and stamp type-erased
// messages (std::shared_ptr<void>) of it.
//
// Whoever creates a publisher or subscriber hands the bus one such object per message type.
// The bus calls it from its own threads, concurrently with the application's; implementations
// must allow that. The declaration order of the virtual operations is part of the contract
// with existing binaries: append, never reorder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace google {
namespace protobuf {
class Descriptor;
}  // namespace protobuf
}  // namespace google

namespace tarvik {
namespace korvan {
namespace bus {

class korvan_message_interface {
 public:
  using SerializeToStringFn =
      std::function<bool(const std::shared_ptr<void>&, std::shared_ptr<std::string>&)>;
  using ParseFromStringFn =
      std::function<bool(const std::shared_ptr<std::string>&, std::shared_ptr<void>&)>;
  using SerializeToArrayFn = std::function<bool(const std::shared_ptr<void>&, void*, int)>;
  using ParseFromArrayFn = std::function<bool(const void*, int, std::shared_ptr<void>&)>;
  using SetUInt64Fn = std::function<void(const std::shared_ptr<void>&, uint64_t)>;
  using SetStringFn = std::function<void(const std::shared_ptr<void>&, const std::string&)>;
  using SetUInt32Fn = std::function<void(const std::shared_ptr<void>&, uint32_t)>;
  using AllocatorFn = std::function<std::shared_ptr<void>()>;
  using DeallocatorFn = std::function<void(std::shared_ptr<void>&)>;
  using OnRecvFn = std::function<void(const std::shared_ptr<void>&, uint64_t)>;

  virtual ~korvan_message_interface() = default;

  virtual std::string MessageType() = 0;
  virtual std::string MessageType(const std::shared_ptr<void>& msg) = 0;
  virtual std::string GetTypeName() = 0;
  virtual bool HasDescriptor() = 0;
  virtual bool IsPBDerived() = 0;
  virtual bool IsPBLike() = 0;
  virtual bool IsPB() = 0;
  virtual const google::protobuf::Descriptor* GetDescriptor(const std::shared_ptr<void>& msg) = 0;
  virtual const google::protobuf::Descriptor* GetDescriptor() = 0;
  virtual const google::protobuf::Descriptor* GetDescriptor(const std::string& name) = 0;
  virtual std::string GetPublisherId(const std::shared_ptr<void>& msg) = 0;
  virtual void SetPublisherIdStr(const std::shared_ptr<void>& msg, const std::string& id) = 0;
  virtual void SetCounterVal(const std::shared_ptr<void>& msg, uint64_t counter) = 0;
  virtual uint64_t GetCounterVal(const std::shared_ptr<void>& msg) = 0;
  virtual void SetPublisherTsVal(std::shared_ptr<void> msg, uint64_t ts) = 0;
  virtual void SetPublishPtpTs(const std::shared_ptr<void>& msg, uint64_t ts) = 0;
  virtual uint64_t GetPublishPtpTs(const std::shared_ptr<void>& msg) = 0;
  virtual void SetCRCVal(const std::shared_ptr<void>& msg, uint32_t crc) = 0;
  virtual uint32_t GetCRCVal(const std::shared_ptr<void>& msg) = 0;
  virtual size_t ByteSizeLong(const std::shared_ptr<void>& msg) = 0;
  virtual size_t NaiveSize() = 0;
  virtual bool IsInitialized(const std::shared_ptr<void>& msg) = 0;
  virtual void CopyFrom(std::shared_ptr<void> dst, const void* src) = 0;
  virtual bool SerializeToString(const std::shared_ptr<void>& msg,
                                 std::shared_ptr<std::string>& out) = 0;
  virtual bool ParseFromString(const std::shared_ptr<std::string>& in,
                               std::shared_ptr<void>& msg) = 0;
  virtual bool SerializeToArray(const std::shared_ptr<void>& msg, void* buf, int size) = 0;
  virtual bool ParseFromArray(const void* buf, int size, std::shared_ptr<void> msg) = 0;
  // Fills `dst` from `size` bytes of wire format at `data`, or, when `is_object` is true, from
  // the live protobuf message `data` points at (the in-process path). `flag` is reserved.
  virtual bool parseMessage(std::shared_ptr<void>& dst, const void* data, int size, bool is_object,
                            bool flag) = 0;
  // Replaces `msg` by a fresh default message; 0 on success.
  virtual int NewMessage(std::shared_ptr<void>& msg, const std::string& type_name) = 0;
  virtual void OnRecvCallback(const std::shared_ptr<void>& msg, uint64_t n) = 0;
  virtual bool HasAllocator() = 0;
  virtual std::shared_ptr<void> Allocate() = 0;
  virtual bool HasDeallocator() = 0;
  virtual void Deallocate(std::shared_ptr<void>& msg) = 0;

  // Each replacer installs a new callable and returns the one installed before.
  virtual SerializeToStringFn SetSerializeToString(const SerializeToStringFn& fn) = 0;
  virtual ParseFromStringFn SetParseFromString(const ParseFromStringFn& fn) = 0;
  virtual SerializeToArrayFn SetSerializeToArray(const SerializeToArrayFn& fn) = 0;
  virtual ParseFromArrayFn SetParseFromArray(const ParseFromArrayFn& fn) = 0;
  virtual AllocatorFn SetAllocator(const AllocatorFn& fn) = 0;
  virtual DeallocatorFn SetDeAllocator(const DeallocatorFn& fn) = 0;
  virtual OnRecvFn SetOnrecvCallback(const OnRecvFn& fn) = 0;
  virtual SetUInt64Fn SetCounterValCallback(const SetUInt64Fn& fn) = 0;
  virtual SetUInt32Fn SetCrcValCallback(const SetUInt32Fn& fn) = 0;
  virtual SetStringFn SetPublisherIdStrCallback(const SetStringFn& fn) = 0;
  virtual SetUInt64Fn SetPublisherTsCallback(const SetUInt64Fn& fn) = 0;
  virtual SetUInt64Fn SetPublisherPtpCallback(const SetUInt64Fn& fn) = 0;
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
