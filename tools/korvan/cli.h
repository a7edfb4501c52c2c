// What every subcommand of the `korvan` tool shares: exit statuses, the session on the bus,
// Ctrl-C, and printing.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "korvan/tools/bus_snapshot.h"
#include "korvan/tools/type_catalog.h"

namespace tarvik {
namespace quessa {
class Node;
}  // namespace quessa
}  // namespace tarvik

namespace korvan_cli {

// 0 success, 1 failure at run time (nothing found, time-out, refused), 2 usage error.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

// Options most subcommands take.
struct CommonOptions {
  double timeout_s = 3.0;  // how long to wait for a name to be seen on the bus
  bool json = false;       // machine-readable output
  std::chrono::milliseconds timeout() const {
    return std::chrono::milliseconds(static_cast<long>(timeout_s * 1000));
  }
};
void AddCommonOptions(CLI::App* command, CommonOptions* options, bool with_json = true);

// The tool's presence on the bus, started by the first command that needs it: the runtime,
// one node ("korvan_cli"), and the types learnt from the bus.
class Session {
 public:
  static Session& Get();
  // Starts the runtime and the node; false (after printing why) when the bus cannot start.
  bool Start();
  tarvik::quessa::Node& node() { return *node_; }
  tarvik::korvan::tools::TypeCatalog& catalog() { return catalog_; }

  // A settled snapshot of discovery (at most `limit` of waiting).
  bool Snapshot(tarvik::korvan::tools::BusSnapshot* out, std::chrono::milliseconds limit);

 private:
  Session() = default;
  std::unique_ptr<tarvik::quessa::Node> node_;
  tarvik::korvan::tools::TypeCatalog catalog_;
};

// Ctrl-C and SIGTERM end long-running commands cleanly.
void InstallInterruptHandler();
bool Interrupted();
// Sleeps `duration` or until interrupted; false when interrupted.
bool SleepUnlessInterrupted(std::chrono::milliseconds duration);

// One line on standard error, "korvan: " first.
void PrintError(const std::string& text);
// A JSON string literal.
std::string JsonQuote(const std::string& text);

// Subcommand groups; each sets `*exit_code` when its command runs.
void AddNodeCommands(CLI::App& app, int* exit_code);
void AddTopicCommands(CLI::App& app, int* exit_code);
void AddWebCommand(CLI::App& app, int* exit_code);

}  // namespace korvan_cli
