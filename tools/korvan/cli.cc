#include "cli.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

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

bool Session::Start() {
  if (node_)
    return true;
  if (!tarvik::quessa::tarvikdds::Init("korvan")) {
    PrintError("cannot start the bus (see the error above; `korvan doctor` checks the setup)");
    return false;
  }
  try {
    node_ = tarvik::quessa::Node::CreateNode("korvan_cli", "");
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

std::string JsonQuote(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

}  // namespace korvan_cli
