// Which of one writer's numbered samples a reader already delivered, when two paths bring
// copies of them and several delivery threads admit them out of order (private to the bus).
//
// A mark of the highest number delivered is not enough: a thread that took sample 11 may
// admit it after another thread admitted 12. The window remembers each number of the last
// kSpan; a number older than that counts as seen, as its copy can only be a late duplicate.
#pragma once

#include <array>
#include <cstdint>

namespace tarvik {
namespace korvan {
namespace bus {

class SeenWindow {
 public:
  static constexpr uint64_t kSpan = 4096;

  // True, and remembered, the first time `sequence` is offered; false for a copy.
  bool FirstTime(uint64_t sequence) {
    if (!started_) {
      // Room below the first number for samples taken earlier by another thread.
      end_ = sequence + kSpan / 2;
      started_ = true;
    }
    if (sequence >= end_) {
      // Slide: forget the numbers that fall out of the window.
      const uint64_t slide = sequence + 1 - end_;
      if (slide >= kSpan) {
        bits_.fill(0);
      } else {
        for (uint64_t s = end_; s <= sequence; ++s)
          Clear(s);
      }
      end_ = sequence + 1;
    }
    if (end_ - sequence > kSpan)
      return false;  // older than the window
    const uint64_t word = (sequence % kSpan) / 64;
    const uint64_t bit = uint64_t{1} << (sequence % 64);
    if ((bits_[word] & bit) != 0)
      return false;
    bits_[word] |= bit;
    return true;
  }

 private:
  void Clear(uint64_t sequence) {
    bits_[(sequence % kSpan) / 64] &= ~(uint64_t{1} << (sequence % 64));
  }

  bool started_ = false;
  uint64_t end_ = 0;  // one past the highest number the window covers
  std::array<uint64_t, kSpan / 64> bits_{};
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
