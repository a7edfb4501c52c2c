// What the `korvan bag` tests share: running the built tool and the outside readers, reading a
// recording back, and the child roles' protocol (bag_children.cc).
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "korvan/mcap/reader.h"
#include "korvan/mcap/types.h"

namespace korvan_bag_test {

using namespace std::chrono_literals;
inline constexpr std::chrono::milliseconds kWait = 60s;

// The built korvan tool.
std::string Tool();

struct ToolResult {
  int exit_code = -1;
  std::string output;  // standard output and error together
};
// Runs the tool to its end (killed after `timeout`).
ToolResult RunTool(const std::vector<std::string>& args, std::chrono::milliseconds timeout = kWait);

// node and the npm outside readers, when installed; else "" with `why` set.
bool OutsideReadersInstalled(std::string* why);
// Runs tests/outside/<script> with `args`; its exit code (77: not installed) and output.
ToolResult RunOutside(const std::string& script, const std::vector<std::string>& args);

struct RecordedMessage {
  std::string topic;
  std::string schema_name;
  uint32_t sequence = 0;
  uint64_t log_time = 0;
  uint64_t publish_time = 0;
  std::string data;
};

struct Recording {
  bool indexed = false;   // read through its summary
  bool complete = false;  // a streaming read reached the footer
  std::map<uint16_t, tarvik::korvan::mcap::Schema> schemas;
  std::map<uint16_t, tarvik::korvan::mcap::Channel> channels;
  std::vector<RecordedMessage> messages;  // log-time order when indexed, else file order
  std::vector<tarvik::korvan::mcap::Problem> problems;

  std::map<std::string, size_t> CountByTopic() const;
  std::vector<RecordedMessage> OnTopic(const std::string& topic) const;
};

// Reads `path` indexed when it has a summary, else streaming.
Recording ReadRecording(const std::string& path);

// The number of messages the recorder's last status line reports ("... N msgs ..."); -1 when
// it printed none yet.
long RecordedSoFar(const std::string& recorder_output);

// Checks that `bytes` are what a stamping publisher sent of a korvan.test.StampedMessage: its
// CRC holds over them (with the crc at 0), so nothing was re-serialised on the way.
void ExpectPublishersBytes(const std::string& bytes);

// Writes `content` to `path`.
void WriteFile(const std::string& path, const std::string& content);
std::string ReadFile(const std::string& path);

// The number of publishers the recorder's last status line says its subscriptions matched;
// -1 when it printed none yet.
long MatchedSoFar(const std::string& recorder_output);

// expected.json for tests/outside/read_recording.js.
struct OutsideTopic {
  std::string type;
  size_t count = 0;
  uint64_t first_sequence = 0;
};
std::string OutsideExpectation(bool indexed, const std::map<std::string, OutsideTopic>& topics);

}  // namespace korvan_bag_test
