// The Foxglove WebSocket protocol (subprotocol "foxglove.websocket.v1") as this server speaks
// it: parsing of what clients send and encoding of what the server sends. Pure functions over
// bytes, no I/O, callable from any thread.
//
// Text messages are one JSON object with a string "op"; binary messages are one opcode byte and
// a little-endian body. Client input is untrusted: every parser returns a ParseError rather
// than throwing, whatever the bytes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "korvan/web/bus_source.h"

namespace tarvik::korvan::web {

// Why a client message was refused, for a `status` message back to the client.
struct ParseError {
  std::string message;
};

namespace foxglove {

inline constexpr char kSubprotocol[] = "foxglove.websocket.v1";

// --- client -> server, text ---

struct SubscribeRequest {
  struct Entry {
    uint32_t id;  // the client's subscription id
    uint32_t channel_id;
  };
  std::vector<Entry> entries;
  std::vector<std::string> errors;  // entries that were malformed and skipped
};

struct UnsubscribeRequest {
  std::vector<uint32_t> ids;
  std::vector<std::string> errors;
};

struct GraphSubscription {
  bool subscribe;  // subscribeConnectionGraph, or unsubscribeConnectionGraph
};

// An op of the protocol that needs a capability this server does not declare.
struct UnsupportedOp {
  std::string op;
  std::string capability;
};

using ClientText = std::variant<ParseError, SubscribeRequest, UnsubscribeRequest, GraphSubscription,
                                UnsupportedOp>;
ClientText ParseClientText(std::string_view text);

// --- client -> server, binary ---

inline constexpr uint8_t kClientMessageData = 0x01;
inline constexpr uint8_t kServiceCallRequest = 0x02;

struct ServiceCallRequest {
  uint32_t service_id;
  uint32_t call_id;
  std::string encoding;
  std::string_view payload;  // points into the parsed frame
};

struct ClientMessageData {
  uint32_t channel_id;
  std::string_view payload;
};

using ClientBinary = std::variant<ParseError, ServiceCallRequest, ClientMessageData>;
ClientBinary ParseClientBinary(std::string_view frame);

// --- server -> client ---

inline constexpr uint8_t kMessageData = 0x01;
inline constexpr uint8_t kServiceCallResponse = 0x03;
// op, subscription id, receive time: the payload follows.
inline constexpr size_t kMessageDataHeaderSize = 1 + 4 + 8;

enum class StatusLevel { kInfo = 0, kWarning = 1, kError = 2 };

struct Channel {
  uint32_t id;
  std::string topic;
  std::string schema_name;
  std::string schema_base64;
};

struct Service {
  uint32_t id;
  std::string name;
  std::string request_type;
  std::string response_type;
  std::string schema_base64;
};

std::string ServerInfo(const std::string& name, const std::vector<std::string>& capabilities,
                       const std::vector<std::string>& supported_encodings,
                       const std::string& session_id);
std::string Status(StatusLevel level, const std::string& message);
std::string Advertise(const std::vector<Channel>& channels);
std::string Unadvertise(const std::vector<uint32_t>& channel_ids);
std::string AdvertiseServices(const std::vector<Service>& services);
std::string UnadvertiseServices(const std::vector<uint32_t>& service_ids);
std::string ServiceCallFailure(uint32_t service_id, uint32_t call_id, const std::string& message);
// Publishers, subscribers and providers are named by node; `removed_*` are names that were in
// the previous update and are gone now.
std::string ConnectionGraphUpdate(const Graph& graph,
                                  const std::vector<std::string>& removed_topics,
                                  const std::vector<std::string>& removed_services);

// A Message Data frame. Built once per message for every client: each client's copy gets its
// own subscription id with PatchSubscriptionId.
std::string MessageData(uint32_t subscription_id, uint64_t receive_ns, std::string_view payload);
void PatchSubscriptionId(std::string& frame, uint32_t subscription_id);
std::string ServiceCallResponse(uint32_t service_id, uint32_t call_id, std::string_view encoding,
                                std::string_view payload);

std::string Base64(std::string_view bytes);

}  // namespace foxglove
}  // namespace tarvik::korvan::web
