#include "korvan/web/page_protocol.h"

#include "json_util.h"

namespace tarvik::korvan::web::page {
namespace {

// A parameter value deeper than this is refused: nobody edits such a thing by hand, and the
// re-serialization below recurses.
constexpr size_t kMaxValueDepth = 64;

std::string Done(rapidjson::StringBuffer& buffer) {
  return std::string(buffer.GetString(), buffer.GetSize());
}

void Op(json::Writer& w, const char* op) {
  w.Key("op");
  w.String(op);
}

void StringField(json::Writer& w, const char* key, const std::string& value) {
  w.Key(key);
  json::String(w, value);
}

void Names(json::Writer& w, const char* key, const std::vector<std::string>& names) {
  w.Key(key);
  w.StartArray();
  for (const auto& n : names)
    json::String(w, n);
  w.EndArray();
}

// Writes `text` as a JSON value if it is one, else nothing and returns false.
bool RawJson(json::Writer& w, const std::string& text) {
  rapidjson::Document doc;
  std::string ignored;
  if (!json::Parse(text, doc, &ignored))
    return false;
  w.RawValue(text.data(), text.size(), doc.GetType());
  return true;
}

void ParameterObject(json::Writer& w, const Parameter& p) {
  w.StartObject();
  StringField(w, "name", p.name);
  StringField(w, "type", p.type);
  w.Key("value");
  if (!RawJson(w, p.value_json))
    json::String(w, p.value_json);
  w.EndObject();
}

}  // namespace

Request ParseRequest(std::string_view text) {
  rapidjson::Document doc;
  std::string error;
  if (!json::Parse(text, doc, &error))
    return ParseError{error};
  if (!doc.IsObject())
    return ParseError{"request is not a JSON object"};
  auto op = json::StringMember(doc, "op");
  if (!op)
    return ParseError{"request has no string \"op\""};
  if (*op == "select") {
    auto topic = json::StringMember(doc, "topic");
    if (!topic)
      return ParseError{"select needs a string \"topic\""};
    return SelectTopic{*topic};
  }
  if (*op == "listParams") {
    auto node = json::StringMember(doc, "node");
    if (!node || node->empty())
      return ParseError{"listParams needs a \"node\""};
    return ListParams{*node};
  }
  if (*op == "setParam") {
    SetParam request;
    auto node = json::StringMember(doc, "node");
    auto name = json::StringMember(doc, "name");
    const rapidjson::Value* value = json::Member(doc, "value");
    if (!node || node->empty() || !name || name->empty() || value == nullptr)
      return ParseError{"setParam needs \"node\", \"name\" and \"value\""};
    if (json::Depth(*value) > kMaxValueDepth)
      return ParseError{"setParam value is nested too deeply"};
    request.node = *node;
    request.name = *name;
    request.value_json = json::Serialize(*value);
    request.id = json::StringMember(doc, "id").value_or("");
    return request;
  }
  return ParseError{"unknown op \"" + (json::ValidUtf8(*op) ? *op : "?") + "\""};
}

std::string Hello(const std::string& name, const std::string& session_id) {
  rapidjson::StringBuffer buffer;
  json::Writer w(buffer);
  w.StartObject();
  Op(w, "hello");
  StringField(w, "name", name);
  StringField(w, "sessionId", session_id);
  w.EndObject();
  return Done(buffer);
}

std::string GraphMessage(const Graph& graph) {
  rapidjson::StringBuffer buffer;
  json::Writer w(buffer);
  w.StartObject();
  Op(w, "graph");
  w.Key("nodes");
  w.StartArray();
  for (const auto& n : graph.nodes) {
    w.StartObject();
    StringField(w, "name", n.name);
    StringField(w, "application", n.application);
    w.EndObject();
  }
  w.EndArray();
  w.Key("topics");
  w.StartArray();
  for (const auto& t : graph.topics) {
    w.StartObject();
    StringField(w, "name", t.name);
    StringField(w, "type", t.type);
    Names(w, "publishers", t.publishers);
    Names(w, "subscribers", t.subscribers);
    w.EndObject();
  }
  w.EndArray();
  w.Key("services");
  w.StartArray();
  for (const auto& s : graph.services) {
    w.StartObject();
    StringField(w, "name", s.name);
    StringField(w, "requestType", s.request_type);
    StringField(w, "responseType", s.response_type);
    Names(w, "providers", s.providers);
    w.EndObject();
  }
  w.EndArray();
  w.EndObject();
  return Done(buffer);
}

std::string StatsMessage(const std::vector<TopicStats>& stats, int64_t now_ns) {
  rapidjson::StringBuffer buffer;
  json::Writer w(buffer);
  w.StartObject();
  Op(w, "stats");
  w.Key("timeMs");
  w.Double(static_cast<double>(now_ns) / 1e6);
  w.Key("topics");
  w.StartArray();
  for (const auto& s : stats) {
    w.StartObject();
    StringField(w, "topic", s.topic);
    w.Key("rateHz");
    w.Double(s.rate_hz);
    w.Key("bandwidth");
    w.Double(s.bandwidth_bytes_per_s);
    w.Key("delayMs");
    if (s.delay_ms)
      w.Double(*s.delay_ms);
    else
      w.Null();
    w.Key("messages");
    w.Uint64(s.messages);
    w.EndObject();
  }
  w.EndArray();
  w.EndObject();
  return Done(buffer);
}

std::string LatestMessage(const std::string& topic, const std::string& type, int64_t receive_ns,
                          std::optional<int64_t> publish_ns, const Result<std::string>& json) {
  rapidjson::StringBuffer buffer;
  json::Writer w(buffer);
  w.StartObject();
  Op(w, "message");
  StringField(w, "topic", topic);
  StringField(w, "type", type);
  w.Key("receiveNs");
  w.Int64(receive_ns);
  w.Key("publishNs");
  if (publish_ns)
    w.Int64(*publish_ns);
  else
    w.Null();
  if (json.ok()) {
    // RawValue copies the text unchecked: it must be parsed first.
    rapidjson::Document doc;
    std::string error;
    if (json::Parse(*json.value, doc, &error)) {
      w.Key("json");
      w.RawValue(json.value->data(), json.value->size(), doc.GetType());
    } else {
      StringField(w, "error", "decoder gave " + error);
    }
  } else {
    StringField(w, "error", json.error);
  }
  w.EndObject();
  return Done(buffer);
}

std::string AppsMessage(const std::vector<ApplicationInfo>& apps) {
  rapidjson::StringBuffer buffer;
  json::Writer w(buffer);
  w.StartObject();
  Op(w, "apps");
  w.Key("apps");
  w.StartArray();
  for (const auto& a : apps) {
    w.StartObject();
    StringField(w, "name", a.name);
    StringField(w, "phase", a.phase);
    w.Key("frame");
    w.Uint64(a.frame);
    w.Key("failed");
    w.Bool(a.failed);
    StringField(w, "failure", a.failure);
    w.EndObject();
  }
  w.EndArray();
  w.EndObject();
  return Done(buffer);
}

std::string ParamsMessage(const std::string& node, const Result<std::vector<Parameter>>& params) {
  rapidjson::StringBuffer buffer;
  json::Writer w(buffer);
  w.StartObject();
  Op(w, "params");
  StringField(w, "node", node);
  if (params.ok()) {
    w.Key("params");
    w.StartArray();
    for (const auto& p : *params.value)
      ParameterObject(w, p);
    w.EndArray();
  } else {
    StringField(w, "error", params.error);
  }
  w.EndObject();
  return Done(buffer);
}

std::string ParamResult(const SetParam& request, const Result<Parameter>& result) {
  rapidjson::StringBuffer buffer;
  json::Writer w(buffer);
  w.StartObject();
  Op(w, "paramResult");
  StringField(w, "id", request.id);
  StringField(w, "node", request.node);
  StringField(w, "name", request.name);
  w.Key("ok");
  w.Bool(result.ok());
  if (result.ok()) {
    w.Key("param");
    ParameterObject(w, *result.value);
  } else {
    StringField(w, "error", result.error);
  }
  w.EndObject();
  return Done(buffer);
}

std::string Error(const std::string& message) {
  rapidjson::StringBuffer buffer;
  json::Writer w(buffer);
  w.StartObject();
  Op(w, "error");
  StringField(w, "message", message);
  w.EndObject();
  return Done(buffer);
}

}  // namespace tarvik::korvan::web::page
