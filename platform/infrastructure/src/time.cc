#include "infra/time.h"

#include <errno.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>

#include "infra/env.h"
#include "trevam/log.h"

namespace tarvik {
namespace korvan {
namespace {

constexpr uint64_t kNanosPerSecond = 1000000000ULL;

// Dynamic POSIX clock id of an open PHC device (the kernel's FD_TO_CLOCKID).
clockid_t ClockIdOfFd(int fd) {
  return static_cast<clockid_t>((~fd << 3) | 3);
}

// The PTP clock is chosen once per process: a PHC device that cannot be read would otherwise
// cost a failed open on every call.
clockid_t PtpClock() {
  static const clockid_t clock = [] {
    const char* device = inf::Env::Current()->GetVariable("KORVAN_PTP_DEVICE");
    if (device == nullptr || *device == '\0')
      return CLOCK_REALTIME;
    int fd = ::open(device, O_RDONLY | O_CLOEXEC);
    timespec probe{};
    if (fd < 0 || ::clock_gettime(ClockIdOfFd(fd), &probe) != 0) {
      int err = errno;
      if (fd >= 0)
        ::close(fd);
      TREVAM_WARNING("korvan_infrastructure")
          << "KORVAN_PTP_DEVICE " << device << " unusable (" << strerror(err)
          << "), using the system real-time clock";
      return CLOCK_REALTIME;
    }
    return ClockIdOfFd(fd);  // the descriptor stays open for the life of the process
  }();
  return clock;
}

uint64_t ReadNanoseconds(clockid_t clock) {
  if (clock == CLOCK_REALTIME)
    return inf::Env::Current()->RealTimeNanos();
  timespec ts{};
  ::clock_gettime(clock, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * kNanosPerSecond + static_cast<uint64_t>(ts.tv_nsec);
}

}  // namespace

uint64_t Time::FromNanoseconds(uint64_t nanoseconds, Preceision precision) {
  switch (precision) {
    case kSecond:
      return nanoseconds / kNanosPerSecond;
    case kMillisecond:
      return nanoseconds / 1000000ULL;
    case kMicrosecond:
      return nanoseconds / 1000ULL;
    case kNanosecond:
    default:
      return nanoseconds;
  }
}

uint64_t Time::Ptp(Preceision precision) {
  return FromNanoseconds(ReadNanoseconds(PtpClock()), precision);
}

uint64_t Time::Utc(Preceision precision) {
  return FromNanoseconds(ReadNanoseconds(CLOCK_REALTIME), precision);
}

void Time::Sleep(unsigned long count, Preceision precision) {
  uint64_t nanos = count;
  switch (precision) {
    case kSecond:
      nanos *= kNanosPerSecond;
      break;
    case kMillisecond:
      nanos *= 1000000ULL;
      break;
    case kMicrosecond:
      nanos *= 1000ULL;
      break;
    case kNanosecond:
    default:
      break;
  }
  inf::Env::Current()->SleepForNanos(nanos);
}

}  // namespace korvan
}  // namespace tarvik
