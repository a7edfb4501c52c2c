#include "cli.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "korvan/tools/text_codec.h"
#include "tarvikdds/application/init.h"
#include "tarvikdds/messaging/dds_node.h"

namespace korvan_cli {
namespace {

volatile std::sig_atomic_t g_interrupted = 0;

void OnSignal(int) {
  g_interrupted = 1;
}

}  // namespace

void AddCommonOptions(CLI::App* command, CommonOptions* options, bool with_json) {
  command
      ->add_option("--timeout", options->timeout_s,
                   "Seconds to wait for names to be seen on the bus")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  if (with_json)
    command->add_flag("--json", options->json, "Machine-readable output (JSON)");
}

Session& Session::Get() {
  static Session* session = new Session();  // lives until exit, like the bus under it
  return *session;
}

bool Session::Start(bool report, const std::string& name) {
  if (node_)
    return true;
  if (!tarvik::quessa::tarvikdds::Init(name)) {
    if (report)
      PrintError("cannot start the bus (see the error above; `korvan doctor` checks the setup)");
    return false;
  }
  try {
    node_ = tarvik::quessa::Node::CreateNode("korvan_cli_" + std::to_string(::getpid()), "");
  } catch (const std::exception& e) {
    PrintError(std::string("cannot create the tool's node: ") + e.what());
    return false;
  }
  return true;
}

bool Session::Snapshot(tarvik::korvan::tools::BusSnapshot* out, std::chrono::milliseconds limit) {
  // Discovery needs a moment after joining; a quiet spell of 300 ms means it has settled.
  return tarvik::korvan::tools::BusSnapshot::TakeSettled(out, std::chrono::milliseconds(300),
                                                         limit);
}

using tarvik::korvan::tools::BusSnapshot;
using tarvik::korvan::tools::ServiceRef;
using tarvik::korvan::tools::TopicRef;

const TopicRef* AwaitTopic(const std::string& topic, bool need_publisher,
                           const CommonOptions& options, BusSnapshot* snapshot) {
  const auto deadline = std::chrono::steady_clock::now() + options.timeout();
  for (;;) {
    if (BusSnapshot::Take(snapshot)) {
      const TopicRef* found = snapshot->FindTopic(topic);
      if (found != nullptr && (!need_publisher || !found->publishers.empty())) {
        // Seen: settle, so that every publisher (and its description) is known.
        Session::Get().Snapshot(snapshot, std::chrono::seconds(1));
        if (snapshot->FindTopic(topic) != nullptr)
          return snapshot->FindTopic(topic);
      }
    }
    if (std::chrono::steady_clock::now() >= deadline || Interrupted())
      break;
    SleepUnlessInterrupted(std::chrono::milliseconds(50));
  }
  PrintError("topic '" + topic + "' was not seen on the bus" +
             (need_publisher ? std::string(" with a publisher") : std::string()) + " (waited " +
             SecondsText(options.timeout_s) + " s)");
  return nullptr;
}

const ServiceRef* AwaitService(const std::string& service, const CommonOptions& options,
                               BusSnapshot* snapshot) {
  const auto deadline = std::chrono::steady_clock::now() + options.timeout();
  for (;;) {
    if (BusSnapshot::Take(snapshot)) {
      const ServiceRef* found = snapshot->FindService(service);
      if (found != nullptr && !found->servers.empty() && !found->response_type.empty())
        return found;
    }
    if (std::chrono::steady_clock::now() >= deadline || Interrupted())
      break;
    SleepUnlessInterrupted(std::chrono::milliseconds(50));
  }
  PrintError("service '" + service + "' was not seen on the bus (waited " +
             SecondsText(options.timeout_s) + " s)");
  return nullptr;
}

void WarnConflicts(const TopicRef& topic) {
  for (const auto& pair : topic.Conflicts()) {
    PrintError("warning: on topic '" + topic.name + "' " + pair.first.process.Describe() + " and " +
               pair.second.process.Describe() + " publish different types under one name, " +
               pair.first.type_name + "; each is decoded with its own description");
  }
}

void InstallInterruptHandler() {
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool Interrupted() {
  return g_interrupted != 0;
}

bool SleepUnlessInterrupted(std::chrono::milliseconds duration) {
  const auto end = std::chrono::steady_clock::now() + duration;
  while (!Interrupted()) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= end)
      return true;
    std::this_thread::sleep_for(
        std::min<std::chrono::steady_clock::duration>(end - now, std::chrono::milliseconds(20)));
  }
  return false;
}

void PrintError(const std::string& text) {
  std::fprintf(stderr, "korvan: %s\n", text.c_str());
}

void PrintSummary(uint64_t count, const char* what, uint64_t first_ns, uint64_t last_ns) {
  const double span = last_ns > first_ns ? static_cast<double>(last_ns - first_ns) / 1e9 : 0;
  const double rate = count > 1 && span > 0 ? static_cast<double>(count - 1) / span : 0.0;
  std::fprintf(stderr, "%llu %s, mean rate %.2f Hz\n", static_cast<unsigned long long>(count), what,
               rate);
}

std::string SecondsText(double seconds) {
  char text[32];
  std::snprintf(text, sizeof(text), "%g", seconds);
  return text;
}

bool StdoutIsTerminal() {
  return ::isatty(STDOUT_FILENO) == 1;
}

std::string JsonQuote(const std::string& text) {
  return tarvik::korvan::tools::JsonQuote(text);
}

}  // namespace korvan_cli
