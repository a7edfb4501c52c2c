// The demo: runs the planner and the tracker (two applications of one manifest) and a
// parameter client as separate processes, and prints what happens on the bus as it happens:
// lifecycle signals, the stamped poses, a parameter round trip and the topology snapshot. It
// ends by itself after about ten seconds and leaves no process behind.
//   korvan_demo [--seconds N]   keeps the applications running N seconds after the parameter
//                               round trip (default 3), e.g. to watch them with `korvan web`.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tarvikdds/application/application.h"
#include "tarvikdds/messaging/dds_node.h"

namespace {

using tarvik::quessa::Application;
using tarvik::quessa::messages::internal::AppSignal;
using Clock = std::chrono::steady_clock;

const char* const kSignalNames[] = {"pre_init",     "post_init",     "failed_init",
                                    "pre_proc",     "post_proc",     "failed_proc",
                                    "pre_finalize", "post_finalize", "failed_finalize"};

std::string Directory() {
  char path[PATH_MAX] = {0};
  ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
  std::string self(path, n > 0 ? static_cast<size_t>(n) : 0);
  return self.substr(0, self.rfind('/'));
}

pid_t Spawn(const std::string& app_name, const std::vector<std::string>& argv) {
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);  // never outlive the demo
    if (getppid() != parent)
      _exit(1);
    setenv("KORVAN_APP_NAME", app_name.c_str(), 1);  // how the topology lists the process
    std::vector<char*> args;
    for (const auto& a : argv)
      args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    std::perror("execv");
    _exit(127);
  }
  return pid;
}

// Waits for `pid` up to `timeout`; kills it when it does not end. Returns the exit status.
int Reap(pid_t pid, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (Clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class SignalWatch {
 public:
  void Subscribe(tarvik::quessa::Node& node, const std::string& app) {
    for (uint32_t s = 0; s < Application::kSignalCount; ++s) {
      subscribers_.push_back(node.CreateSubscriber<AppSignal>(
          app + "/" + kSignalNames[s], tarvik::quessa::QoS(),
          [this, app, s](const std::shared_ptr<AppSignal>& signal) { OnSignal(app, s, *signal); }));
    }
  }
  bool Seen(const std::string& app, uint32_t signal) {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_[app + kSignalNames[signal]] > 0;
  }
  int total() const { return total_; }

 private:
  void OnSignal(const std::string& app, uint32_t signal, const AppSignal& message) {
    ++total_;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ++counts_[app + kSignalNames[signal]];
    }
    // Proc signals come ten times a second per application: show a few.
    const bool proc = signal >= Application::kPreProc && signal <= Application::kPostProc;
    if (proc && message.frame() > 1 && message.frame() % 20 != 0)
      return;
    std::printf("monitor  | signal %-8s %-15s frame %-4llu interval %d%s%s\n", app.c_str(),
                kSignalNames[signal], static_cast<unsigned long long>(message.frame()),
                message.interval(), message.has_error() ? " error: " : "", message.error().c_str());
  }

  std::mutex mutex_;
  std::map<std::string, int> counts_;
  std::atomic<int> total_{0};
  std::vector<std::shared_ptr<tarvik::quessa::Subscriber<AppSignal>>> subscribers_;
};

template <typename Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!condition()) {
    if (Clock::now() > deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  using namespace std::chrono_literals;
  long run_seconds = 3;  // the planner moves at the new speed for a while
  bool usage = argc != 1;
  if (argc == 3 && std::string(argv[1]) == "--seconds") {
    char* end = nullptr;
    run_seconds = std::strtol(argv[2], &end, 10);
    usage = *argv[2] == '\0' || *end != '\0' || run_seconds < 0;
  }
  if (usage) {
    std::fprintf(stderr, "usage: %s [--seconds N]\n", argv[0]);
    return 2;
  }
  const std::string dir = Directory();
  // The signal topics of init keep their samples for the monitor (bus.json); errors only on
  // the console unless the caller asks for more.
  setenv("KORVAN_BUS_CONFIG_PATH", (dir + "/bus.json").c_str(), 0);
  setenv("TREVAM_LOG_LEVEL", "2", 0);

  std::printf(
      "monitor  | korvan demo: planner (periodic, 100 ms) and tracker (event-driven by "
      "demo/pose) from %s/manifest.json\n",
      dir.c_str());
  auto node = tarvik::quessa::Node::CreateNode("monitor", "");
  SignalWatch signals;
  signals.Subscribe(*node, "planner");
  signals.Subscribe(*node, "tracker");

  const pid_t planner = Spawn("planner", {dir + "/demo_app", "planner", dir + "/manifest.json"});
  const pid_t tracker = Spawn("tracker", {dir + "/demo_app", "tracker", dir + "/manifest.json"});
  bool ok = WaitUntil(
      [&] {
        return signals.Seen("planner", Application::kPostInit) &&
               signals.Seen("tracker", Application::kPostInit);
      },
      15s);
  if (!ok)
    std::printf("monitor  | the applications did not report post_init in time\n");

  std::this_thread::sleep_for(1s);
  std::printf("monitor  | starting the operator: a parameter round trip from another process\n");
  const pid_t operator_client = Spawn("operator", {dir + "/demo_param_client"});
  ok = Reap(operator_client, 15s) == 0 && ok;

  std::this_thread::sleep_for(std::chrono::seconds(run_seconds));

  std::printf("monitor  | stopping the applications\n");
  kill(planner, SIGTERM);
  kill(tracker, SIGTERM);
  ok = Reap(planner, 10s) == 0 && ok;
  ok = Reap(tracker, 10s) == 0 && ok;
  WaitUntil(
      [&] {
        return signals.Seen("planner", Application::kPostFinalize) &&
               signals.Seen("tracker", Application::kPostFinalize);
      },
      3s);
  std::printf("monitor  | done: %d lifecycle signals seen, %s\n", signals.total(),
              ok ? "every process ended cleanly" : "SOMETHING FAILED");
  return ok ? 0 : 1;
}
