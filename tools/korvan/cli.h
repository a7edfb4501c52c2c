// What every subcommand of the `korvan` tool shares: exit statuses, the session on the bus,
// Ctrl-C, and printing.
#pragma once

#include <chrono>
#include <cstdint>
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
// one node ("korvan_cli_<pid>", so that two running tools are told apart), and the types
// learnt from the bus.
class Session {
 public:
  static Session& Get();
  // Starts the runtime (as application `name`) and the node; false when the bus cannot start,
  // after printing why when `report`.
  bool Start(bool report = true, const std::string& name = "korvan");
  tarvik::quessa::Node& node() { return *node_; }
  tarvik::korvan::tools::TypeCatalog& catalog() { return catalog_; }

  // A settled snapshot of discovery (at most `limit` of waiting).
  bool Snapshot(tarvik::korvan::tools::BusSnapshot* out, std::chrono::milliseconds limit);

 private:
  Session() = default;
  std::unique_ptr<tarvik::quessa::Node> node_;
  tarvik::korvan::tools::TypeCatalog catalog_;
};

// Waits until `topic` is seen (with a publisher when `need_publisher`), then for discovery to
// settle. Null after printing which name was not seen.
const tarvik::korvan::tools::TopicRef* AwaitTopic(const std::string& topic, bool need_publisher,
                                                  const CommonOptions& options,
                                                  tarvik::korvan::tools::BusSnapshot* snapshot);
// The same for a service with at least one server.
const tarvik::korvan::tools::ServiceRef* AwaitService(const std::string& service,
                                                      const CommonOptions& options,
                                                      tarvik::korvan::tools::BusSnapshot* snapshot);
// A warning on standard error for every pair of processes that publish one type name with
// different descriptions on `topic`.
void WarnConflicts(const tarvik::korvan::tools::TopicRef& topic);

// Ctrl-C and SIGTERM end long-running commands cleanly.
void InstallInterruptHandler();
bool Interrupted();
// Sleeps `duration` or until interrupted; false when interrupted.
bool SleepUnlessInterrupted(std::chrono::milliseconds duration);

// One line on standard error, "korvan: " first.
void PrintError(const std::string& text);
// The line a long-running command ends with on standard error: "<n> <what>, mean rate <r> Hz",
// the rate over the span between the first and the last arrival (Unix epoch nanoseconds).
void PrintSummary(uint64_t count, const char* what, uint64_t first_ns, uint64_t last_ns);
// Seconds as the user typed them ("0.5", "3").
std::string SecondsText(double seconds);
// Whether standard output is a terminal (colours, tables) rather than a pipe or file.
bool StdoutIsTerminal();
// A JSON string literal.
std::string JsonQuote(const std::string& text);

// Subcommand groups; each sets `*exit_code` when its command runs. main.cc registers every
// group of kCommandGroups.
using AddCommandGroup = void (*)(CLI::App& app, int* exit_code);
void AddNodeCommands(CLI::App& app, int* exit_code);
void AddTopicCommands(CLI::App& app, int* exit_code);
void AddServiceCommands(CLI::App& app, int* exit_code);
void AddParamCommands(CLI::App& app, int* exit_code);
void AddAppCommands(CLI::App& app, int* exit_code);
void AddTopoCommand(CLI::App& app, int* exit_code);
void AddDoctorCommand(CLI::App& app, int* exit_code);
void AddInfoCommand(CLI::App& app, int* exit_code);
void AddBagCommands(CLI::App& app, int* exit_code);
void AddWebCommand(CLI::App& app, int* exit_code);
inline constexpr AddCommandGroup kCommandGroups[] = {
    AddNodeCommands, AddTopicCommands, AddServiceCommands, AddParamCommands, AddAppCommands,
    AddTopoCommand,  AddDoctorCommand, AddInfoCommand,     AddBagCommands,   AddWebCommand,
};
// Within the topic group: hz, bw and delay (topic_measure.cc).
void AddTopicMeasureCommands(CLI::App* topic, int* exit_code);

}  // namespace korvan_cli
