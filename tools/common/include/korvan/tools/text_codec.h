// Messages as text for people and scripts: protobuf text format or JSON in both directions,
// and a single field picked by a dotted path.
#pragma once

#include <string>

namespace google {
namespace protobuf {
class Descriptor;
class Message;
}  // namespace protobuf
}  // namespace google

namespace tarvik {
namespace korvan {
namespace tools {

// Fills `message` from `text`: JSON when the text starts with '{' (after blanks), protobuf
// text format otherwise. False with `problem` naming the position ("line 1, column 7: ...").
bool ParseMessageText(const std::string& text, google::protobuf::Message* message,
                      std::string* problem);

// Protobuf text format; on one line when `single_line`.
std::string ToText(const google::protobuf::Message& message, bool single_line = false);
// JSON in protobuf's mapping, field names as declared, on one line.
std::string ToJson(const google::protobuf::Message& message);

// The field at `path` ("pose.position.x"; a repeated field by index, "points.2.x"), as text
// (JSON when `json`). False with `problem` when the path does not name a field of the message.
bool FieldText(const google::protobuf::Message& message, const std::string& path, bool json,
               std::string* out, std::string* problem);

// `text` as a JSON string literal (quotes, backslashes and control characters escaped; other
// bytes as they are).
std::string JsonQuote(const std::string& text);

// Whether `path` names a field of messages of type `descriptor` (an index into a repeated
// field is checked against each message by FieldText). False with `problem` when not.
bool CheckFieldPath(const google::protobuf::Descriptor* descriptor, const std::string& path,
                    std::string* problem);

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
