#include "harness/child_process.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

namespace korvan_bench {

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !exit_.finished && exit_.status < 0)
    Wait(std::chrono::seconds(0));
}

bool ChildProcess::Start(const Command& command) {
  if (command.argv.empty())
    return false;
  std::vector<char*> argv;
  for (const auto& arg : command.argv)
    argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ < 0)
    return false;
  if (pid_ == 0) {
    if (command.pinned) {
      cpu_set_t set;
      CPU_ZERO(&set);
      CPU_SET(0, &set);
      if (sched_setaffinity(0, sizeof(set), &set) != 0)
        _exit(126);
    }
    int out = open(command.out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = open(command.err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0 || err < 0)
      _exit(126);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    close(out);
    close(err);
    for (const auto& entry : command.env)
      putenv(const_cast<char*>(entry.c_str()));
    execvp(argv[0], argv.data());
    _exit(127);
  }
  exit_ = Exit();
  exit_.started = true;
  return true;
}

ChildProcess::Exit ChildProcess::Wait(std::chrono::steady_clock::duration limit) {
  if (pid_ <= 0 || exit_.status >= 0)
    return exit_;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  int status = 0;
  rusage usage{};
  for (;;) {
    pid_t r = wait4(pid_, &status, WNOHANG, &usage);
    if (r == pid_) {
      exit_.finished = true;
      break;
    }
    if (r < 0)
      return exit_;
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid_, SIGKILL);
      wait4(pid_, &status, 0, &usage);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  exit_.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  exit_.peak_rss_kib = usage.ru_maxrss;
  exit_.cpu_ns =
      (static_cast<int64_t>(usage.ru_utime.tv_sec) + usage.ru_stime.tv_sec) * 1000000000LL +
      (static_cast<int64_t>(usage.ru_utime.tv_usec) + usage.ru_stime.tv_usec) * 1000LL;
  return exit_;
}

void ChildProcess::Terminate() {
  if (pid_ > 0 && exit_.status < 0)
    kill(pid_, SIGTERM);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

std::string LastResultLine(const std::string& path) {
  std::istringstream in(ReadFile(path));
  std::string line;
  std::string last;
  while (std::getline(in, line)) {
    if (!line.empty() && line[0] == '{')
      last = line;
  }
  return last;
}

}  // namespace korvan_bench
