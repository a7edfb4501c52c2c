// The description of a message type as it travels with the bus, so that a process that was
// never compiled with the type can still decode, print, encode and publish it.
//
// Each process makes the description of every type it publishes, subscribes to, serves or
// calls known once per type (not once per endpoint). Discovery records and every sample carry
// only the description's 64-bit fingerprint (type_hash), so a reader can tell which
// description a sample was written with, and two different types published under one full
// name are never decoded with the wrong description.
#pragma once

#include <cstdint>
#include <string>

namespace google {
namespace protobuf {
class Descriptor;
}  // namespace protobuf
}  // namespace google

namespace tarvik {
namespace korvan {
namespace bus {

struct TypeDescription {
  std::string type_name;   // full protobuf name
  uint64_t type_hash = 0;  // fingerprint of descriptor_set; never 0 for a real description
  // A serialised google.protobuf.FileDescriptorSet: the type's file and all its imports,
  // each file after the files it imports.
  std::string descriptor_set;
  // The process that made it known (one of them, when several did).
  std::string app_name;
  std::string host_name;
  int32_t process_id = 0;
};

// The description of `descriptor`'s type, without the process fields. Files are stored
// without source locations and JSON names, so that one schema compiled by two programs gives
// one fingerprint. Null gives an empty description (type_hash 0).
TypeDescription DescribeType(const google::protobuf::Descriptor* descriptor);

// The fingerprint of type `type_name` described by a serialised FileDescriptorSet (never 0).
uint64_t DescriptionHash(const std::string& type_name, const std::string& descriptor_set);

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
