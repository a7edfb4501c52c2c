#include "tool_runner.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/test_environment.h"

namespace korvan_tool_test {
namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream file(path);
  std::stringstream content;
  content << file.rdbuf();
  return content.str();
}

}  // namespace

std::string ToolPath() {
  return std::string(KORVAN_TOOL_PREFIX) + "/bin/korvan";
}

std::string CompletionPath() {
  return std::string(KORVAN_TOOL_PREFIX) + "/share/bash-completion/completions/korvan";
}

std::string ToolResult::Describe() const {
  return "exit " + std::to_string(exit_code) + "\n--- stdout\n" + out + "--- stderr\n" + err;
}

ToolProcess::ToolProcess(const std::vector<std::string>& args, const std::vector<std::string>& env,
                         const std::string& program) {
  static int counter = 0;
  const std::string base = korvan_test::TestScratchDirectory() + "/tool-" +
                           std::to_string(::getpid()) + "-" + std::to_string(++counter);
  out_path_ = base + ".out";
  err_path_ = base + ".err";
  std::vector<std::string> argv = {program.empty() ? ToolPath() : program};
  argv.insert(argv.end(), args.begin(), args.end());
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ < 0) {
    std::perror("fork");
    std::abort();
  }
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent)
      ::_exit(127);
    const int out = ::open(out_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const int err = ::open(err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::dup2(out, STDOUT_FILENO);
    ::dup2(err, STDERR_FILENO);
    ::dup2(null, STDIN_FILENO);
    for (const auto& entry : env) {
      if (!entry.empty() && entry[0] == '-') {
        ::unsetenv(entry.c_str() + 1);
      } else {
        const size_t equals = entry.find('=');
        ::setenv(entry.substr(0, equals).c_str(), entry.substr(equals + 1).c_str(), 1);
      }
    }
    std::vector<char*> raw;
    for (auto& a : argv)
      raw.push_back(const_cast<char*>(a.c_str()));
    raw.push_back(nullptr);
    ::execv(raw[0], raw.data());
    std::perror("execv");
    ::_exit(127);
  }
}

ToolProcess::~ToolProcess() {
  if (pid_ > 0 && !reaped_) {
    ::kill(pid_, SIGKILL);
    Wait(std::chrono::seconds(10));
  }
  ::unlink(out_path_.c_str());
  ::unlink(err_path_.c_str());
}

bool ToolProcess::Wait(std::chrono::milliseconds timeout) {
  if (reaped_)
    return true;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      reaped_ = true;
      exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return true;
    }
    if (std::chrono::steady_clock::now() >= deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

void ToolProcess::Signal(int signal) {
  if (pid_ > 0 && !reaped_)
    ::kill(pid_, signal);
}

std::string ToolProcess::out() const {
  return ReadFile(out_path_);
}

std::string ToolProcess::err() const {
  return ReadFile(err_path_);
}

bool ToolProcess::WaitForOut(const std::string& text, std::chrono::milliseconds timeout) const {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (out().find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() >= deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

ToolResult ToolProcess::Finish(std::chrono::milliseconds timeout) {
  if (!Wait(timeout)) {
    Signal(SIGKILL);
    Wait(std::chrono::seconds(10));
  }
  ToolResult result;
  result.exit_code = exit_code_;
  result.out = out();
  result.err = err();
  return result;
}

ToolResult RunTool(const std::vector<std::string>& args, const std::vector<std::string>& env,
                   std::chrono::milliseconds timeout) {
  ToolProcess tool(args, env);
  return tool.Finish(timeout);
}

ToolResult RunToolUntil(const std::vector<std::string>& args,
                        const std::function<bool(const ToolResult&)>& done,
                        std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    ToolResult result = RunTool(args, {}, timeout);
    if (done(result) || std::chrono::steady_clock::now() >= deadline)
      return result;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::stringstream stream(text);
  std::string line;
  while (std::getline(stream, line))
    lines.push_back(line);
  return lines;
}

}  // namespace korvan_tool_test
