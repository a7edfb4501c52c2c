// korvan app list | watch: applications and their lifecycle signals. A running application
// publishes AppSignal messages on "<node>/<signal>" (pre_init ... failed_finalize).
#include <ctime>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "cli.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/proto/app_messages.pb.h"

namespace korvan_cli {
namespace {

using tarvik::korvan::tools::BusSnapshot;
using tarvik::korvan::tools::ProcessRef;
using tarvik::quessa::messages::internal::AppSignal;

constexpr const char* kSignals[] = {"pre_init",     "post_init",     "failed_init",
                                    "pre_proc",     "post_proc",     "failed_proc",
                                    "pre_finalize", "post_finalize", "failed_finalize"};

struct AppRef {
  std::string name;  // the application's node name, as its signal topics begin
  ProcessRef process;
};

// Applications on the bus: processes that publish AppSignal on "<name>/<signal>".
std::vector<AppRef> FindApps(const BusSnapshot& snapshot) {
  const std::string signal_type = AppSignal::descriptor()->full_name();
  std::map<std::pair<std::string, ProcessRef>, AppRef> found;
  for (const auto& entry : snapshot.topics) {
    const std::string& topic = entry.first;
    const size_t slash = topic.rfind('/');
    if (slash == std::string::npos || slash == 0)
      continue;
    const std::string suffix = topic.substr(slash + 1);
    if (std::find(std::begin(kSignals), std::end(kSignals), suffix) == std::end(kSignals))
      continue;
    for (const auto& p : entry.second.publishers) {
      if (p.type_name != signal_type)
        continue;
      const std::string name = topic.substr(0, slash);
      found[{name, p.process}] = AppRef{name, p.process};
    }
  }
  std::vector<AppRef> apps;
  for (auto& entry : found)
    apps.push_back(std::move(entry.second));
  return apps;
}

int ListApps(const CommonOptions& options) {
  Session& session = Session::Get();
  BusSnapshot snapshot;
  if (!session.Start() || !session.Snapshot(&snapshot, options.timeout())) {
    PrintError("cannot read discovery");
    return kExitFailure;
  }
  const std::vector<AppRef> apps = FindApps(snapshot);
  if (options.json) {
    std::string out = "[";
    for (size_t i = 0; i < apps.size(); ++i) {
      out += (i ? "," : "") + std::string("{\"name\":") + JsonQuote(apps[i].name) +
             ",\"application\":" + JsonQuote(apps[i].process.app_name) +
             ",\"host\":" + JsonQuote(apps[i].process.host_name) +
             ",\"pid\":" + std::to_string(apps[i].process.process_id) + "}";
    }
    std::printf("%s]\n", out.c_str());
    return kExitOk;
  }
  if (apps.empty()) {
    std::printf("no applications on the bus\n");
    return kExitOk;
  }
  std::printf("%-28s %-24s %-20s %s\n", "APP", "PROCESS", "HOST", "PID");
  for (const AppRef& app : apps) {
    std::printf("%-28s %-24s %-20s %d\n", app.name.c_str(), app.process.app_name.c_str(),
                app.process.host_name.c_str(), app.process.process_id);
  }
  return kExitOk;
}

struct WatchOptions {
  CommonOptions common;
  std::string app;  // empty: every application, also those that start later
  long count = 0;   // 0: until interrupted
};

std::string LocalTime(uint64_t unix_ns) {
  const std::time_t seconds = static_cast<std::time_t>(unix_ns / 1000000000ULL);
  std::tm parts{};
  localtime_r(&seconds, &parts);
  char text[32];
  std::snprintf(text, sizeof(text), "%02d:%02d:%02d.%03d", parts.tm_hour, parts.tm_min,
                parts.tm_sec, static_cast<int>(unix_ns / 1000000ULL % 1000));
  return text;
}

int Watch(const WatchOptions& options) {
  Session& session = Session::Get();
  if (!session.Start())
    return kExitFailure;
  const bool colour = StdoutIsTerminal() && !options.common.json;
  std::mutex mutex;
  uint64_t count = 0;
  uint64_t failures = 0;
  uint64_t first_ns = 0;
  uint64_t last_ns = 0;
  auto print = [&](const std::string& app, const char* signal, const AppSignal& message) {
    const uint64_t now_ns =
        static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                  std::chrono::system_clock::now().time_since_epoch())
                                  .count());
    const bool failed = std::string(signal).rfind("failed_", 0) == 0;
    std::lock_guard<std::mutex> lock(mutex);
    if (options.count > 0 && count >= static_cast<uint64_t>(options.count))
      return;
    if (count++ == 0)
      first_ns = now_ns;
    last_ns = now_ns;
    failures += failed ? 1 : 0;
    if (options.common.json) {
      std::string line = "{\"app\":" + JsonQuote(app) + ",\"signal\":" + JsonQuote(signal) +
                         ",\"frame\":" + std::to_string(message.frame()) +
                         ",\"timestamp_ms\":" + std::to_string(message.timestamp()) +
                         ",\"interval_ms\":" + std::to_string(message.interval()) +
                         ",\"failed\":" + (failed ? "true" : "false");
      if (message.has_error())
        line += ",\"error\":" + JsonQuote(message.error());
      std::printf("%s}\n", line.c_str());
    } else {
      char phase[24];
      std::snprintf(phase, sizeof(phase), "%-15s", signal);
      std::string line = LocalTime(now_ns) + "  " + app + "  " + phase + "  frame " +
                         std::to_string(message.frame());
      if (failed) {
        line += "  FAILED";
        if (message.has_error())
          line += ": " + message.error();
        if (colour)
          line = "\033[1;31m" + line + "\033[0m";
      }
      std::printf("%s\n", line.c_str());
    }
    std::fflush(stdout);
  };

