#include "infra/global_data.h"

#include <errno.h>
#include <sys/random.h>

#include <cstdint>
#include <cstdio>
#include <random>
#include <stdexcept>

namespace tarvik {
namespace korvan {
namespace common {

std::string GlobalData::GenerateUUID() {
  uint8_t bytes[16];
  size_t filled = 0;
  while (filled < sizeof(bytes)) {
    ssize_t n = ::getrandom(bytes + filled, sizeof(bytes) - filled, 0);
    if (n < 0) {
      if (errno == EINTR)
        continue;
      // No kernel randomness (very old kernel or seccomp): fall back to the C++ device.
      std::random_device device;
      for (auto& b : bytes)
        b = static_cast<uint8_t>(device());
      break;
    }
    filled += static_cast<size_t>(n);
  }
  bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  char text[37];
  std::snprintf(text, sizeof(text),
                "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", bytes[0],
                bytes[1], bytes[2], bytes[3], bytes[4], bytes[5], bytes[6], bytes[7], bytes[8],
                bytes[9], bytes[10], bytes[11], bytes[12], bytes[13], bytes[14], bytes[15]);
  return std::string(text, 36);
}

}  // namespace common
}  // namespace korvan
}  // namespace tarvik
