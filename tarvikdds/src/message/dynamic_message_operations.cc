#include "tarvikdds/message/dynamic_message_operations.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <utility>

namespace tarvik {
namespace korvan {
namespace message {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

Message* Cast(const std::shared_ptr<void>& msg) {
  return static_cast<Message*>(msg.get());
}

template <typename Fn>
Fn Replace(Fn& slot, const Fn& fn) {
  Fn previous = std::move(slot);
  slot = fn;
  return previous;
}

bus::korvan_message_interface::SetUInt64Fn IntegerSetter(const FieldDescriptor* field) {
  if (field == nullptr)
    return [](const std::shared_ptr<void>&, uint64_t) {};
  return [field](const std::shared_ptr<void>& msg, uint64_t value) {
    if (msg)
      bus::WriteStampInteger(Cast(msg), field, value);
  };
}

}  // namespace

DynamicMessageOperations::DynamicMessageOperations(const google::protobuf::Descriptor* descriptor,
                                                   const google::protobuf::Message* prototype)
    : descriptor_(descriptor),
      prototype_(prototype),
      stamps_(descriptor),
      crc_layout_(descriptor),
      msg_to_str_([](const std::shared_ptr<void>& msg, std::shared_ptr<std::string>& out) {
        // Deterministic, so that a receiver recomputes the sender's CRC.
        return msg && out && bus::SerializeDeterministic(*Cast(msg), out.get());
      }),
      str_to_msg_([](const std::shared_ptr<std::string>& in, std::shared_ptr<void>& msg) {
        return in && msg && Cast(msg)->ParseFromString(*in);
      }),
      msg_to_arr_([](const std::shared_ptr<void>& msg, void* buf, int size) {
        return msg && Cast(msg)->SerializeToArray(buf, size);
      }),
      arr_to_msg_([](const void* buf, int size, std::shared_ptr<void>& msg) {
        return buf != nullptr && msg && Cast(msg)->ParseFromArray(buf, size);
      }),
      set_counter_value_(IntegerSetter(stamps_.counter)),
      set_publisher_ts_(IntegerSetter(stamps_.publish_ts)),
      set_publisher_ptp_(IntegerSetter(stamps_.publish_ptp_ts)) {
  if (const FieldDescriptor* field = stamps_.crc) {
    set_crc_value_ = [field](const std::shared_ptr<void>& msg, uint32_t crc) {
      if (msg)
        bus::WriteStampInteger(Cast(msg), field, crc);
    };
  } else {
    set_crc_value_ = [](const std::shared_ptr<void>&, uint32_t) {};
  }
  if (const FieldDescriptor* field = stamps_.publisher_id) {
    set_publisher_id_ = [field](const std::shared_ptr<void>& msg, const std::string& id) {
      if (msg)
        bus::WriteStampString(Cast(msg), field, id);
    };
  } else {
    set_publisher_id_ = [](const std::shared_ptr<void>&, const std::string&) {};
  }
}

DynamicMessageOperations::~DynamicMessageOperations() = default;

std::shared_ptr<google::protobuf::Message> DynamicMessageOperations::New() const {
  return std::shared_ptr<Message>(prototype_->New());
}

std::string DynamicMessageOperations::MessageType() {
  return descriptor_->full_name();
}

std::string DynamicMessageOperations::MessageType(const std::shared_ptr<void>&) {
  return descriptor_->full_name();
}

std::string DynamicMessageOperations::GetTypeName() {
  return descriptor_->full_name();
}

const google::protobuf::Descriptor* DynamicMessageOperations::GetDescriptor(const std::string&) {
  return nullptr;
}

std::string DynamicMessageOperations::GetPublisherId(const std::shared_ptr<void>& msg) {
  return stamps_.publisher_id && msg ? bus::ReadStampString(*Cast(msg), stamps_.publisher_id)
                                     : std::string();
}

void DynamicMessageOperations::SetPublisherIdStr(const std::shared_ptr<void>& msg,
                                                 const std::string& id) {
  if (set_publisher_id_)
    set_publisher_id_(msg, id);
}

void DynamicMessageOperations::SetCounterVal(const std::shared_ptr<void>& msg, uint64_t counter) {
  if (set_counter_value_)
    set_counter_value_(msg, counter);
}

uint64_t DynamicMessageOperations::GetCounterVal(const std::shared_ptr<void>& msg) {
  return stamps_.counter && msg ? bus::ReadStampInteger(*Cast(msg), stamps_.counter) : 0;
}

void DynamicMessageOperations::SetPublisherTsVal(std::shared_ptr<void> msg, uint64_t ts) {
  if (set_publisher_ts_)
    set_publisher_ts_(msg, ts);
}

void DynamicMessageOperations::SetPublishPtpTs(const std::shared_ptr<void>& msg, uint64_t ts) {
  if (set_publisher_ptp_)
    set_publisher_ptp_(msg, ts);
}

uint64_t DynamicMessageOperations::GetPublishPtpTs(const std::shared_ptr<void>& msg) {
  return stamps_.publish_ptp_ts && msg ? bus::ReadStampInteger(*Cast(msg), stamps_.publish_ptp_ts)
                                       : 0;
}

void DynamicMessageOperations::SetCRCVal(const std::shared_ptr<void>& msg, uint32_t crc) {
  if (set_crc_value_)
    set_crc_value_(msg, crc);
}

uint32_t DynamicMessageOperations::GetCRCVal(const std::shared_ptr<void>& msg) {
  return stamps_.crc && msg ? static_cast<uint32_t>(bus::ReadStampInteger(*Cast(msg), stamps_.crc))
                            : 0;
}

size_t DynamicMessageOperations::ByteSizeLong(const std::shared_ptr<void>& msg) {
  return Cast(msg)->ByteSizeLong();
}

size_t DynamicMessageOperations::NaiveSize() {
  return prototype_->SpaceUsedLong();
}

bool DynamicMessageOperations::IsInitialized(const std::shared_ptr<void>& msg) {
  return Cast(msg)->IsInitialized();
}

void DynamicMessageOperations::CopyFrom(std::shared_ptr<void> dst, const void* src) {
  if (dst && src != nullptr)
    Cast(dst)->CopyFrom(*static_cast<const Message*>(src));
}

bool DynamicMessageOperations::SerializeToString(const std::shared_ptr<void>& msg,
                                                 std::shared_ptr<std::string>& out) {
  return msg_to_str_ ? msg_to_str_(msg, out) : false;
}

bool DynamicMessageOperations::ParseFromString(const std::shared_ptr<std::string>& in,
                                               std::shared_ptr<void>& msg) {
  return str_to_msg_ ? str_to_msg_(in, msg) : false;
}

bool DynamicMessageOperations::SerializeToArray(const std::shared_ptr<void>& msg, void* buf,
                                                int size) {
  return msg_to_arr_ ? msg_to_arr_(msg, buf, size) : false;
}

bool DynamicMessageOperations::ParseFromArray(const void* buf, int size,
                                              std::shared_ptr<void> msg) {
  return arr_to_msg_ ? arr_to_msg_(buf, size, msg) : false;
}

bool DynamicMessageOperations::parseMessage(std::shared_ptr<void>& dst, const void* data, int size,
                                            bool is_object, bool) {
  if (!dst)
    return false;
  Message* target = Cast(dst);
  if (!is_object)
    return target->ParseFromArray(data, size);
  const auto* source = static_cast<const Message*>(data);
  if (source->GetDescriptor() == descriptor_) {
    target->CopyFrom(*source);
    return true;
  }
  // A compiled type or another pool's: the same fields by number, through the wire form.
  return target->ParseFromString(source->SerializeAsString());
}

int DynamicMessageOperations::NewMessage(std::shared_ptr<void>& msg, const std::string&) {
  msg = New();
  return 0;
}

void DynamicMessageOperations::OnRecvCallback(const std::shared_ptr<void>& msg, uint64_t n) {
  if (on_recv_)
    on_recv_(msg, n);
}

std::shared_ptr<void> DynamicMessageOperations::Allocate() {
  return allocator_ ? allocator_() : std::shared_ptr<void>();
}

void DynamicMessageOperations::Deallocate(std::shared_ptr<void>& msg) {
  if (deallocator_)
    deallocator_(msg);
}

DynamicMessageOperations::SerializeToStringFn DynamicMessageOperations::SetSerializeToString(
    const SerializeToStringFn& fn) {
  return Replace(msg_to_str_, fn);
}
DynamicMessageOperations::ParseFromStringFn DynamicMessageOperations::SetParseFromString(
    const ParseFromStringFn& fn) {
  return Replace(str_to_msg_, fn);
}
DynamicMessageOperations::SerializeToArrayFn DynamicMessageOperations::SetSerializeToArray(
    const SerializeToArrayFn& fn) {
  return Replace(msg_to_arr_, fn);
}
DynamicMessageOperations::ParseFromArrayFn DynamicMessageOperations::SetParseFromArray(
    const ParseFromArrayFn& fn) {
  return Replace(arr_to_msg_, fn);
}
DynamicMessageOperations::AllocatorFn DynamicMessageOperations::SetAllocator(
    const AllocatorFn& fn) {
  return Replace(allocator_, fn);
}
DynamicMessageOperations::DeallocatorFn DynamicMessageOperations::SetDeAllocator(
    const DeallocatorFn& fn) {
  return Replace(deallocator_, fn);
}
DynamicMessageOperations::OnRecvFn DynamicMessageOperations::SetOnrecvCallback(const OnRecvFn& fn) {
  return Replace(on_recv_, fn);
}
DynamicMessageOperations::SetUInt64Fn DynamicMessageOperations::SetCounterValCallback(
    const SetUInt64Fn& fn) {
  return Replace(set_counter_value_, fn);
}
DynamicMessageOperations::SetUInt32Fn DynamicMessageOperations::SetCrcValCallback(
    const SetUInt32Fn& fn) {
  return Replace(set_crc_value_, fn);
}
DynamicMessageOperations::SetStringFn DynamicMessageOperations::SetPublisherIdStrCallback(
    const SetStringFn& fn) {
  return Replace(set_publisher_id_, fn);
}
DynamicMessageOperations::SetUInt64Fn DynamicMessageOperations::SetPublisherTsCallback(
    const SetUInt64Fn& fn) {
  return Replace(set_publisher_ts_, fn);
}
DynamicMessageOperations::SetUInt64Fn DynamicMessageOperations::SetPublisherPtpCallback(
    const SetUInt64Fn& fn) {
  return Replace(set_publisher_ptp_, fn);
}

bool DynamicMessageOperations::InspectWire(const std::shared_ptr<void>& msg, const void* data,
                                           size_t size, uint64_t* check) const {
  uint32_t crc = 0;
  if (!stamps_.crc || !msg || !crc_layout_.ZeroedCrc(*Cast(msg), data, size, &crc))
    return false;
  *check = crc;
  return true;
}

}  // namespace message
}  // namespace korvan
}  // namespace tarvik