  std::vector<std::shared_ptr<tarvik::quessa::Subscriber<AppSignal>>> subscribers;
  std::set<std::string> watched;
  auto watch_new = [&](const BusSnapshot& snapshot) {
    for (const AppRef& app : FindApps(snapshot)) {
      if ((!options.app.empty() && app.name != options.app) || !watched.insert(app.name).second)
        continue;
      tarvik::quessa::QoS qos;  // as the applications publish: reliable, keep-last 10
      qos.history_type = 0;
      qos.history_depth = 10;
      qos.durability = 1;
      qos.reliability = 1;
      for (const char* signal : kSignals) {
        const std::string name = app.name;
        subscribers.push_back(session.node().CreateSubscriber<AppSignal>(
            name + "/" + signal, qos,
            [&print, name, signal](const std::shared_ptr<AppSignal>& message) {
              print(name, signal, *message);
            }));
      }
      if (!options.common.json)
        std::fprintf(stderr, "watching %s in %s\n", app.name.c_str(),
                     app.process.Describe().c_str());
    }
  };

  BusSnapshot snapshot;
  if (!options.app.empty()) {
    // A named application must show up within the time-out.
    const auto deadline = std::chrono::steady_clock::now() + options.common.timeout();
    while (watched.empty()) {
      if (BusSnapshot::Take(&snapshot))
        watch_new(snapshot);
      if (!watched.empty())
        break;
      if (std::chrono::steady_clock::now() >= deadline || Interrupted()) {
        PrintError("application '" + options.app + "' was not seen on the bus (waited " +
                   SecondsText(options.common.timeout_s) + " s)");
        return kExitFailure;
      }
      SleepUnlessInterrupted(std::chrono::milliseconds(50));
    }
  } else if (session.Snapshot(&snapshot, options.common.timeout())) {
    watch_new(snapshot);
  }
  auto enough = [&] {
    std::lock_guard<std::mutex> lock(mutex);
    return options.count > 0 && count >= static_cast<uint64_t>(options.count);
  };
  // Applications that start later are watched as they appear.
  auto next_look = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
  while (!enough() && SleepUnlessInterrupted(std::chrono::milliseconds(20))) {
    if (std::chrono::steady_clock::now() < next_look)
      continue;
    if (BusSnapshot::Take(&snapshot))
      watch_new(snapshot);
    next_look = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
  }
  subscribers.clear();
  std::lock_guard<std::mutex> lock(mutex);
  if (Interrupted())
    PrintSummary(count, "signals", first_ns, last_ns);
  if (failures > 0)
    std::fprintf(stderr, "%llu failure signal%s\n", static_cast<unsigned long long>(failures),
                 failures == 1 ? "" : "s");
  return kExitOk;
}

}  // namespace

void AddAppCommands(CLI::App& app, int* exit_code) {
  CLI::App* group = app.add_subcommand("app", "Applications and their lifecycle: list, watch");
  group->require_subcommand(1);

  static CommonOptions list_options;
  CLI::App* list =
      group->add_subcommand("list", "Every running application, with the process it runs in");
  AddCommonOptions(list, &list_options);
  list->callback([=] { *exit_code = ListApps(list_options); });

  static WatchOptions watch_options;
  CLI::App* watch = group->add_subcommand(
      "watch",
      "Prints lifecycle signals as they arrive: phase and frame, failures highlighted; until "
      "Ctrl-C");
  watch->add_option("APP", watch_options.app, "Only this application (default: all)");
  watch->add_option("-n,--count", watch_options.count, "Stop after N signals")
      ->check(CLI::PositiveNumber);
  AddCommonOptions(watch, &watch_options.common);
  watch->callback([=] { *exit_code = Watch(watch_options); });
}

}  // namespace korvan_cli
