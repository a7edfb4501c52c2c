// The operating-system services the runtime needs, behind an interface so that a test can
// replace one of them (EnvWrapper) to inject a failure or drive a fake clock. The product uses
// Env::Default(), which calls the C library.
//
// Every environment variable, host fact, clock read, sleep and file read of the platform and
// the library goes through Env::Current(), except: the logging gate (trevam sits below this
// library and reads TREVAM_LOG_LEVEL itself), a PTP hardware clock named by KORVAN_PTP_DEVICE
// (infra/time.h reads that device directly) and waits on condition variables, whose deadlines
// are on the standard steady clock.
//
// All calls are thread-safe. An Env installed with Replace() must outlive every call into it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tarvik {
namespace korvan {
namespace inf {

// Why ReadFile failed.
struct FileError {
  enum Step {
    kNone,
    kIsDirectory,  // the path names a directory
    kOpen,         // open failed (error_number)
    kRead,         // read failed (error_number); what was read before is in `contents`
    kTooLarge,     // longer than the limit
  };
  Step step = kNone;
  int error_number = 0;
  // kTooLarge of a regular file: its size (it was not read). 0 for a stream without an end.
  uint64_t file_size = 0;
};

class Env {
 public:
  virtual ~Env() = default;

  // Registers `hook` to run at normal process exit; 0 on success (the contract of atexit).
  virtual int AtExit(void (*hook)()) = 0;
  // The value of environment variable `name`, or null when it is unset.
  virtual const char* GetVariable(const char* name) = 0;
  // This machine's host name; false when it cannot be read.
  virtual bool HostName(std::string* name) = 0;

  // The monotonic clock (arbitrary epoch, never set back), in nanoseconds: for intervals.
  virtual uint64_t NowNanos() = 0;
  // The system real-time clock, in nanoseconds since the Unix epoch.
  virtual uint64_t RealTimeNanos() = 0;
  // Blocks the calling thread for at least `nanos` (restarting after signals).
  virtual void SleepForNanos(uint64_t nanos) = 0;

  // Replaces `contents` with the whole file at `path`, at most `max_bytes` of it. False, with
  // `error` saying which step failed, when the file cannot be read or is longer.
  virtual bool ReadFile(const std::string& path, size_t max_bytes, std::string* contents,
                        FileError* error) = 0;

  // The C library's services. Never destroyed.
  static Env* Default();
  // The Env in use: Default() unless Replace() installed another one.
  static Env* Current();
  // Installs `env` (not owned; null restores Default()) and returns the previous one.
  static Env* Replace(Env* env);
};

// Forwards every call to another Env; derive from it and override the call to fake.
class EnvWrapper : public Env {
 public:
  explicit EnvWrapper(Env* target) : target_(target) {}
  int AtExit(void (*hook)()) override { return target_->AtExit(hook); }
  const char* GetVariable(const char* name) override { return target_->GetVariable(name); }
  bool HostName(std::string* name) override { return target_->HostName(name); }
  uint64_t NowNanos() override { return target_->NowNanos(); }
  uint64_t RealTimeNanos() override { return target_->RealTimeNanos(); }
  void SleepForNanos(uint64_t nanos) override { target_->SleepForNanos(nanos); }
  bool ReadFile(const std::string& path, size_t max_bytes, std::string* contents,
                FileError* error) override {
    return target_->ReadFile(path, max_bytes, contents, error);
  }
  Env* target() const { return target_; }

 private:
  Env* target_;
};

}  // namespace inf
}  // namespace korvan
}  // namespace tarvik
