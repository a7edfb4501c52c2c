// How services and clients encode and decode their messages for the bus: a service encodes
// responses and decodes requests, a client the other way round.
#pragma once

#include <memory>
#include <string>

namespace tarvik {
namespace quessa {
namespace service_codec {

// Writes `msg` into `size` bytes at `buf`; false for a null buffer.
template <typename T>
bool Serialize(const void* msg, void* buf, int size) {
  if (buf == nullptr)
    return false;
  return static_cast<const T*>(msg)->SerializeToArray(buf, size);
}

// The encoded size; an empty message is announced as 32 bytes, so the bus is never asked
// for a zero-length buffer.
template <typename T>
int Size(const void* msg) {
  const size_t size = static_cast<const T*>(msg)->ByteSizeLong();
  return size == 0 ? 32 : static_cast<int>(size);
}

// Stores a fresh message in *out, then parses `size` bytes at `data` into it.
template <typename T>
bool Deserialize(const void* data, int size, std::shared_ptr<void>* out) {
  auto msg = std::make_shared<T>();
  *out = msg;
  if (data == nullptr)
    return false;
  return msg->ParseFromArray(data, size);
}

// The type name advertised for T: its full name, or "*" for the raw envelope (any type).
template <typename T>
std::string AdvertisedType() {
  std::string name = T::descriptor()->full_name();
  if (name.find("RawMessage") != std::string::npos)
    name = "*";
  return name;
}

}  // namespace service_codec
}  // namespace quessa
}  // namespace tarvik
