// The integrity stamp fields a message type may declare. A field counts only when the
// descriptor's field of that name is the same field as its field of that number.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace google {
namespace protobuf {
class Descriptor;
class FieldDescriptor;
class Message;
}  // namespace protobuf
}  // namespace google

namespace tarvik {
namespace korvan {
namespace bus {

inline constexpr char kPublishTsName[] = "publish_ts";
inline constexpr int kPublishTsNumber = 536870911;
inline constexpr char kCounterName[] = "counter";
inline constexpr int kCounterNumber = 536870910;
inline constexpr char kPublisherIdName[] = "publisher_id";
inline constexpr int kPublisherIdNumber = 536870909;
inline constexpr char kCrcName[] = "crc";
inline constexpr int kCrcNumber = 536870908;
inline constexpr char kPublishPtpTsName[] = "publish_ptp_ts";
inline constexpr int kPublishPtpTsNumber = 536870907;

// The field named `name` if it is also the field numbered `number`, else null.
const google::protobuf::FieldDescriptor* FindStampField(
    const google::protobuf::Descriptor* descriptor, const char* name, int number);

// `field` when a stamp can be written into it: singular and of an integer type, or of a string
// type when `holds_string` (publisher_id). Null otherwise, and for a null field.
const google::protobuf::FieldDescriptor* WritableStampField(
    const google::protobuf::FieldDescriptor* field, bool holds_string);

// The stamp fields of one type that can actually be read and written: singular, and of an

// integer type (a string type for publisher_id). Null where absent or unusable.
struct StampFieldSet {
  const google::protobuf::FieldDescriptor* publish_ts = nullptr;
  const google::protobuf::FieldDescriptor* counter = nullptr;
  const google::protobuf::FieldDescriptor* publisher_id = nullptr;
  const google::protobuf::FieldDescriptor* crc = nullptr;
  const google::protobuf::FieldDescriptor* publish_ptp_ts = nullptr;

  explicit StampFieldSet(const google::protobuf::Descriptor* descriptor);
  bool any() const { return publish_ts || counter || publisher_id || crc || publish_ptp_ts; }
};

// Reflection access used by the stamp setters and readers.
void WriteStampInteger(google::protobuf::Message* message,
                       const google::protobuf::FieldDescriptor* field, uint64_t value);
uint64_t ReadStampInteger(const google::protobuf::Message& message,
                          const google::protobuf::FieldDescriptor* field);
void WriteStampString(google::protobuf::Message* message,
                      const google::protobuf::FieldDescriptor* field, const std::string& value);
std::string ReadStampString(const google::protobuf::Message& message,
                            const google::protobuf::FieldDescriptor* field);

// Serialises with deterministic map order, so that a receiver that parses and re-serialises
// the message gets the same bytes (the CRC depends on it). False as SerializeToString.
bool SerializeDeterministic(const google::protobuf::Message& message, std::string* out);

// The standard reflected CRC-32 of `size` bytes, continuing from `previous` (0 to start).
uint32_t Crc32(const void* data, size_t size, uint32_t previous = 0);

// Where the crc field sits in a message's wire form. The stamp fields have the highest
// numbers, so the crc field is followed only by the few fields numbered above it and by
// unknown fields; its place follows from their sizes, without walking or re-serialising the
// message. Built once per message type; may be used from any thread.
class CrcLayout {
 public:
  explicit CrcLayout(const google::protobuf::Descriptor* descriptor);

  // Sender: turns `bytes`, the deterministic serialisation of `message` made while its crc
  // field held 0, into the serialisation with `crc` there. False, with `bytes` untouched, when
  // the layout is not the expected one (then serialise anew): a crc field that is not a plain
  // unsigned varint, extensions, or bytes that do not hold the zero crc where it belongs.
  bool Patch(const google::protobuf::Message& message, uint32_t crc, std::string* bytes) const;

  // Receiver: the CRC of the `size` received bytes at `data`, from which `message` was parsed,
  // as the sender computed it, with the crc field's value taken as 0 (left out for a field
  // without presence). False when the bytes do not hold the message's crc field where
  // expected (unknown fields in between, another encoder's order): then check the slow way.
  bool ZeroedCrc(const google::protobuf::Message& message, const void* data, size_t size,
                 uint32_t* crc) const;

 private:
  size_t SuffixSize(const google::protobuf::Message& message) const;

  bool usable_ = false;
  const google::protobuf::FieldDescriptor* crc_ = nullptr;
  std::vector<const google::protobuf::FieldDescriptor*> after_crc_;
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
