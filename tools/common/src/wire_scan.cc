#include "korvan/tools/wire_scan.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>

#include <climits>

#include "tarvikdds/bus/stamp_fields.h"

namespace tarvik {
namespace korvan {
namespace tools {

bool ReadPublishTime(const void* data, size_t size, uint64_t* publish_time_ns) {
  using google::protobuf::internal::WireFormatLite;
  if (data == nullptr || size > static_cast<size_t>(INT_MAX))
    return false;
  google::protobuf::io::CodedInputStream input(static_cast<const uint8_t*>(data),
                                               static_cast<int>(size));
  bool found = false;
  uint64_t value = 0;
  for (;;) {
    const uint32_t tag = input.ReadTag();
    if (tag == 0) {
      // 0 is the end of the bytes, or a broken tag before it.
      if (!found || !input.ConsumedEntireMessage())
        return false;
      *publish_time_ns = value;
      return true;
    }
    if (WireFormatLite::GetTagFieldNumber(tag) != bus::kPublishTsNumber) {
      if (!WireFormatLite::SkipField(&input, tag))
        return false;
      continue;
    }
    switch (WireFormatLite::GetTagWireType(tag)) {
      case WireFormatLite::WIRETYPE_VARINT:
        if (!input.ReadVarint64(&value))
          return false;
        break;
      case WireFormatLite::WIRETYPE_FIXED64:
        if (!input.ReadLittleEndian64(&value))
          return false;
        break;
      case WireFormatLite::WIRETYPE_FIXED32: {
        uint32_t narrow = 0;
        if (!input.ReadLittleEndian32(&narrow))
          return false;
        value = narrow;
        break;
      }
      default:
        return false;  // not an integer: not a stamp
    }
    found = true;
  }
}

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
