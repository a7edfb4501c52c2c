#include "infra/env.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

namespace tarvik {
namespace korvan {
namespace inf {
namespace {

constexpr uint64_t kNanosPerSecond = 1000000000ULL;

uint64_t ReadClock(clockid_t clock) {
  timespec ts{};
  ::clock_gettime(clock, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * kNanosPerSecond + static_cast<uint64_t>(ts.tv_nsec);
}

class PosixEnv : public Env {
 public:
  int AtExit(void (*hook)()) override { return std::atexit(hook); }
  const char* GetVariable(const char* name) override { return std::getenv(name); }

  bool HostName(std::string* name) override {
    char host[256] = {0};  // one byte more than gethostname may fill: always terminated
    if (::gethostname(host, sizeof(host) - 1) != 0)
      return false;
    *name = host;
    return true;
  }

  uint64_t NowNanos() override { return ReadClock(CLOCK_MONOTONIC); }
  uint64_t RealTimeNanos() override { return ReadClock(CLOCK_REALTIME); }

  void SleepForNanos(uint64_t nanos) override {
    timespec request{static_cast<time_t>(nanos / kNanosPerSecond),
                     static_cast<long>(nanos % kNanosPerSecond)};
    timespec remaining{};
    while (::nanosleep(&request, &remaining) != 0 && errno == EINTR)
      request = remaining;
  }

  bool ReadFile(const std::string& path, size_t max_bytes, std::string* contents,
                FileError* error) override {
    contents->clear();
    *error = FileError();
    struct stat info {};
    const bool stated = ::stat(path.c_str(), &info) == 0;
    if (stated && S_ISDIR(info.st_mode)) {
      error->step = FileError::kIsDirectory;
      error->error_number = EISDIR;
      return false;
    }
    // A regular file above the limit is refused unread.
    if (stated && S_ISREG(info.st_mode) && static_cast<uint64_t>(info.st_size) > max_bytes) {
      error->step = FileError::kTooLarge;
      error->file_size = static_cast<uint64_t>(info.st_size);
      return false;
    }
    int fd;
    do {
      fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
      error->step = FileError::kOpen;
      error->error_number = errno;
      return false;
    }
    char buffer[16 * 1024];
    bool ok = true;
    for (;;) {
      ssize_t n = ::read(fd, buffer, sizeof(buffer));
      if (n < 0 && errno == EINTR)
        continue;
      if (n < 0) {
        error->step = FileError::kRead;
        error->error_number = errno;
        ok = false;
        break;
      }
      if (n == 0)
        break;
      if (static_cast<size_t>(n) > max_bytes - contents->size()) {
        error->step = FileError::kTooLarge;
        ok = false;
        break;
      }
      contents->append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return ok;
  }
};

std::atomic<Env*> g_current{nullptr};

}  // namespace

Env* Env::Default() {
  static PosixEnv* env = new PosixEnv();  // never destroyed: used by exit hooks
  return env;
}

Env* Env::Current() {
  Env* env = g_current.load(std::memory_order_acquire);
  return env != nullptr ? env : Default();
}

Env* Env::Replace(Env* env) {
  Env* previous = g_current.exchange(env, std::memory_order_acq_rel);
  return previous != nullptr ? previous : Default();
}

}  // namespace inf
}  // namespace korvan
}  // namespace tarvik
