#include "shm/shm_segment.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace tarvik {
namespace korvan {
namespace bus {
namespace shm {
namespace {

constexpr char kShmDirectory[] = "/dev/shm";

std::string ErrnoText(const char* what) {
  return std::string(what) + ": " + std::strerror(errno);
}

}  // namespace

size_t ControlBytes(uint32_t ring_capacity, uint32_t slot_count) {
  return sizeof(ControlHeader) + ring_capacity * sizeof(RingEntry) +
         slot_count * sizeof(SlotHeader);
}

RingEntry* Ring(ControlHeader* header) {
  return reinterpret_cast<RingEntry*>(header + 1);
}

SlotHeader* Slots(ControlHeader* header) {
  return reinterpret_cast<SlotHeader*>(Ring(header) + header->ring_capacity);
}

Mapping::~Mapping() {
  if (data_ != nullptr)
    ::munmap(data_, size_);
}

Mapping::Mapping(Mapping&& other) noexcept : data_(other.data_), size_(other.size_) {
  other.data_ = nullptr;
  other.size_ = 0;
}

Mapping& Mapping::operator=(Mapping&& other) noexcept {
  if (this != &other) {
    if (data_ != nullptr)
      ::munmap(data_, size_);
    data_ = other.data_;
    size_ = other.size_;
    other.data_ = nullptr;
    other.size_ = 0;
  }
  return *this;
}

std::string Mapping::Create(const std::string& name, size_t size) {
  int fd = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
  if (fd < 0)
    return ErrnoText("shm_open");
  std::string problem;
  // The mode given to shm_open is reduced by the umask, never widened; set it exactly.
  if (::fchmod(fd, S_IRUSR | S_IWUSR) != 0) {
    problem = ErrnoText("fchmod");
  } else {
    // Reserved now: a full /dev/shm fails here instead of killing us with SIGBUS later.
    int rc = ::posix_fallocate(fd, 0, static_cast<off_t>(size));
    if (rc != 0) {
      errno = rc;
      problem = ErrnoText("posix_fallocate");
    }
  }
  void* data = nullptr;
  if (problem.empty()) {
    data = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (data == MAP_FAILED)
      problem = ErrnoText("mmap");
  }
  ::close(fd);
  if (!problem.empty()) {
    ::shm_unlink(name.c_str());
    return problem;
  }
  *this = Mapping();
  data_ = data;
  size_ = size;
  return std::string();
}

std::string Mapping::Open(const std::string& name, bool writable) {
  int fd = ::shm_open(name.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC, 0);
  if (fd < 0)
    return ErrnoText("shm_open");
  struct stat st;
  std::string problem;
  void* data = MAP_FAILED;
  if (::fstat(fd, &st) != 0) {
    problem = ErrnoText("fstat");
  } else if (st.st_uid != ::getuid() || (st.st_mode & 077) != 0) {
    problem = "not a private object of this user";
  } else {
    data = ::mmap(nullptr, static_cast<size_t>(st.st_size),
                  writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
    if (data == MAP_FAILED)
      problem = ErrnoText("mmap");
  }
  ::close(fd);
  if (!problem.empty())
    return problem;
  *this = Mapping();
  data_ = data;
  size_ = static_cast<size_t>(st.st_size);
  return std::string();
}

uint64_t ProcessStartTime(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // The command name may hold spaces and parentheses: count fields after the last ')'.
  size_t close = text.rfind(')');
  if (close == std::string::npos)
    return 0;
  std::istringstream fields(text.substr(close + 1));
  std::string field;
  // Field 3 (state) is the first after the name; the start time is field 22.
  for (int i = 3; i <= 22; ++i) {
    if (!(fields >> field))
      return 0;
  }
  return std::strtoull(field.c_str(), nullptr, 10);
}

uint64_t OwnStartTime() {
  static const uint64_t start = ProcessStartTime(::getpid());
  return start;
}

bool ProcessAlive(pid_t pid, uint64_t start_time) {
  if (pid <= 0)
    return false;
  if (::kill(pid, 0) != 0 && errno == ESRCH)
    return false;
  const uint64_t started = ProcessStartTime(pid);
  return started == 0 || started == start_time;
}

std::string ProcessPrefix() {
  static const std::string prefix = "/korvan." + std::to_string(::getuid()) + "." +
                                    std::to_string(::getpid()) + "." +
                                    std::to_string(OwnStartTime()) + ".";
  return prefix;
}

std::string DataObjectName(const std::string& control, uint32_t slot, uint32_t generation) {
  return control + "." + std::to_string(slot) + "." + std::to_string(generation);
}

int SweepDeadObjects() {
  const std::string mine = "korvan." + std::to_string(::getuid()) + ".";
  DIR* dir = ::opendir(kShmDirectory);
  if (dir == nullptr)
    return 0;
  int removed = 0;
  while (struct dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name.compare(0, mine.size(), mine) != 0)
      continue;
    unsigned long long pid = 0;
    unsigned long long start = 0;
    if (std::sscanf(name.c_str() + mine.size(), "%llu.%llu.", &pid, &start) != 2)
      continue;
    if (ProcessAlive(static_cast<pid_t>(pid), start))
      continue;
    if (::shm_unlink(("/" + name).c_str()) == 0)
      ++removed;
  }
  ::closedir(dir);
  return removed;
}

void FutexWait(std::atomic<uint32_t>* word, uint32_t expected, std::chrono::microseconds timeout) {
  struct timespec ts;
  ts.tv_sec = static_cast<time_t>(timeout.count() / 1000000);
  ts.tv_nsec = static_cast<long>((timeout.count() % 1000000) * 1000);
  ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT, expected, &ts, nullptr, 0);
}

void FutexWakeAll(std::atomic<uint32_t>* word) {
  ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAKE, INT32_MAX, nullptr, nullptr,
            0);
}

int64_t MonotonicNs() {
  struct timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

}  // namespace shm
}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
