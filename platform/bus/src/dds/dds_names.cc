#include "dds/dds_names.h"

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

constexpr char kEscapePrefix[] = "korvan_esc/";

bool UsableAsIs(const std::string& topic) {
  if (topic.empty() || (topic[0] >= '0' && topic[0] <= '9'))
    return false;
  if (topic.compare(0, 4, "DCPS") == 0)
    return false;
  if (topic.compare(0, sizeof(kEscapePrefix) - 1, kEscapePrefix) == 0)
    return false;
  for (char c : topic) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '_' || c == '/';
    if (!ok)
      return false;
  }
  return true;
}

}  // namespace

std::string DdsTopicName(const std::string& topic) {
  if (UsableAsIs(topic))
    return topic;
  static const char kHex[] = "0123456789abcdef";
  std::string name = kEscapePrefix;
  for (unsigned char c : topic) {
    name += kHex[c >> 4];
    name += kHex[c & 0x0F];
  }
  return name;
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
