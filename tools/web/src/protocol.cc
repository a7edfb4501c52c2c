#include "korvan/web/protocol.h"

#include <map>

#include <websocketpp/base64/base64.hpp>

#include "json_util.h"

namespace tarvik::korvan::web::foxglove {
namespace {

uint32_t ReadU32(std::string_view bytes, size_t at) {
  uint32_t v = 0;
  for (size_t i = 0; i < 4; ++i)
    v |= static_cast<uint32_t>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
  return v;
}

void PutU32(std::string& out, uint32_t v) {
  for (int i = 0; i < 4; ++i)
    out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

void PutU64(std::string& out, uint64_t v) {
  for (int i = 0; i < 8; ++i)
    out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

std::string Done(rapidjson::StringBuffer& buffer) {
  return std::string(buffer.GetString(), buffer.GetSize());
}

// Ops the protocol defines but this server does not offer, with the capability they need.
const std::map<std::string, std::string, std::less<>>& UnsupportedOps() {
  static const std::map<std::string, std::string, std::less<>> ops = {
      {"advertise", "clientPublish"},
      {"unadvertise", "clientPublish"},
      {"getParameters", "parameters"},
      {"setParameters", "parameters"},
      {"subscribeParameterUpdates", "parametersSubscribe"},
      {"unsubscribeParameterUpdates", "parametersSubscribe"},
      {"fetchAsset", "assets"},
  };
  return ops;
}

ClientText ParseSubscribe(const rapidjson::Value& msg) {
  const rapidjson::Value* list = json::Member(msg, "subscriptions");
  if (list == nullptr || !list->IsArray())
    return ParseError{"subscribe needs a \"subscriptions\" array"};
  SubscribeRequest request;
  for (const auto& entry : list->GetArray()) {
    if (!entry.IsObject()) {
      request.errors.push_back("subscription entry is not an object");
      continue;
    }
    auto id = json::Uint32(entry, "id");
    auto channel = json::Uint32(entry, "channelId");
    if (!id || !channel) {
      request.errors.push_back("subscription entry needs uint32 \"id\" and \"channelId\"");
      continue;
    }
    request.entries.push_back({*id, *channel});
  }
  return request;
}

ClientText ParseUnsubscribe(const rapidjson::Value& msg) {
  const rapidjson::Value* list = json::Member(msg, "subscriptionIds");
  if (list == nullptr || !list->IsArray())
    return ParseError{"unsubscribe needs a \"subscriptionIds\" array"};
  UnsubscribeRequest request;
  for (const auto& id : list->GetArray()) {
    if (id.IsUint())
      request.ids.push_back(id.GetUint());
    else
      request.errors.push_back("subscription id is not a uint32");
  }
  return request;
}

}  // namespace

ClientText ParseClientText(std::string_view text) {
  rapidjson::Document doc;
  std::string error;
  if (!json::Parse(text, doc, &error))
    return ParseError{error};
  if (!doc.IsObject())
    return ParseError{"message is not a JSON object"};
  auto op = json::StringMember(doc, "op");
  if (!op)
    return ParseError{"message has no string \"op\""};
  if (*op == "subscribe")
    return ParseSubscribe(doc);
  if (*op == "unsubscribe")
    return ParseUnsubscribe(doc);
  if (*op == "subscribeConnectionGraph")
    return GraphSubscription{true};
  if (*op == "unsubscribeConnectionGraph")
    return GraphSubscription{false};
  auto it = UnsupportedOps().find(*op);
  if (it != UnsupportedOps().end())
    return UnsupportedOp{*op, it->second};
  return ParseError{"unknown op \"" + (json::ValidUtf8(*op) ? *op : "?") + "\""};
}

ClientBinary ParseClientBinary(std::string_view frame) {
  if (frame.empty())
    return ParseError{"empty binary message"};
  const auto op = static_cast<uint8_t>(frame[0]);
  if (op == kClientMessageData) {
    if (frame.size() < 5)
      return ParseError{"client message data shorter than its header"};
    return ClientMessageData{ReadU32(frame, 1), frame.substr(5)};
  }
  if (op == kServiceCallRequest) {
    if (frame.size() < 13)
      return ParseError{"service call request shorter than its header"};
    ServiceCallRequest request;
    request.service_id = ReadU32(frame, 1);
    request.call_id = ReadU32(frame, 5);
    const uint32_t encoding_size = ReadU32(frame, 9);
    if (encoding_size > frame.size() - 13)
      return ParseError{"service call request encoding runs past the message"};
    request.encoding = std::string(frame.substr(13, encoding_size));
    request.payload = frame.substr(13 + encoding_size);
    return request;
  }
  return ParseError{"unknown binary opcode " + std::to_string(op)};
}

std::string ServerInfo(const std::string& name, const std::vector<std::string>& capabilities,
                       const std::vector<std::string>& supported_encodings,
                       const std::string& session_id) {
  rapidjson::StringBuffer buffer;
  json::Writer w(buffer);
  w.StartObject();
  w.Key("op");
  w.String("serverInfo");
  w.Key("name");
  json::String(w, name);
  w.Key("capabilities");
  w.StartArray();
  for (const auto& c : capabilities)
    json::String(w, c);
  w.EndArray();
  w.Key("supportedEncodings");
  w.StartArray();
  for (const auto& e : supported_encodings)
    json::String(w, e);
  w.EndArray();
  w.Key("metadata");
  w.StartObject();
  w.EndObject();
  w.Key("sessionId");
  json::String(w, session_id);
  w.EndObject();
  return Done(buffer);
}

std::string Status(StatusLevel level, const std::string& message) {
  rapidjson::StringBuffer buffer;
  json::Writer w(buffer);
  w.StartObject();
  w.Key("op");
  w.String("status");
  w.Key("level");
  w.Int(static_cast<int>(level));
  w.Key("message");
  json::String(w, message);
  w.EndObject();
  return Done(buffer);
}

std::string Advertise(const std::vector<Channel>& channels) {
  rapidjson::StringBuffer buffer;
  json::Writer w(buffer);
  w.StartObject();
  w.Key("op");
  w.String("advertise");
  w.Key("channels");
  w.StartArray();
  for (const auto& c : channels) {
    w.StartObject();
    w.Key("id");
    w.Uint(c.id);
    w.Key("topic");
    json::String(w, c.topic);
    w.Key("encoding");
    w.String("protobuf");
    w.Key("schemaName");
    json::String(w, c.schema_name);
    w.Key("schema");
    w.String(c.schema_base64.data(), static_cast<rapidjson::SizeType>(c.schema_base64.size()));
    w.Key("schemaEncoding");
    w.String("protobuf");
    w.EndObject();
  }
  w.EndArray();
  w.EndObject();
  return Done(buffer);
}

namespace {
std::string IdList(const char* op, const char* key, const std::vector<uint32_t>& ids) {
  rapidjson::StringBuffer buffer;
  json::Writer w(buffer);
  w.StartObject();
  w.Key("op");
  w.String(op);
  w.Key(key);
  w.StartArray();
  for (uint32_t id : ids)
    w.Uint(id);
  w.EndArray();
  w.EndObject();
  return Done(buffer);
}

void SchemaObject(json::Writer& w, const std::string& type, const std::string& schema_base64) {
  w.StartObject();
  w.Key("encoding");
  w.String("protobuf");
  w.Key("schemaName");
  json::String(w, type);
  w.Key("schemaEncoding");
  w.String("protobuf");
  w.Key("schema");
  w.String(schema_base64.data(), static_cast<rapidjson::SizeType>(schema_base64.size()));
  w.EndObject();
}

void NameList(json::Writer& w, const char* key, const std::vector<std::string>& names) {
  w.Key(key);
  w.StartArray();
  for (const auto& n : names)
    json::String(w, n);
  w.EndArray();
}
}  // namespace

std::string Unadvertise(const std::vector<uint32_t>& channel_ids) {
  return IdList("unadvertise", "channelIds", channel_ids);
}

std::string AdvertiseServices(const std::vector<Service>& services) {
  rapidjson::StringBuffer buffer;
  json::Writer w(buffer);
  w.StartObject();
  w.Key("op");
  w.String("advertiseServices");
  w.Key("services");
  w.StartArray();
  for (const auto& s : services) {
    w.StartObject();
    w.Key("id");
    w.Uint(s.id);
    w.Key("name");
    json::String(w, s.name);
    w.Key("type");
    json::String(w, s.request_type + "/" + s.response_type);
    w.Key("request");
    SchemaObject(w, s.request_type, s.schema_base64);
    w.Key("response");
    SchemaObject(w, s.response_type, s.schema_base64);
    w.EndObject();
  }
  w.EndArray();
  w.EndObject();
  return Done(buffer);
}

std::string UnadvertiseServices(const std::vector<uint32_t>& service_ids) {
  return IdList("unadvertiseServices", "serviceIds", service_ids);
}

std::string ServiceCallFailure(uint32_t service_id, uint32_t call_id, const std::string& message) {
  rapidjson::StringBuffer buffer;
  json::Writer w(buffer);
  w.StartObject();
  w.Key("op");
  w.String("serviceCallFailure");
  w.Key("serviceId");
  w.Uint(service_id);
  w.Key("callId");
  w.Uint(call_id);
  w.Key("message");
  json::String(w, message);
  w.EndObject();
  return Done(buffer);
}

std::string ConnectionGraphUpdate(const Graph& graph,
                                  const std::vector<std::string>& removed_topics,
                                  const std::vector<std::string>& removed_services) {
  rapidjson::StringBuffer buffer;
  json::Writer w(buffer);
  w.StartObject();
  w.Key("op");
  w.String("connectionGraphUpdate");
  w.Key("publishedTopics");
  w.StartArray();
  for (const auto& t : graph.topics) {
    w.StartObject();
    w.Key("name");
    json::String(w, t.name);
    NameList(w, "publisherIds", t.publishers);
    w.EndObject();
  }
  w.EndArray();
  w.Key("subscribedTopics");
  w.StartArray();
  for (const auto& t : graph.topics) {
    w.StartObject();
    w.Key("name");
    json::String(w, t.name);
    NameList(w, "subscriberIds", t.subscribers);
    w.EndObject();
  }
  w.EndArray();
  w.Key("advertisedServices");
  w.StartArray();
  for (const auto& s : graph.services) {
    w.StartObject();
    w.Key("name");
    json::String(w, s.name);
    NameList(w, "providerIds", s.providers);
    w.EndObject();
  }
  w.EndArray();
  NameList(w, "removedTopics", removed_topics);
  NameList(w, "removedServices", removed_services);
  w.EndObject();
  return Done(buffer);
}

std::string MessageData(uint32_t subscription_id, uint64_t receive_ns, std::string_view payload) {
  std::string frame;
  frame.reserve(kMessageDataHeaderSize + payload.size());
  frame.push_back(static_cast<char>(kMessageData));
  PutU32(frame, subscription_id);
  PutU64(frame, receive_ns);
  frame.append(payload);
  return frame;
}

void PatchSubscriptionId(std::string& frame, uint32_t subscription_id) {
  for (size_t i = 0; i < 4; ++i)
    frame[1 + i] = static_cast<char>((subscription_id >> (8 * i)) & 0xFF);
}

std::string ServiceCallResponse(uint32_t service_id, uint32_t call_id, std::string_view encoding,
                                std::string_view payload) {
  std::string frame;
  frame.reserve(13 + encoding.size() + payload.size());
  frame.push_back(static_cast<char>(kServiceCallResponse));
  PutU32(frame, service_id);
  PutU32(frame, call_id);
  PutU32(frame, static_cast<uint32_t>(encoding.size()));
  frame.append(encoding);
  frame.append(payload);
  return frame;
}

std::string Base64(std::string_view bytes) {
  return websocketpp::base64_encode(reinterpret_cast<const unsigned char*>(bytes.data()),
                                    bytes.size());
}

}  // namespace tarvik::korvan::web::foxglove
