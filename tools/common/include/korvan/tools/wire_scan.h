// Facts read straight from a message's wire bytes, without decoding the message: for tools
// that only measure a topic (rate, bandwidth, delay) and must keep up with fast publishers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tarvik {
namespace korvan {
namespace tools {

// The top-level publish_ts stamp (field 536870911, a varint or fixed-width integer) of the
// serialised message at `data`. False when the bytes hold none or are not a well-formed
// protobuf message; the last occurrence wins, as in a parse.
bool ReadPublishTime(const void* data, size_t size, uint64_t* publish_time_ns);

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
