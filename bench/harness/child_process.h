// A benchmark process started by the harness: its output goes to files, it may be pinned to
// CPU 0, and it is killed when it overruns its time.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace korvan_bench {

class ChildProcess {
 public:
  struct Command {
    std::vector<std::string> argv;  // argv[0] is looked up in PATH when it has no '/'
    std::vector<std::string> env;   // NAME=VALUE added to the harness's environment
    bool pinned = false;            // CPU 0 only, as `taskset -c 0` does
    std::string out_path;
    std::string err_path;
  };
  struct Exit {
    bool started = false;
    bool finished = false;  // on its own, within the limit
    int status = -1;        // exit code, or 128 + signal
    int64_t peak_rss_kib = 0;
    int64_t cpu_ns = 0;  // user and system time
  };

  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool Start(const Command& command);
  // Waits for the exit; SIGKILL when `limit` passes first.
  Exit Wait(std::chrono::steady_clock::duration limit);
  // Asks a running process to end (SIGTERM).
  void Terminate();

 private:
  pid_t pid_ = -1;
  Exit exit_;
};

// The last line of `path` that starts with '{' (a result line), or "".
std::string LastResultLine(const std::string& path);
std::string ReadFile(const std::string& path);

}  // namespace korvan_bench
