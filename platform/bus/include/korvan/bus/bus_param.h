// The record through which services and clients register with the discovery component
// (LumisComponent::getObject) and pass per-request arguments (callObjectFunc).
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace google {
namespace protobuf {
class Descriptor;
}  // namespace protobuf
}  // namespace google

namespace tarvik {
namespace korvan {
namespace bus {

struct BusParam {
  std::string name;          // the service name
  std::string request_type;  // full protobuf type names; "*" accepts any
  std::string response_type;
  // Services only: turns a decoded request into a response (null: no response).
  std::function<std::shared_ptr<void>(const std::shared_ptr<void>&)> handler;
  // Encodes the outgoing message (the response of a service, the request of a client).
  std::function<bool(const void* msg, void* buf, int size)> serializer;
  std::function<int(const void* msg)> size;
  // Decodes the incoming message into a fresh object stored in *out.
  std::function<bool(const void* data, int size, std::shared_ptr<void>* out)> deserializer;
  // The argument of one callObjectFunc call: a long (milliseconds) for "WaitForService", a
  // CallArgument for "Call".
  const void* arg = nullptr;
  // Optional: the types' descriptors, for types that are not compiled into the program (the
  // bus then makes their descriptions known). Compiled types are found by name.
  const google::protobuf::Descriptor* request_descriptor = nullptr;
  const google::protobuf::Descriptor* response_descriptor = nullptr;
};

// The argument of a client's "Call".
struct CallArgument {
  std::shared_ptr<void> request;
  long timeout_ms = 0;
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
