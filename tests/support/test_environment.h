// Process-level helpers for tests: isolation on the bus, scratch files, environment changes
// and log capture.
#pragma once

#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <glog/logging.h>

namespace korvan_test {

// Path of the running test binary.
std::string SelfExecutable();
// A directory for files of this test run (created on first use).
std::string TestScratchDirectory();
// Gives this test process a DDS domain of its own (KORVAN_DOMAIN_ID, inherited by children),
// unless one is set already. Returns the domain id.
int ClaimTestDomain();
// A name unique to this process and call, for topics and nodes: prefix + "_" + pid + "_" + n.
std::string UniqueName(const std::string& prefix);
// Writes `content` to a new file in the scratch directory and returns its path.
std::string WriteScratchFile(const std::string& name, const std::string& content);

// Signal files between a test and its children: the test creates one, a child waits for it.
void TouchFile(const std::string& path);
bool WaitForFile(const std::string& path, int timeout_ms);
// A path in the scratch directory that does not exist yet.
std::string ScratchPath(const std::string& name);
// Keeps this process on the in-process transport (no DDS); call before the runtime starts.
void UseLocalBus();

// Sets (or with a null value unsets) an environment variable for the scope's lifetime.
class ScopedEnv {
 public:
  ScopedEnv(const std::string& name, const char* value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  bool had_value_ = false;
  std::string old_value_;
};

// Collects the text of every glog line written while it lives, and opens the logging gate to
// `level` for that time.
class LogCapture : public google::LogSink {
 public:
  explicit LogCapture(int level = 5);
  ~LogCapture() override;

  void send(google::LogSeverity severity, const char* full_filename, const char* base_filename,
            int line, const std::tm* time, const char* message, size_t message_len) override;

  std::vector<std::string> Lines() const;
  // Lines that contain `text`.
  std::vector<std::string> Matching(const std::string& text) const;
  size_t Count(const std::string& text) const { return Matching(text).size(); }
  bool Contains(const std::string& text) const { return Count(text) > 0; }
  // The severity of the first line containing `text`, or -1.
  int SeverityOf(const std::string& text) const;
  void Clear();

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<int, std::string>> lines_;
  std::unique_ptr<ScopedEnv> level_;
};

}  // namespace korvan_test
