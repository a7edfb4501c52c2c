#include "korvan/tools/wire_stamps.h"

#include <google/protobuf/descriptor.h>

#include "tarvikdds/bus/stamp_fields.h"

namespace tarvik {
namespace korvan {
namespace tools {
namespace {

using google::protobuf::FieldDescriptor;

// Protobuf's own bound on nesting; groups are the only nesting a top-level walk meets.
constexpr int kMaxGroupDepth = 100;

StampEncoding EncodingOf(const FieldDescriptor* field) {
  if (field == nullptr)
    return StampEncoding::kAbsent;
  switch (field->type()) {
    case FieldDescriptor::TYPE_UINT64:
    case FieldDescriptor::TYPE_INT64:
      return StampEncoding::kVarint;
    case FieldDescriptor::TYPE_UINT32:
      return StampEncoding::kUInt32;
    case FieldDescriptor::TYPE_INT32:
      return StampEncoding::kInt32;
    case FieldDescriptor::TYPE_SINT32:
      return StampEncoding::kZigZag32;
    case FieldDescriptor::TYPE_SINT64:
      return StampEncoding::kZigZag64;
    case FieldDescriptor::TYPE_FIXED32:
      return StampEncoding::kFixed32;
    case FieldDescriptor::TYPE_SFIXED32:
      return StampEncoding::kSFixed32;
    case FieldDescriptor::TYPE_FIXED64:
    case FieldDescriptor::TYPE_SFIXED64:
      return StampEncoding::kFixed64;
    case FieldDescriptor::TYPE_STRING:
    case FieldDescriptor::TYPE_BYTES:
      return StampEncoding::kString;
    default:
      return StampEncoding::kAbsent;
  }
}

enum WireType {
  kVarint = 0,
  kFixed64 = 1,
  kLength = 2,
  kStartGroup = 3,
  kEndGroup = 4,
  kFixed32 = 5
};

int WireTypeOf(StampEncoding encoding) {
  switch (encoding) {
    case StampEncoding::kVarint:
    case StampEncoding::kUInt32:
    case StampEncoding::kInt32:
    case StampEncoding::kZigZag32:
    case StampEncoding::kZigZag64:
      return kVarint;
    case StampEncoding::kFixed32:
    case StampEncoding::kSFixed32:
      return kFixed32;
    case StampEncoding::kFixed64:
      return kFixed64;
    case StampEncoding::kString:
      return kLength;
    default:
      return -1;
  }
}

class Cursor {
 public:
  Cursor(const uint8_t* p, const uint8_t* end) : p_(p), end_(end) {}
  bool done() const { return p_ == end_; }

  bool Varint(uint64_t* value) {
    uint64_t result = 0;
    for (int shift = 0; shift < 70; shift += 7) {
      if (p_ == end_)
        return false;
      const uint8_t byte = *p_++;
      // The tenth byte may only hold the top bit of 64.
      if (shift == 63 && byte > 1)
        return false;
      result |= static_cast<uint64_t>(byte & 0x7f) << shift;
      if ((byte & 0x80) == 0) {
        *value = result;
        return true;
      }
    }
    return false;
  }

  bool Fixed(size_t bytes, uint64_t* value) {
    if (static_cast<size_t>(end_ - p_) < bytes)
      return false;
    uint64_t result = 0;
    for (size_t i = 0; i < bytes; ++i)
      result |= static_cast<uint64_t>(p_[i]) << (8 * i);
    p_ += bytes;
    *value = result;
    return true;
  }

  bool Bytes(std::string_view* view) {
    uint64_t length = 0;
    if (!Varint(&length) || length > static_cast<uint64_t>(end_ - p_))
      return false;
    *view = std::string_view(reinterpret_cast<const char*>(p_), static_cast<size_t>(length));
    p_ += length;
    return true;
  }

