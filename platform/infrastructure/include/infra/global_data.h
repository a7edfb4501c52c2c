// Process-wide helpers of the platform.
#pragma once

#include <string>

namespace tarvik {
namespace korvan {
namespace common {

class GlobalData {
 public:
  // A random (version 4) UUID in its 36-character text form, from the kernel's random source.
  static std::string GenerateUUID();
};

}  // namespace common
}  // namespace korvan
}  // namespace tarvik
