// Clock reads and sleeps of the platform.
//
// Every operation takes a precision code that is also the unit of its value:
//   0 = seconds, 1 = milliseconds, 2 = microseconds, 3 = nanoseconds.
// Ptp reads the PTP-disciplined clock: the PHC device named by KORVAN_PTP_DEVICE (for
// example /dev/ptp0) when that variable is set and the device opens, otherwise the system
// real-time clock (which ptp4l/phc2sys keep in step on a synchronised host). Utc always reads
// the system real-time clock. All functions are thread-safe.
#pragma once

#include <cstdint>

namespace tarvik {
namespace korvan {

class Time {
 public:
  // Spelled as the platform has always spelled it.
  enum Preceision {
    kSecond = 0,
    kMillisecond = 1,
    kMicrosecond = 2,
    kNanosecond = 3,
  };

  // Time since the epoch of the PTP clock, in the unit of `precision`.
  static uint64_t Ptp(Preceision precision);
  // Time since the Unix epoch, in the unit of `precision`.
  static uint64_t Utc(Preceision precision);
  // Sleeps `count` units of `precision` (restarting after signals).
  static void Sleep(unsigned long count, Preceision precision);

  // Converts a nanosecond count into the unit of `precision` (integer division).
  static uint64_t FromNanoseconds(uint64_t nanoseconds, Preceision precision);
};

}  // namespace korvan
}  // namespace tarvik
