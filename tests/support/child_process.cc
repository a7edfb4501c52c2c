#include "support/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/test_environment.h"

namespace korvan_test {

std::map<std::string, ChildRole>& ChildRoles() {
  static std::map<std::string, ChildRole> roles;
  return roles;
}

bool RegisterChildRole(const std::string& name, ChildRole role) {
  ChildRoles()[name] = std::move(role);
  return true;
}

int& ChildFailures() {
  static int failures = 0;
  return failures;
}

ChildProcess::ChildProcess(const std::string& role, const std::vector<std::string>& args,
                           const std::vector<std::string>& env) {
  std::vector<std::string> argv = {SelfExecutable(), "--korvan-child=" + role};
  argv.insert(argv.end(), args.begin(), args.end());
  Start(role, argv, env);
}

ChildProcess::ChildProcess(const Program& program, const std::vector<std::string>& args,
                           const std::vector<std::string>& env) {
  std::vector<std::string> argv = {program.path};
  argv.insert(argv.end(), args.begin(), args.end());
  Start(program.path.substr(program.path.rfind('/') + 1), argv, env);
}

void ChildProcess::Start(const std::string& label, const std::vector<std::string>& argv_strings,
                         const std::vector<std::string>& env) {
  static int counter = 0;
  output_path_ = TestScratchDirectory() + "/child-" + std::to_string(::getpid()) + "-" +
                 std::to_string(++counter) + "-" + label + ".log";
  pid_t parent = ::getpid();

  pid_ = ::fork();
  if (pid_ < 0) {
    std::perror("fork");
    std::abort();
  }
  if (pid_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent)
      ::_exit(127);  // the parent died before prctl took effect
    int fd = ::open(output_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd >= 0) {
      ::dup2(fd, STDOUT_FILENO);
      ::dup2(fd, STDERR_FILENO);
    }
    for (const auto& entry : env)
      ::putenv(const_cast<char*>(entry.c_str()));
    std::vector<char*> argv;
    for (auto& s : argv_strings)
      argv.push_back(const_cast<char*>(s.c_str()));
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    std::perror("execv");
    ::_exit(127);
  }
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !reaped_) {
    Kill(SIGKILL);
    Wait(std::chrono::seconds(10));
  }
  if (exit_code_ == 0)
    ::unlink(output_path_.c_str());
}

bool ChildProcess::Wait(std::chrono::milliseconds timeout) {
  if (reaped_)
    return true;
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    int status = 0;
    pid_t r = ::waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
      reaped_ = true;
      exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return true;
    }
    if (std::chrono::steady_clock::now() >= deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

bool ChildProcess::running() {
  return !reaped_ && !Wait(std::chrono::milliseconds(0));
}

void ChildProcess::Kill(int signal) {
  if (pid_ > 0 && !reaped_)
    ::kill(pid_, signal);
}

std::string ChildProcess::output() const {
  std::ifstream file(output_path_);
  std::stringstream content;
  content << file.rdbuf();
  return content.str();
}

bool ChildProcess::WaitForOutput(const std::string& text, std::chrono::milliseconds timeout) const {
  return WaitFor([&] { return output().find(text) != std::string::npos; }, timeout);
}

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (condition())
      return true;
    if (std::chrono::steady_clock::now() >= deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

}  // namespace korvan_test
