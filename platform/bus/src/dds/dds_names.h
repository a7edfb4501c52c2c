// Mapping of bus topic names onto DDS topic names (private to the bus).
#pragma once

#include <string>

namespace tarvik {
namespace korvan {
namespace bus {

// The DDS topic name for `topic`. Names DDS accepts as they are ([A-Za-z0-9_/], not starting
// with a digit, not DDS's reserved "DCPS" prefix) are kept; any other name becomes
// "korvan_esc/" followed by the hex digits of its bytes. The mapping is injective, so two bus
// topics never share a DDS topic. Discovery always reports the original name.
std::string DdsTopicName(const std::string& topic);

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
