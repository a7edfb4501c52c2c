// Parameter values as JSON, the way the web view shows and edits them: a bool, a number or a
// string for the scalar types, and protobuf's JSON mapping for a message-typed value. A message
// value is decoded with the description it carries (Param.proto_desc), so the type need not be
// compiled in nor known to the bus.
//
// Pure functions: no shared state, any thread. The inputs come from outside (the bus, a
// browser) and are checked, never trusted.
#pragma once

#include <string>

#include "tarvikdds/proto/tarvikdds_parameter.pb.h"

namespace tarvik {
namespace korvan {
namespace tools {

// "bool", "int", "double", "string", the message's full type name, or "unset".
std::string ParamTypeName(const Param& param);

// The value as JSON text: true, 12, 0.5, "text", {"kp": 1.2}. Integers are plain numbers;
// doubles that JSON cannot hold are "NaN", "Infinity" and "-Infinity" as protobuf writes them.
// False with `problem` when a message value does not decode with its own description.
bool ParamValueJson(const Param& param, std::string* json, std::string* problem);

// `current` with its value replaced by `json`, read as `current`'s type: a number or a decimal
// string for an int (no fraction, within 64 bits), any number (or "NaN"/"Infinity") for a
// double, true/false for a bool, a string for a string, an object for a message. False with
// `problem` when the value is not of that type.
bool ParamWithJsonValue(const Param& current, const std::string& json, Param* out,
                        std::string* problem);

// A description as parameters carry it (a serialised ProtoDesc tree) as a serialised
// FileDescriptorSet: every file once, each after the files it imports. False when the bytes do
// not parse or name a file twice with different contents.
bool ProtoDescToDescriptorSet(const std::string& proto_desc, std::string* descriptor_set);

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
