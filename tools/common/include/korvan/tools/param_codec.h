// Remote parameter values as text, both ways, for tools: printing every value type (a
// message-typed value decoded through the ProtobufFactory from the description it carries)
// and reading a new value typed after the parameter's current one.
#pragma once

#include <string>

#include "tarvikdds/proto/tarvikdds_parameter.pb.h"

namespace tarvik {
namespace korvan {
namespace tools {

// "bool", "int", "double", "string", the full type name of a message value, or "not set".
std::string ParamTypeText(const Param& param);

// The value for people (text format on one line for a message, strings as they are) or, with
// `json`, as a JSON value (a message in protobuf's JSON mapping, non-finite doubles as the
// strings "NaN", "Infinity", "-Infinity"). False with `problem` when a message value cannot
// be decoded; `out` then holds a placeholder.
bool ParamValueText(const Param& param, bool json, std::string* out, std::string* problem);

// Reads `text` as a new value of `current`'s type into `out` (name, type and, for a message,
// its type name and description kept): "true"/"false"/"1"/"0" for bool, a decimal 64-bit
// integer for int, a decimal or "nan"/"inf" for double, anything for string, text format or
// JSON for a message. False with `problem` (one line) when `text` is not such a value.
bool ParseParamValue(const Param& current, const std::string& text, Param* out,
                     std::string* problem);

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
