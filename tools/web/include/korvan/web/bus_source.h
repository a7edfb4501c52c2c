// BusSource: what the web server needs from a bus, and nothing else. The server is written
// against this interface so that it can be built and tested without the bus; `korvan web`
// implements it on top of the library, the tests with a fake.
//
// Threads: the server calls GetGraph, GetApplications, GetStats, Subscribe and Unsubscribe on its
// single io thread, so they must return quickly (in-memory look-ups, no waiting on remote
// peers). DecodeToJson, CallService and the parameter calls may block (a remote answer, a
// time-out): the server calls them from its worker threads, possibly several at once.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarvik::korvan::web {

// The outcome of a call that may fail: a value, or a reason shown to the user.
template <typename T>
struct Result {
  std::optional<T> value;
  std::string error;

  static Result Ok(T v) { return Result{std::move(v), {}}; }
  static Result Fail(std::string why) { return Result{std::nullopt, std::move(why)}; }
  bool ok() const { return value.has_value(); }
};

// A schema travels as a serialized google.protobuf.FileDescriptorSet holding the file that
// defines the type and every file it imports, transitively. Empty when the type is unknown.
struct TopicInfo {
  std::string name;
  std::string type;  // fully qualified protobuf type, "pkg.Message", no leading dot
  std::string schema;
  std::vector<std::string> publishers;   // node names
  std::vector<std::string> subscribers;  // node names
};

struct ServiceInfo {
  std::string name;
  std::string request_type;
  std::string response_type;
  std::string schema;                  // one FileDescriptorSet holding both types
  std::vector<std::string> providers;  // node names
};

struct NodeInfo {
  std::string name;
  std::string application;  // the process's application name; may be empty
};

// Everything discovery knows right now. Node names are the ones the topic and service lists
// refer to.
struct Graph {
  std::vector<NodeInfo> nodes;
  std::vector<TopicInfo> topics;
  std::vector<ServiceInfo> services;
};

struct ApplicationInfo {
  std::string name;
  std::string phase;  // lifecycle phase as the application reported it ("running", ...)
  uint64_t frame = 0;
  bool failed = false;
  std::string failure;  // what failed, when failed
};

// Figures over the source's recent window (see TopicMeter for one way to keep them).
struct TopicStats {
  std::string topic;
  double rate_hz = 0;
  double bandwidth_bytes_per_s = 0;
  std::optional<double> delay_ms;  // transmit delay; unknown without publish stamps
  uint64_t messages = 0;           // received since the source started measuring
};

// A node's parameter. The value is JSON text in protobuf's JSON mapping: a number, a boolean,
// a string, or an object for a message-typed parameter.
struct Parameter {
  std::string name;
  std::string type;  // "bool", "int", "double", "string" or the message type name
  std::string value_json;
};

// One message as it came off the bus. The payload is the serialized protobuf message and is
// only valid during the callback.
struct ReceivedMessage {
  int64_t receive_ns = 0;  // wall clock, ns since the Unix epoch
  std::optional<int64_t> publish_ns;
  std::string_view payload;
};

enum class Encoding { kProtobuf, kJson };

class BusSource {
 public:
  using MessageCallback = std::function<void(const ReceivedMessage&)>;

  virtual ~BusSource() = default;

  virtual Graph GetGraph() = 0;
  // Applications and statistics are asked for only while a page is connected, every
  // ServerOptions::stats_interval: a source may measure topics only while they are asked for.
  virtual std::vector<ApplicationInfo> GetApplications() = 0;
  virtual std::vector<TopicStats> GetStats() = 0;

  // Starts delivering the topic's messages to `callback`, on any thread the source likes and
  // possibly on several at once. Returns a non-zero handle, or 0 when the topic cannot be read.
  virtual uint64_t Subscribe(const std::string& topic, MessageCallback callback) = 0;
  // When it returns, the callback is neither running nor called again.
  virtual void Unsubscribe(uint64_t handle) = 0;

  // The payload of a message of `type` as protobuf JSON text.
  virtual Result<std::string> DecodeToJson(const std::string& type, std::string_view payload) = 0;

  // Calls a service; the request and the response are both in `encoding` (serialized
  // protobuf, or protobuf JSON text).
  virtual Result<std::string> CallService(const std::string& service, Encoding encoding,
                                          std::string_view request) = 0;

  virtual Result<std::vector<Parameter>> ListParameters(const std::string& node) = 0;
  virtual Result<Parameter> GetParameter(const std::string& node, const std::string& name) = 0;
  // Sets a parameter from JSON text; returns the value the node holds afterwards.
  virtual Result<Parameter> SetParameter(const std::string& node, const std::string& name,
                                         const std::string& value_json) = 0;

  // Optional: the source calls `on_change` (any thread) when the graph or the applications
  // changed, so that the server refreshes at once instead of at its next poll. Called with an
  // empty function to detach; after that returns the old one is not called any more.
  virtual void SetChangeCallback(std::function<void()> on_change) { (void)on_change; }
};

}  // namespace tarvik::korvan::web
