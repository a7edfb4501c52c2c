// The stamp fields of a message read straight from its wire bytes, without decoding it. A
// recorder keeps every message as the bytes it came in and needs only its publish time, its
// counter and its publisher's identity; a walk over the top-level tags (length-delimited
// fields are skipped, not entered) costs a fraction of a parse.
//
// Both functions are pure; any thread may call them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace google {
namespace protobuf {
class Descriptor;
}  // namespace protobuf
}  // namespace google

namespace tarvik {
namespace korvan {
namespace tools {

// How one stamp field a type declares is encoded, so the walk decodes it as reflection would.
enum class StampEncoding : uint8_t {
  kAbsent,    // the type does not declare it
  kVarint,    // uint64, int64
  kUInt32,    // uint32: a parser keeps the low 32 bits of the varint
  kInt32,     // int32: the low 32 bits, sign-extended
  kZigZag32,  // sint32
  kZigZag64,  // sint64
  kFixed32,   // fixed32, sfixed32 (sfixed32 sign-extended)
  kSFixed32,
  kFixed64,  // fixed64, sfixed64
  kString,   // publisher_id
};

// The stamp fields a type declares (bus::StampFieldSet: right name and number, singular).
struct StampLayout {
  StampEncoding publish_ts = StampEncoding::kAbsent;
  StampEncoding counter = StampEncoding::kAbsent;
  StampEncoding publisher_id = StampEncoding::kAbsent;

  static StampLayout Of(const google::protobuf::Descriptor* descriptor);
  bool any() const {
    return publish_ts != StampEncoding::kAbsent || counter != StampEncoding::kAbsent ||
           publisher_id != StampEncoding::kAbsent;
  }
};

struct WireStamps {
  bool has_publish_ts = false;
  uint64_t publish_ts = 0;  // as bus::ReadStampInteger gives it
  bool has_counter = false;
  uint64_t counter = 0;
  bool has_publisher_id = false;
  std::string_view publisher_id;  // points into the bytes walked
};

// Reads the stamps `layout` names from `size` bytes of a serialised message. Like a parser, the
// last occurrence of a field wins, and a field sent with another wire type than the declared
// one is not taken. False (with `out` cleared) when the bytes are not a well-formed message at
// the top level: a truncated or overlong varint, a length past the end, a stray end-group tag,
// field number 0.
bool ReadWireStamps(const void* data, size_t size, const StampLayout& layout, WireStamps* out);

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
