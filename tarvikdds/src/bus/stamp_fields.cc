#include "tarvikdds/bus/stamp_fields.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/message.h>
#include <google/protobuf/unknown_field_set.h>
#include <google/protobuf/wire_format.h>

#include <isa-l/crc.h>

#include <cstring>

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

using google::protobuf::FieldDescriptor;

}  // namespace

const FieldDescriptor* WritableStampField(const FieldDescriptor* field, bool want_string) {
  if (field == nullptr || field->is_repeated())
    return nullptr;
  switch (field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_INT32:
    case FieldDescriptor::CPPTYPE_INT64:
    case FieldDescriptor::CPPTYPE_UINT32:
    case FieldDescriptor::CPPTYPE_UINT64:
      return want_string ? nullptr : field;
    case FieldDescriptor::CPPTYPE_STRING:
      return want_string ? field : nullptr;
    default:
      return nullptr;
  }
}

const FieldDescriptor* FindStampField(const google::protobuf::Descriptor* descriptor,
                                      const char* name, int number) {
  if (descriptor == nullptr)
    return nullptr;
  const FieldDescriptor* by_name = descriptor->FindFieldByName(name);
  if (by_name == nullptr || by_name != descriptor->FindFieldByNumber(number))
    return nullptr;
  return by_name;
}

StampFieldSet::StampFieldSet(const google::protobuf::Descriptor* descriptor)
    : publish_ts(
          WritableStampField(FindStampField(descriptor, kPublishTsName, kPublishTsNumber), false)),
      counter(WritableStampField(FindStampField(descriptor, kCounterName, kCounterNumber), false)),
      publisher_id(WritableStampField(
          FindStampField(descriptor, kPublisherIdName, kPublisherIdNumber), true)),
      crc(WritableStampField(FindStampField(descriptor, kCrcName, kCrcNumber), false)),
      publish_ptp_ts(WritableStampField(
          FindStampField(descriptor, kPublishPtpTsName, kPublishPtpTsNumber), false)) {}

void WriteStampInteger(google::protobuf::Message* message, const FieldDescriptor* field,
                       uint64_t value) {
  const auto* reflection = message->GetReflection();
  switch (field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_INT32:
      reflection->SetInt32(message, field, static_cast<int32_t>(value));
      break;
    case FieldDescriptor::CPPTYPE_INT64:
      reflection->SetInt64(message, field, static_cast<int64_t>(value));
      break;
    case FieldDescriptor::CPPTYPE_UINT32:
      reflection->SetUInt32(message, field, static_cast<uint32_t>(value));
      break;
    case FieldDescriptor::CPPTYPE_UINT64:
      reflection->SetUInt64(message, field, value);
      break;
    default:
      break;
  }
}

uint64_t ReadStampInteger(const google::protobuf::Message& message, const FieldDescriptor* field) {
  const auto* reflection = message.GetReflection();
  switch (field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_INT32:
      return static_cast<uint64_t>(static_cast<int64_t>(reflection->GetInt32(message, field)));
    case FieldDescriptor::CPPTYPE_INT64:
      return static_cast<uint64_t>(reflection->GetInt64(message, field));
    case FieldDescriptor::CPPTYPE_UINT32:
      return reflection->GetUInt32(message, field);
    case FieldDescriptor::CPPTYPE_UINT64:
      return reflection->GetUInt64(message, field);
    default:
      return 0;
  }
}

void WriteStampString(google::protobuf::Message* message, const FieldDescriptor* field,
                      const std::string& value) {
  message->GetReflection()->SetString(message, field, value);
}

std::string ReadStampString(const google::protobuf::Message& message,
                            const FieldDescriptor* field) {
  return message.GetReflection()->GetString(message, field);
}

bool SerializeDeterministic(const google::protobuf::Message& message, std::string* out) {
  if (!message.IsInitialized())
    return false;
  // Sized once, written in place: growing a string as the stream fills it dominated the cost
  // of large messages.
  const size_t size = message.ByteSizeLong();
  out->resize(size);
  google::protobuf::io::ArrayOutputStream array(&(*out)[0], static_cast<int>(size));
  google::protobuf::io::CodedOutputStream coded(&array);
  coded.SetSerializationDeterministic(true);
  message.SerializeWithCachedSizes(&coded);
  return !coded.HadError();
}

