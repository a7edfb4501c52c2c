// Schemas for protobuf message types, as outside readers expect them: encoding "protobuf",
// the full type name, and a FileDescriptorSet holding the type's file and every file it
// imports, imports first (what protoc --include_imports --descriptor_set_out writes).
#pragma once

#include <string>

#include "korvan/mcap/types.h"

namespace google::protobuf {
class Descriptor;
class FileDescriptorProto;
}  // namespace google::protobuf

namespace tarvik::korvan::mcap {

inline constexpr char kProtobufEncoding[] = "protobuf";

// The schema of `type`, with id 0 (Writer::FreeSchemaId gives one).
Schema ProtobufSchema(const google::protobuf::Descriptor* type);

// The serialised FileDescriptorSet of `type`'s file and its imports, imports first.
std::string ProtobufFileDescriptorSet(const google::protobuf::Descriptor* type);

}  // namespace tarvik::korvan::mcap