  // Skips a field's value of `wire_type`; a group up to its end tag (field `number`).
  bool Skip(int wire_type, uint64_t number, int depth) {
    uint64_t scratch = 0;
    std::string_view view;
    switch (wire_type) {
      case kVarint:
        return Varint(&scratch);
      case kFixed64:
        return Fixed(8, &scratch);
      case kFixed32:
        return Fixed(4, &scratch);
      case kLength:
        return Bytes(&view);
      case kStartGroup: {
        if (depth >= kMaxGroupDepth)
          return false;
        for (;;) {
          uint64_t tag = 0;
          if (!Varint(&tag) || (tag >> 3) == 0 || (tag >> 3) > 0x1fffffff)
            return false;
          if ((tag & 7) == kEndGroup)
            return (tag >> 3) == number;
          if (!Skip(static_cast<int>(tag & 7), tag >> 3, depth + 1))
            return false;
        }
      }
      default:
        return false;  // an end group outside a group, or wire types 6 and 7
    }
  }

 private:
  const uint8_t* p_;
  const uint8_t* end_;
};

// The integer a stamp of `encoding` holds, as reflection reads it.
uint64_t Decode(StampEncoding encoding, uint64_t raw) {
  switch (encoding) {
    case StampEncoding::kUInt32:
    case StampEncoding::kFixed32:
      return static_cast<uint32_t>(raw);
    case StampEncoding::kInt32:
    case StampEncoding::kSFixed32:
      return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(raw)));
    case StampEncoding::kZigZag32: {
      const uint32_t v = static_cast<uint32_t>(raw);
      const int32_t decoded = static_cast<int32_t>((v >> 1) ^ (~(v & 1) + 1));
      return static_cast<uint64_t>(static_cast<int64_t>(decoded));
    }
    case StampEncoding::kZigZag64:
      return static_cast<uint64_t>(static_cast<int64_t>((raw >> 1) ^ (~(raw & 1) + 1)));
    default:
      return raw;
  }
}

}  // namespace

StampLayout StampLayout::Of(const google::protobuf::Descriptor* descriptor) {
  StampLayout layout;
  if (descriptor == nullptr)
    return layout;
  const bus::StampFieldSet stamps(descriptor);
  layout.publish_ts = EncodingOf(stamps.publish_ts);
  layout.counter = EncodingOf(stamps.counter);
  layout.publisher_id = EncodingOf(stamps.publisher_id);
  return layout;
}

bool ReadWireStamps(const void* data, size_t size, const StampLayout& layout, WireStamps* out) {
  *out = WireStamps();
  const auto* begin = static_cast<const uint8_t*>(data);
  Cursor cursor(begin, begin + size);
  const int publish_ts_wire = WireTypeOf(layout.publish_ts);
  const int counter_wire = WireTypeOf(layout.counter);
  const int publisher_id_wire = WireTypeOf(layout.publisher_id);
  WireStamps found;
  while (!cursor.done()) {
    uint64_t tag = 0;
    if (!cursor.Varint(&tag))
      return false;
    const uint64_t number = tag >> 3;
    const int wire_type = static_cast<int>(tag & 7);
    if (number == 0 || number > 0x1fffffff)
      return false;
    int wanted = -1;
    StampEncoding encoding = StampEncoding::kAbsent;
    if (number == static_cast<uint64_t>(bus::kPublishTsNumber) && wire_type == publish_ts_wire) {
      wanted = 0;
      encoding = layout.publish_ts;
    } else if (number == static_cast<uint64_t>(bus::kCounterNumber) && wire_type == counter_wire) {
      wanted = 1;
      encoding = layout.counter;
    } else if (number == static_cast<uint64_t>(bus::kPublisherIdNumber) &&
               wire_type == publisher_id_wire) {
      wanted = 2;
    }
    if (wanted < 0) {
      if (!cursor.Skip(wire_type, number, 0))
        return false;
      continue;
    }
    if (wanted == 2) {
      if (!cursor.Bytes(&found.publisher_id))
        return false;
      found.has_publisher_id = true;
      continue;
    }
    uint64_t raw = 0;
    const bool read = wire_type == kVarint    ? cursor.Varint(&raw)
                      : wire_type == kFixed32 ? cursor.Fixed(4, &raw)
                                              : cursor.Fixed(8, &raw);
    if (!read)
      return false;
    const uint64_t value = Decode(encoding, raw);
    if (wanted == 0) {
      found.has_publish_ts = true;
      found.publish_ts = value;
    } else {
      found.has_counter = true;
      found.counter = value;
    }
  }
  *out = found;
  return true;
}

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
