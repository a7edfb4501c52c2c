// Multi-process tests: the test binary re-runs itself as the child.
//
// A test file registers child roles with KORVAN_CHILD_ROLE(name) { ... return exit_code; }.
// ChildProcess("name", {args}) starts argv[0] with "--korvan-child=name" and the arguments;
// the test main (test_main.cc) sees the flag and runs the role instead of the tests. Children
// die with their parent (PR_SET_PDEATHSIG) and are killed and reaped by the destructor, so a
// failing or hung test leaves no process behind.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace korvan_test {

using ChildRole = std::function<int(const std::vector<std::string>& args)>;

// Registry of roles; used by KORVAN_CHILD_ROLE and test_main.cc.
std::map<std::string, ChildRole>& ChildRoles();
bool RegisterChildRole(const std::string& name, ChildRole role);

class ChildProcess {
 public:
  // Starts the role. `env` entries ("NAME=value") are added to the inherited environment.
  // The child's standard output and error go to a file that output() returns.
  ChildProcess(const std::string& role, const std::vector<std::string>& args = {},
               const std::vector<std::string>& env = {});
  // Starts another program (not this binary) with `args`.
  struct Program {
    std::string path;
  };
  ChildProcess(const Program& program, const std::vector<std::string>& args,
               const std::vector<std::string>& env = {});

  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  // Waits for the exit; false on time-out. exit_code() is the exit status, or 128 + signal.
  bool Wait(std::chrono::milliseconds timeout);
  int exit_code() const { return exit_code_; }
  bool running();
  void Kill(int signal);
  // Everything the child wrote so far.
  std::string output() const;
  // True once the child's output contains `text`, false after `timeout`.
  bool WaitForOutput(const std::string& text, std::chrono::milliseconds timeout) const;

 private:
  void Start(const std::string& label, const std::vector<std::string>& argv,
             const std::vector<std::string>& env);

  pid_t pid_ = -1;

  int exit_code_ = -1;
  bool reaped_ = false;
  std::string output_path_;
};

// Polls `condition` every few milliseconds until it is true or `timeout` passes.
bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

// For child roles: prints a failed check to standard error and counts it.
int& ChildFailures();

}  // namespace korvan_test

#define KORVAN_CHILD_ROLE(name)                                            \
  static int KorvanChildRole_##name(const std::vector<std::string>& args); \
  static const bool korvan_child_role_registered_##name =                  \
      ::korvan_test::RegisterChildRole(#name, &KorvanChildRole_##name);    \
  static int KorvanChildRole_##name([[maybe_unused]] const std::vector<std::string>& args)

// Check inside a child role; failures make the role's result non-zero via ChildResult().
#define CHILD_CHECK(condition)                                                      \
  do {                                                                              \
    if (!(condition)) {                                                             \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
      ++::korvan_test::ChildFailures();                                             \
    }                                                                               \
  } while (0)
#define CHILD_RESULT() (::korvan_test::ChildFailures() == 0 ? 0 : 1)