uint32_t Crc32(const void* data, size_t size, uint32_t previous) {
  if (size == 0)
    return previous;
  return crc32_gzip_refl(previous, static_cast<const unsigned char*>(data), size);
}

namespace {

// The crc field's key (field 536870908, varint) as it is encoded.
constexpr char kCrcKey[] = {'\xE0', '\xFF', '\xFF', '\xFF', '\x0F'};

size_t EncodeVarint(uint32_t value, char out[5]) {
  size_t length = 0;
  do {
    out[length++] = static_cast<char>((value & 0x7F) | (value > 0x7F ? 0x80 : 0));
    value >>= 7;
  } while (value != 0);
  return length;
}

}  // namespace

CrcLayout::CrcLayout(const google::protobuf::Descriptor* descriptor) {
  crc_ = FindStampField(descriptor, kCrcName, kCrcNumber);
  usable_ = crc_ != nullptr && !crc_->is_repeated() &&
            (crc_->type() == FieldDescriptor::TYPE_UINT32 ||
             crc_->type() == FieldDescriptor::TYPE_UINT64) &&
            descriptor->extension_range_count() == 0;
  for (int i = 0; usable_ && i < descriptor->field_count(); ++i) {
    if (descriptor->field(i)->number() > kCrcNumber)
      after_crc_.push_back(descriptor->field(i));
  }
}

size_t CrcLayout::SuffixSize(const google::protobuf::Message& message) const {
  using google::protobuf::internal::WireFormat;
  const auto* reflection = message.GetReflection();
  size_t suffix = 0;
  for (const FieldDescriptor* field : after_crc_) {
    // FieldByteSize counts the length byte of an absent string.
    if (field->is_repeated() || reflection->HasField(message, field))
      suffix += WireFormat::FieldByteSize(field, message);
  }
  const auto& unknown = reflection->GetUnknownFields(message);
  if (!unknown.empty())
    suffix += WireFormat::ComputeUnknownFieldsSize(unknown);
  return suffix;
}

bool CrcLayout::Patch(const google::protobuf::Message& message, uint32_t crc,
                      std::string* bytes) const {
  if (!usable_)
    return false;
  const size_t suffix = SuffixSize(message);
  // The crc field's key, then the value 0.
  constexpr size_t kZeroField = sizeof(kCrcKey) + 1;
  if (bytes->size() < suffix + kZeroField)
    return false;
  const size_t at = bytes->size() - suffix - kZeroField;
  if (std::memcmp(bytes->data() + at, kCrcKey, sizeof(kCrcKey)) != 0 ||
      (*bytes)[at + sizeof(kCrcKey)] != '\0')
    return false;
  char value[5];
  const size_t length = EncodeVarint(crc, value);
  bytes->replace(at + sizeof(kCrcKey), 1, value, length);
  return true;
}

bool CrcLayout::ZeroedCrc(const google::protobuf::Message& message, const void* data, size_t size,
                          uint32_t* crc) const {
  const auto* reflection = message.GetReflection();
  if (!usable_ || !reflection->HasField(message, crc_))
    return false;
  const uint64_t carried = crc_->type() == FieldDescriptor::TYPE_UINT32
                               ? reflection->GetUInt32(message, crc_)
                               : reflection->GetUInt64(message, crc_);
  if (carried > 0xFFFFFFFFu)
    return false;
  char value[5];
  const size_t value_length = EncodeVarint(static_cast<uint32_t>(carried), value);
  const size_t field = sizeof(kCrcKey) + value_length;
  const size_t suffix = SuffixSize(message);
  if (size < suffix + field)
    return false;
  const auto* bytes = static_cast<const char*>(data);
  const size_t at = size - suffix - field;
  if (std::memcmp(bytes + at, kCrcKey, sizeof(kCrcKey)) != 0 ||
      std::memcmp(bytes + at + sizeof(kCrcKey), value, value_length) != 0)
    return false;
  if (crc_->has_presence()) {
    // The sender computed over the field holding 0: its key, then one zero byte.
    static const char kZero = '\0';
    uint32_t sum = Crc32(bytes, at + sizeof(kCrcKey));
    sum = Crc32(&kZero, 1, sum);
    *crc = Crc32(bytes + at + field, suffix, sum);
  } else {
    // A field without presence holding 0 is not written at all.
    *crc = Crc32(bytes + at + field, suffix, Crc32(bytes, at));
  }
  return true;
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
