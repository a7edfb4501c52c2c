// korvan_message_operations<T>: the operations object through which the bus creates,
// serialises, parses and stamps messages of the protobuf type T.
//
// Twelve replaceable callables do the work (serialise/parse to string and array, the five
// stamp setters, allocator, deallocator, receive hook). By default the stamp setters do
// nothing, whatever fields T has; EnableStampFields<T> installs setters that write the stamp
// fields T declares. The readers (GetCounterVal, GetPublisherId, GetPublishPtpTs, GetCRCVal)
// read those fields and answer 0 or "" for a type that lacks them. Both go through T's
// generated accessors, not reflection: they run for every message.
//
// The library's own envelopes (RawMessage, AppSignal, SampleBatch) are never stamped, whatever
// publisher carries them: EnableStampFields leaves their setters as no-ops.
//
// The bus calls the object from its threads while the application publishes; after
// construction (and EnableStampFields) nothing changes it, so no lock is taken. Every
// operation that receives a std::shared_ptr<void> assumes it holds a T.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include "korvan/bus/korvan_message_interface.h"
#include "korvan/bus/receive_hooks.h"
#include "tarvikdds/bus/stamp_fields.h"
#include "tarvikdds/detail/logging.h"

namespace tarvik {
namespace quessa {
namespace messages {
namespace internal {
class RawMessage;
class AppSignal;
class SampleBatch;
}  // namespace internal
}  // namespace messages
}  // namespace quessa

namespace korvan {
namespace bus {

namespace detail {

// typeid(T).name() without a leading '*'.
inline std::string RunTimeTypeName(const char* name) {
  return name[0] == '*' ? std::string(name + 1) : std::string(name);
}

template <typename T>
const StampFieldSet& StampFieldsOf() {
  static const StampFieldSet fields(T::descriptor());
  return fields;
}

// Whether T has the generated singular accessors `name()` and `set_name(value)`.
#define KORVAN_DETAIL_STAMP_ACCESSOR(name)                                                      \
  template <typename T, typename = void>                                                        \
  struct HasAccessor_##name : std::false_type {};                                               \
  template <typename T>                                                                         \
  struct HasAccessor_##name<                                                                    \
      T, std::void_t<decltype(std::declval<T&>().set_##name(std::declval<const T&>().name()))>> \
      : std::true_type {};
KORVAN_DETAIL_STAMP_ACCESSOR(publish_ts)
KORVAN_DETAIL_STAMP_ACCESSOR(counter)
KORVAN_DETAIL_STAMP_ACCESSOR(publisher_id)
KORVAN_DETAIL_STAMP_ACCESSOR(crc)
KORVAN_DETAIL_STAMP_ACCESSOR(publish_ptp_ts)
#undef KORVAN_DETAIL_STAMP_ACCESSOR

// An integer stamp as the readers report it: signed fields sign-extended.
template <typename V>
uint64_t StampToUnsigned(V value) {
  if constexpr (std::is_signed<V>::value) {
    return static_cast<uint64_t>(static_cast<int64_t>(value));
  } else {
    return static_cast<uint64_t>(value);
  }
}

// The library's own message types, whose operations never stamp.
template <typename T>
struct IsLibraryEnvelope
    : std::integral_constant<bool,
                             std::is_same<T, quessa::messages::internal::RawMessage>::value ||
                                 std::is_same<T, quessa::messages::internal::AppSignal>::value ||
                                 std::is_same<T, quessa::messages::internal::SampleBatch>::value> {
};

}  // namespace detail

// Fills `dst` from `size` bytes of wire format at `data`, or, when `is_object`, from the live
// protobuf message at `data` (copied when it is a T, converted through its wire form when it
// is another type). `flag` is carried but unused.
template <typename T>
bool parseMessage(std::shared_ptr<T>& dst, const void* data, int size, bool is_object,
                  bool /*flag*/) {
  if (!dst) {
    KORVAN_LOG_DETAIL << "[parseMessage] input ptr is null";
    return false;
  }
  if (!is_object) {
    if (!dst->ParseFromArray(data, size)) {
      KORVAN_LOG_DETAIL << "[parseMessage] ParseFromArray failed.";
      return false;
    }
    return true;
  }
  const auto* src = static_cast<const google::protobuf::Message*>(data);
  const google::protobuf::Descriptor* src_descriptor = src->GetDescriptor();
  const std::string& own_name = T::descriptor()->full_name();
  if (src_descriptor->full_name() == own_name) {
    if (const T* typed = dynamic_cast<const T*>(src)) {
      dst->CopyFrom(*typed);  // the generated copy, not the reflective one
    } else if (src_descriptor == T::descriptor()) {
      dst->CopyFrom(*src);

    } else {
      // Same name from another descriptor pool: CopyFrom would refuse it.
      dst->ParseFromString(src->SerializeAsString());
    }
    return true;
  }
  KORVAN_LOG_WARNING << "Pub/Sub msg types not the same: " << src_descriptor->full_name() << " : "
                     << own_name;
  std::string bytes;
  src->SerializeToString(&bytes);
  dst->ParseFromString(bytes);
  return true;
}

template <typename T>
class korvan_message_operations : public korvan_message_interface {
  static_assert(std::is_base_of<google::protobuf::Message, T>::value,
                "korvan_message_operations needs a generated protobuf message type");

