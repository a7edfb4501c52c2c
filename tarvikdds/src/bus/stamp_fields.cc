#include "tarvikdds/bus/stamp_fields.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/message.h>
#include <google/protobuf/unknown_field_set.h>
#include <google/protobuf/wire_format.h>

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

CrcPatcher::CrcPatcher(const google::protobuf::Descriptor* descriptor) {
  const FieldDescriptor* crc = FindStampField(descriptor, kCrcName, kCrcNumber);
  usable_ = crc != nullptr && !crc->is_repeated() &&
            (crc->type() == FieldDescriptor::TYPE_UINT32 ||
             crc->type() == FieldDescriptor::TYPE_UINT64) &&
            descriptor->extension_range_count() == 0;
  for (int i = 0; usable_ && i < descriptor->field_count(); ++i) {
    if (descriptor->field(i)->number() > kCrcNumber)
      after_crc_.push_back(descriptor->field(i));
  }
}

bool CrcPatcher::Patch(const google::protobuf::Message& message, uint32_t crc,
                       std::string* bytes) const {
  using google::protobuf::internal::WireFormat;
  if (!usable_)
    return false;
  // After the crc field come only fields numbered above it, then the unknown fields.
  size_t suffix = 0;
  for (const FieldDescriptor* field : after_crc_)
    suffix += WireFormat::FieldByteSize(field, message);
  const auto& unknown = message.GetReflection()->GetUnknownFields(message);
  if (!unknown.empty())
    suffix += WireFormat::ComputeUnknownFieldsSize(unknown);
  // The crc field's key as a varint, then the value 0.
  static const char kZeroCrc[] = {'\xE0', '\xFF', '\xFF', '\xFF', '\x0F', '\x00'};
  if (bytes->size() < suffix + sizeof(kZeroCrc))
    return false;
  const size_t at = bytes->size() - suffix - sizeof(kZeroCrc);
  if (std::memcmp(bytes->data() + at, kZeroCrc, sizeof(kZeroCrc)) != 0)
    return false;
  char value[5];
  size_t length = 0;
  uint32_t rest = crc;
  do {
    value[length++] = static_cast<char>((rest & 0x7F) | (rest > 0x7F ? 0x80 : 0));
    rest >>= 7;
  } while (rest != 0);
  bytes->replace(at + sizeof(kZeroCrc) - 1, 1, value, length);
  return true;
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
