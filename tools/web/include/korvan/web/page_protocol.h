// The page's own live channel (subprotocol "korvan.web.v1"): JSON text messages, each an
// object with a string "op". Pure functions, callable from any thread; parsing never throws.
//
// Server -> page: hello, graph, stats, message (latest decoded message of the selected topic),
// apps, params (a node's parameter table), paramResult (outcome of a set), error.
// Page -> server:
//   {"op":"select","topic":"t"}          topic whose latest message the page shows ("" = none)
//   {"op":"listParams","node":"n"}
//   {"op":"setParam","node":"n","name":"p","value":<JSON value>,"id":"x"}
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "korvan/web/bus_source.h"
#include "korvan/web/protocol.h"

namespace tarvik::korvan::web::page {

inline constexpr char kSubprotocol[] = "korvan.web.v1";

struct SelectTopic {
  std::string topic;
};

struct ListParams {
  std::string node;
};

struct SetParam {
  std::string node;
  std::string name;
  std::string value_json;  // the "value" member, re-serialized
  std::string id;          // echoed in paramResult
};

using Request = std::variant<ParseError, SelectTopic, ListParams, SetParam>;
Request ParseRequest(std::string_view text);

std::string Hello(const std::string& name, const std::string& session_id);
std::string GraphMessage(const Graph& graph);
std::string StatsMessage(const std::vector<TopicStats>& stats, int64_t now_ns);
// `json` is the decoded message; when it is not valid JSON, or decoding failed, `error` says why.
std::string LatestMessage(const std::string& topic, const std::string& type, int64_t receive_ns,
                          std::optional<int64_t> publish_ns, const Result<std::string>& json);
std::string AppsMessage(const std::vector<ApplicationInfo>& apps);
std::string ParamsMessage(const std::string& node, const Result<std::vector<Parameter>>& params);
std::string ParamResult(const SetParam& request, const Result<Parameter>& result);
std::string Error(const std::string& message);

}  // namespace tarvik::korvan::web::page