 public:
  korvan_message_operations()
      : msg_to_str_([](const std::shared_ptr<void>& msg, std::shared_ptr<std::string>& out) {
          return msg && out && Cast(msg)->SerializeToString(out.get());
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
        set_counter_value_([](const std::shared_ptr<void>&, uint64_t) {}),
        set_publisher_id_([](const std::shared_ptr<void>&, const std::string&) {}),
        set_publisher_ts_([](const std::shared_ptr<void>&, uint64_t) {}),
        set_publisher_ptp_([](const std::shared_ptr<void>&, uint64_t) {}),
        set_crc_value_([](const std::shared_ptr<void>&, uint32_t) {}) {}

  ~korvan_message_operations() override = default;

  std::string MessageType() override { return T::descriptor()->full_name(); }
  std::string MessageType(const std::shared_ptr<void>&) override { return MessageType(); }
  std::string GetTypeName() override { return detail::RunTimeTypeName(typeid(T).name()); }
  bool HasDescriptor() override { return true; }
  bool IsPBDerived() override { return true; }
  bool IsPBLike() override { return true; }
  bool IsPB() override { return false; }
  const google::protobuf::Descriptor* GetDescriptor(const std::shared_ptr<void>&) override {
    return T::descriptor();
  }
  const google::protobuf::Descriptor* GetDescriptor() override { return T::descriptor(); }
  const google::protobuf::Descriptor* GetDescriptor(const std::string&) override { return nullptr; }

  std::string GetPublisherId(const std::shared_ptr<void>& msg) override {
    if constexpr (detail::HasAccessor_publisher_id<T>::value) {
      if (detail::StampFieldsOf<T>().publisher_id && msg)
        return Cast(msg)->publisher_id();
    }
    return std::string();
  }
  void SetPublisherIdStr(const std::shared_ptr<void>& msg, const std::string& id) override {
    if (set_publisher_id_)
      set_publisher_id_(msg, id);
  }
  void SetCounterVal(const std::shared_ptr<void>& msg, uint64_t counter) override {
    if (set_counter_value_)
      set_counter_value_(msg, counter);
  }
  uint64_t GetCounterVal(const std::shared_ptr<void>& msg) override {
    if constexpr (detail::HasAccessor_counter<T>::value) {
      if (detail::StampFieldsOf<T>().counter && msg)
        return detail::StampToUnsigned(Cast(msg)->counter());
    }
    return 0;
  }
  void SetPublisherTsVal(std::shared_ptr<void> msg, uint64_t ts) override {
    if (set_publisher_ts_)
      set_publisher_ts_(msg, ts);
  }
  void SetPublishPtpTs(const std::shared_ptr<void>& msg, uint64_t ts) override {
    if (set_publisher_ptp_)
      set_publisher_ptp_(msg, ts);
  }
  uint64_t GetPublishPtpTs(const std::shared_ptr<void>& msg) override {
    if constexpr (detail::HasAccessor_publish_ptp_ts<T>::value) {
      if (detail::StampFieldsOf<T>().publish_ptp_ts && msg)
        return detail::StampToUnsigned(Cast(msg)->publish_ptp_ts());
    }
    return 0;
  }
  void SetCRCVal(const std::shared_ptr<void>& msg, uint32_t crc) override {
    if (set_crc_value_)
      set_crc_value_(msg, crc);
  }
  uint32_t GetCRCVal(const std::shared_ptr<void>& msg) override {
    if constexpr (detail::HasAccessor_crc<T>::value) {
      if (detail::StampFieldsOf<T>().crc && msg)
        return static_cast<uint32_t>(detail::StampToUnsigned(Cast(msg)->crc()));
    }
    return 0;
  }

  size_t ByteSizeLong(const std::shared_ptr<void>& msg) override {
    return Cast(msg)->ByteSizeLong();
  }
  size_t NaiveSize() override { return sizeof(T); }
  bool IsInitialized(const std::shared_ptr<void>& msg) override {
    return Cast(msg)->IsInitialized();
  }
  void CopyFrom(std::shared_ptr<void>, const void*) override {
    KORVAN_LOG_DETAIL << "[CopyFrom] : " << GetTypeName() << " dones not support CopyFrom";
  }

  bool SerializeToString(const std::shared_ptr<void>& msg,
                         std::shared_ptr<std::string>& out) override {
    return msg_to_str_ ? msg_to_str_(msg, out) : false;
  }
  bool ParseFromString(const std::shared_ptr<std::string>& in,
                       std::shared_ptr<void>& msg) override {
    return str_to_msg_ ? str_to_msg_(in, msg) : false;
  }
  bool SerializeToArray(const std::shared_ptr<void>& msg, void* buf, int size) override {
    return msg_to_arr_ ? msg_to_arr_(msg, buf, size) : false;
  }
  bool ParseFromArray(const void* buf, int size, std::shared_ptr<void> msg) override {
    return arr_to_msg_ ? arr_to_msg_(buf, size, msg) : false;
  }
  bool parseMessage(std::shared_ptr<void>& dst, const void* data, int size, bool is_object,
                    bool flag) override {
    std::shared_ptr<T> typed = std::static_pointer_cast<T>(dst);
    return bus::parseMessage<T>(typed, data, size, is_object, flag);
  }
  int NewMessage(std::shared_ptr<void>& msg, const std::string&) override {
    msg = std::make_shared<T>();
    return 0;
  }
  void OnRecvCallback(const std::shared_ptr<void>& msg, uint64_t n) override {
    if (on_recv_)
      on_recv_(msg, n);
  }
  bool HasAllocator() override { return static_cast<bool>(allocator_); }
  std::shared_ptr<void> Allocate() override {
    return allocator_ ? allocator_() : std::shared_ptr<void>();
  }
  bool HasDeallocator() override { return static_cast<bool>(deallocator_); }
  void Deallocate(std::shared_ptr<void>& msg) override {
    if (deallocator_)
      deallocator_(msg);
  }

  SerializeToStringFn SetSerializeToString(const SerializeToStringFn& fn) override {
    return Replace(msg_to_str_, fn);
  }
  ParseFromStringFn SetParseFromString(const ParseFromStringFn& fn) override {
    return Replace(str_to_msg_, fn);
  }
  SerializeToArrayFn SetSerializeToArray(const SerializeToArrayFn& fn) override {
    return Replace(msg_to_arr_, fn);
  }
  ParseFromArrayFn SetParseFromArray(const ParseFromArrayFn& fn) override {
    return Replace(arr_to_msg_, fn);
  }
  AllocatorFn SetAllocator(const AllocatorFn& fn) override { return Replace(allocator_, fn); }
  DeallocatorFn SetDeAllocator(const DeallocatorFn& fn) override {
    return Replace(deallocator_, fn);
  }
  OnRecvFn SetOnrecvCallback(const OnRecvFn& fn) override { return Replace(on_recv_, fn); }
  SetUInt64Fn SetCounterValCallback(const SetUInt64Fn& fn) override {
    return Replace(set_counter_value_, fn);
  }
  SetUInt32Fn SetCrcValCallback(const SetUInt32Fn& fn) override {
    return Replace(set_crc_value_, fn);
  }
  SetStringFn SetPublisherIdStrCallback(const SetStringFn& fn) override {
    return Replace(set_publisher_id_, fn);
  }
  SetUInt64Fn SetPublisherTsCallback(const SetUInt64Fn& fn) override {
    return Replace(set_publisher_ts_, fn);
  }
  SetUInt64Fn SetPublisherPtpCallback(const SetUInt64Fn& fn) override {
    return Replace(set_publisher_ptp_, fn);
  }

 private:
  static T* Cast(const std::shared_ptr<void>& msg) { return static_cast<T*>(msg.get()); }

  template <typename Fn>
  static Fn Replace(Fn& slot, const Fn& fn) {
    Fn previous = std::move(slot);
    slot = fn;
    return previous;
  }

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

// Makes `ops` write the stamp fields that T declares, through T's generated setters, and
// serialise T deterministically so a receiver recomputes the same CRC. A type without stamp
// fields, and the library's own envelopes, are left as they are. Call before the object is
// shared with the bus.
template <typename T>
void EnableStampFields(korvan_message_interface& ops) {
  if constexpr (!detail::IsLibraryEnvelope<T>::value) {
    const StampFieldSet& fields = detail::StampFieldsOf<T>();
    if (!fields.any())
      return;
    // A setter is installed only where the descriptor says the field is a usable stamp; the
    // accessor test alone would also accept a field of the right name and another number.
    if constexpr (detail::HasAccessor_counter<T>::value) {
      if (fields.counter) {
        ops.SetCounterValCallback([](const std::shared_ptr<void>& msg, uint64_t value) {
          if (msg) {
            auto* typed = static_cast<T*>(msg.get());
            typed->set_counter(static_cast<std::decay_t<decltype(typed->counter())>>(value));
          }
        });
      }
    }
    if constexpr (detail::HasAccessor_publish_ts<T>::value) {
      if (fields.publish_ts) {
        ops.SetPublisherTsCallback([](const std::shared_ptr<void>& msg, uint64_t value) {
          if (msg) {
            auto* typed = static_cast<T*>(msg.get());
            typed->set_publish_ts(static_cast<std::decay_t<decltype(typed->publish_ts())>>(value));
          }
        });
      }
    }
    if constexpr (detail::HasAccessor_publish_ptp_ts<T>::value) {
      if (fields.publish_ptp_ts) {
        ops.SetPublisherPtpCallback([](const std::shared_ptr<void>& msg, uint64_t value) {
          if (msg) {
            auto* typed = static_cast<T*>(msg.get());
            typed->set_publish_ptp_ts(
                static_cast<std::decay_t<decltype(typed->publish_ptp_ts())>>(value));
          }
        });
      }
    }
    if constexpr (detail::HasAccessor_crc<T>::value) {
      if (fields.crc) {
        ops.SetCrcValCallback([](const std::shared_ptr<void>& msg, uint32_t value) {
          if (msg) {
            auto* typed = static_cast<T*>(msg.get());
            typed->set_crc(static_cast<std::decay_t<decltype(typed->crc())>>(value));
          }
        });
      }
    }
    if constexpr (detail::HasAccessor_publisher_id<T>::value) {
      if (fields.publisher_id) {
        ops.SetPublisherIdStrCallback([](const std::shared_ptr<void>& msg, const std::string& id) {
          if (msg)
            static_cast<T*>(msg.get())->set_publisher_id(id);
        });
      }
    }
    ops.SetSerializeToString(
        [](const std::shared_ptr<void>& msg, std::shared_ptr<std::string>& out) {
          return msg && out && SerializeDeterministic(*static_cast<T*>(msg.get()), out.get());
        });
  }
}

// The operations of a type that carries a crc field, which also show the bus's receiving
// side where that field sits in the wire bytes: the subscriber then checks the CRC over the
// bytes it received instead of serialising the message again.
template <typename T>
class CrcCheckingOperations : public korvan_message_operations<T>, public ReceiveHooks {
 public:
  bool InspectWire(const std::shared_ptr<void>& msg, const void* data, size_t size,
                   uint64_t* check) const override {
    static const CrcLayout layout(T::descriptor());
    uint32_t crc = 0;
    if (!msg || !layout.ZeroedCrc(*static_cast<const T*>(msg.get()), data, size, &crc))
      return false;
    *check = crc;
    return true;
  }
};

// A fresh operations object for T with the stamp fields of T enabled.
template <typename T>
std::shared_ptr<korvan_message_operations<T>> MakeStampingOperations() {
  std::shared_ptr<korvan_message_operations<T>> ops;
  if (!detail::IsLibraryEnvelope<T>::value && detail::StampFieldsOf<T>().crc) {
    ops = std::make_shared<CrcCheckingOperations<T>>();
  } else {
    ops = std::make_shared<korvan_message_operations<T>>();
  }
  EnableStampFields<T>(*ops);
  return ops;
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
