// Runs the installed korvan tool as a user would: the binary of the prefix the build installs
// into (KORVAN_TOOL_PREFIX), with its own standard output and error, killed and reaped when
// the test is done with it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace korvan_tool_test {

// <prefix>/bin/korvan and the completion script installed with it.
std::string ToolPath();
std::string CompletionPath();

struct ToolResult {
  int exit_code = -1;  // 128 + signal when killed
  std::string out;
  std::string err;
  std::string Describe() const;  // all of it, for failure messages
};

class ToolProcess {
 public:
  // Starts `program` (the tool unless given) with `args`. `env` entries "NAME=value" are set,
  // "-NAME" unset, on top of this process's environment.
  explicit ToolProcess(const std::vector<std::string>& args,
                       const std::vector<std::string>& env = {}, const std::string& program = "");
  ~ToolProcess();
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;

  // Waits for the exit; false on time-out.
  bool Wait(std::chrono::milliseconds timeout);
  void Signal(int signal);
  std::string out() const;
  std::string err() const;
  bool WaitForOut(const std::string& text, std::chrono::milliseconds timeout) const;
  // Waits for the exit (killing the process after `timeout`) and collects everything.
  ToolResult Finish(std::chrono::milliseconds timeout);

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
  int exit_code_ = -1;
  std::string out_path_;
  std::string err_path_;
};

// Runs the tool to its end (at most `timeout`, then it is killed).
ToolResult RunTool(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                   std::chrono::milliseconds timeout = std::chrono::seconds(60));
// Runs the tool again and again until `done` holds for a result, or `timeout` passed; the
// last result. For commands that report what they see at once (lists), while peers start.
ToolResult RunToolUntil(const std::vector<std::string>& args,
                        const std::function<bool(const ToolResult&)>& done,
                        std::chrono::milliseconds timeout = std::chrono::seconds(30));

// Lines of `text`.
std::vector<std::string> Lines(const std::string& text);

}  // namespace korvan_tool_test
