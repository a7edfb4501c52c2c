// Process-wide instances of bus classes: created on first use (thread-safe), destroyed by
// the static destructors at process exit.
#pragma once

namespace tarvik {
namespace korvan {
namespace utils {

template <typename T>
class Singleton {
 public:
  static T* Instance() {
    static T instance;
    return &instance;
  }
};

}  // namespace utils
}  // namespace korvan
}  // namespace tarvik
