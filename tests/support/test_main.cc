// main() of every test binary: runs a child role when started with --korvan-child=<role>,
// the tests otherwise. A watchdog ends a hung process (KORVAN_TEST_TIMEOUT seconds, default
// 300) so that CI fails instead of hanging; children die with their parent.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/test_environment.h"

namespace {

int TimeoutSeconds() {
  const char* text = std::getenv("KORVAN_TEST_TIMEOUT");
  int seconds = text != nullptr ? std::atoi(text) : 0;
  return seconds > 0 ? seconds : 300;
}

void StartWatchdog(const char* what) {
  const int seconds = TimeoutSeconds();
  std::thread([seconds, what] {
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    std::fprintf(stderr, "watchdog: %s still running after %d s, aborting\n", what, seconds);
    std::abort();
  }).detach();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string flag = "--korvan-child=";
  if (argc > 1 && std::strncmp(argv[1], flag.c_str(), flag.size()) == 0) {
    std::string role = argv[1] + flag.size();
    auto it = korvan_test::ChildRoles().find(role);
    if (it == korvan_test::ChildRoles().end()) {
      std::fprintf(stderr, "unknown child role %s\n", role.c_str());
      return 125;
    }
    StartWatchdog("child role");
    std::vector<std::string> args(argv + 2, argv + argc);
    int code = it->second(args);
    std::fflush(nullptr);
    return code;
  }
  korvan_test::ClaimTestDomain();
  ::testing::InitGoogleTest(&argc, argv);
  StartWatchdog("test");
  return RUN_ALL_TESTS();
}
