#include "support/test_environment.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <fstream>

#include "trevam/trevam.h"

namespace korvan_test {

std::string SelfExecutable() {
  char path[PATH_MAX] = {0};
  ssize_t n = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
  return n > 0 ? std::string(path, static_cast<size_t>(n)) : std::string();
}

std::string TestScratchDirectory() {
  static const std::string dir = [] {
    const char* tmp = std::getenv("TMPDIR");
    std::string d = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/korvan-tests";
    ::mkdir(d.c_str(), 0777);
    return d;
  }();
  return dir;
}

int ClaimTestDomain() {
  if (const char* existing = std::getenv("KORVAN_DOMAIN_ID"))
    return std::atoi(existing);
  std::string lock_dir = TestScratchDirectory() + "/domains";
  ::mkdir(lock_dir.c_str(), 0777);
  // Domain ids 1..230: each test process holds the lock of its id until it exits.
  for (int id = 1; id <= 230; ++id) {
    std::string path = lock_dir + "/" + std::to_string(id) + ".lock";
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0)
      continue;
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
      ::setenv("KORVAN_DOMAIN_ID", std::to_string(id).c_str(), 1);
      return id;  // fd stays open: the lock is ours for the life of the process
    }
    ::close(fd);
  }
  std::fprintf(stderr, "no free test domain\n");
  std::abort();
}

std::string UniqueName(const std::string& prefix) {
  static std::atomic<int> counter{0};
  return prefix + "_" + std::to_string(::getpid()) + "_" + std::to_string(++counter);
}

std::string WriteScratchFile(const std::string& name, const std::string& content) {
  std::string path = TestScratchDirectory() + "/" + std::to_string(::getpid()) + "-" + name;
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  return path;
}

void TouchFile(const std::string& path) {
  std::ofstream(path, std::ios::trunc) << "1";
}

bool WaitForFile(const std::string& path, int timeout_ms) {
  for (int waited = 0;; waited += 5) {
    if (::access(path.c_str(), F_OK) == 0)
      return true;
    if (waited >= timeout_ms)
      return false;
    ::usleep(5000);
  }
}

std::string ScratchPath(const std::string& name) {
  std::string path = TestScratchDirectory() + "/" + UniqueName(name);
  ::unlink(path.c_str());
  return path;
}

void UseLocalBus() {
  ::setenv("KORVAN_BUS_TRANSPORT", "local", 1);
}

ScopedEnv::ScopedEnv(const std::string& name, const char* value) : name_(name) {
  if (const char* old = std::getenv(name.c_str())) {
    had_value_ = true;
    old_value_ = old;
  }
  if (value != nullptr) {
    ::setenv(name.c_str(), value, 1);
  } else {
    ::unsetenv(name.c_str());
  }
}

ScopedEnv::~ScopedEnv() {
  if (had_value_) {
    ::setenv(name_.c_str(), old_value_.c_str(), 1);
  } else {
    ::unsetenv(name_.c_str());
  }
}

LogCapture::LogCapture(int level)
    : level_(std::make_unique<ScopedEnv>("TREVAM_LOG_LEVEL", std::to_string(level).c_str())) {
  trevam::ReloadLevels();
  google::AddLogSink(this);
}

LogCapture::~LogCapture() {
  google::RemoveLogSink(this);
  level_.reset();
  trevam::ReloadLevels();
}

void LogCapture::send(google::LogSeverity severity, const char*, const char*, int, const std::tm*,
                      const char* message, size_t message_len) {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.emplace_back(severity, std::string(message, message_len));
}

std::vector<std::string> LogCapture::Lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> out;
  for (const auto& l : lines_)
    out.push_back(l.second);
  return out;
}

std::vector<std::string> LogCapture::Matching(const std::string& text) const {
  std::vector<std::string> out;
  for (const auto& l : Lines()) {
    if (l.find(text) != std::string::npos)
      out.push_back(l);
  }
  return out;
}

int LogCapture::SeverityOf(const std::string& text) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& l : lines_) {
    if (l.second.find(text) != std::string::npos)
      return l.first;
  }
  return -1;
}

void LogCapture::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

}  // namespace korvan_test
