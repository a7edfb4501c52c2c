#include "korvan/tools/text_codec.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/message.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/util/type_resolver.h>
#include <google/protobuf/util/type_resolver_util.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <memory>
#include <sstream>
#include <vector>

namespace tarvik {
namespace korvan {
namespace tools {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;

constexpr char kTypeUrlPrefix[] = "type.googleapis.com";

class FirstError : public google::protobuf::io::ErrorCollector {
 public:
  void AddError(int line, google::protobuf::io::ColumnNumber column,
                const std::string& message) override {
    if (!text.empty())
      return;
    // A problem of the whole message (required fields) has no position.
    text = line < 0 ? message
                    : "line " + std::to_string(line + 1) + ", column " +
                          std::to_string(column + 1) + ": " + message;
  }
  std::string text;
};

std::vector<std::string> Split(const std::string& path) {
  std::vector<std::string> parts;
  std::stringstream stream(path);
  std::string part;
  while (std::getline(stream, part, '.'))
    parts.push_back(part);
  return parts;
}

bool IsIndex(const std::string& text) {
  if (text.empty())
    return false;
  for (char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c)))
      return false;
  }
  return true;
}

std::string ScalarText(const Message& message, const FieldDescriptor* field, int index, bool json) {
  std::string out;
  if (field->cpp_type() == FieldDescriptor::CPPTYPE_STRING && json) {
    const Reflection* reflection = message.GetReflection();
    const std::string value = index < 0 ? reflection->GetString(message, field)
                                        : reflection->GetRepeatedString(message, field, index);
    return JsonQuote(value);
  }
  google::protobuf::TextFormat::PrintFieldValueToString(message, field, index, &out);
  return out;
}

// The JSON parser reports a syntax error as "message\n<some input>\n   ^": the same as
// "line L, column C: message", on one line.
std::string OneLine(const std::string& input, const std::string& report) {
  const size_t first_break = report.find('\n');
  if (first_break == std::string::npos)
    return report;
  const std::string message = report.substr(0, first_break);
  const size_t second_break = report.find('\n', first_break + 1);
  const size_t caret =
      second_break == std::string::npos ? std::string::npos : report.find('^', second_break + 1);
  std::string flat = report;
  for (char& c : flat)
    c = c == '\n' ? ' ' : c;
  if (caret == std::string::npos)
    return flat;
  const std::string excerpt = report.substr(first_break + 1, second_break - first_break - 1);
  const size_t at = input.find(excerpt);
  if (at == std::string::npos)
    return flat;
  const size_t offset = at + (caret - second_break - 1);
  size_t line = 1;
  size_t column = 1;
  for (size_t i = 0; i < offset && i < input.size(); ++i) {
    if (input[i] == '\n') {
      ++line;
      column = 1;
    } else {
      ++column;
    }
  }
  return "line " + std::to_string(line) + ", column " + std::to_string(column) + ": " + message;
}

}  // namespace

bool ParseMessageText(const std::string& text, Message* message, std::string* problem) {
  size_t first = text.find_first_not_of(" \t\r\n");
  if (first != std::string::npos && text[first] == '{') {
    google::protobuf::util::JsonParseOptions options;
    auto status = google::protobuf::util::JsonStringToMessage(text, message, options);
    if (!status.ok()) {
      *problem = OneLine(text, std::string(status.message()));
      return false;
    }
    return true;
  }
  google::protobuf::TextFormat::Parser parser;
  // Missing required fields are the caller's to judge (IsInitialized), as after JSON.
  parser.AllowPartialMessage(true);
  FirstError errors;
  parser.RecordErrorsTo(&errors);
  if (!parser.ParseFromString(text, message)) {
    *problem = errors.text.empty() ? "not a " + message->GetDescriptor()->full_name() : errors.text;
    return false;
  }
  return true;
}

std::string ToText(const Message& message, bool single_line) {
  google::protobuf::TextFormat::Printer printer;
  printer.SetSingleLineMode(single_line);
  std::string out;
  printer.PrintToString(message, &out);
  if (single_line && !out.empty() && out.back() == ' ')
    out.pop_back();
  return out;
}

std::string ToJson(const Message& message) {
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  std::string out;
  if (message.IsInitialized()) {
    google::protobuf::util::MessageToJsonString(message, &out, options);
    return out;
  }
  // The printer serialises first and refuses a message that lacks required fields (a value
  // someone else sent, or half typed): print its bytes through the type's pool instead.
  const auto* descriptor = message.GetDescriptor();
  std::unique_ptr<google::protobuf::util::TypeResolver> resolver(
      google::protobuf::util::NewTypeResolverForDescriptorPool(kTypeUrlPrefix,
                                                               descriptor->file()->pool()));
  google::protobuf::util::BinaryToJsonString(
      resolver.get(), std::string(kTypeUrlPrefix) + "/" + descriptor->full_name(),
      message.SerializePartialAsString(), &out, options);
  return out;
}

bool FieldText(const Message& message, const std::string& path, bool json, std::string* out,
               std::string* problem) {
  const std::vector<std::string> parts = Split(path);
  const Message* current = &message;
  for (size_t i = 0; i < parts.size(); ++i) {
    const auto* descriptor = current->GetDescriptor();
    const FieldDescriptor* field = descriptor->FindFieldByName(parts[i]);
    if (field == nullptr) {
      *problem = descriptor->full_name() + " has no field '" + parts[i] + "'";
      return false;
    }
    const Reflection* reflection = current->GetReflection();
    int index = -1;
    if (field->is_repeated() && i + 1 < parts.size() && IsIndex(parts[i + 1])) {
      const std::string& digits = parts[++i];
      // Longer than any element count can be: out of range, without overflowing.
      index = digits.size() > 9 ? INT_MAX : std::stoi(digits);
      if (index >= reflection->FieldSize(*current, field)) {
        *problem = "'" + field->name() + "' has " +
                   std::to_string(reflection->FieldSize(*current, field)) + " elements, no index " +
                   digits;
        return false;
      }
    }
    const bool last = i + 1 == parts.size();
    if (field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE && !field->is_map()) {
      if (field->is_repeated() && index < 0) {
        if (!last) {
          *problem = "'" + field->name() + "' is repeated: give an index";
          return false;
        }
      } else {
        const Message& child = index < 0 ? reflection->GetMessage(*current, field)
                                         : reflection->GetRepeatedMessage(*current, field, index);
        if (last) {
          *out = json ? ToJson(child) : ToText(child, true);
          return true;
        }
        current = &child;
        continue;
      }
    }
    if (!last) {
      *problem = "'" + field->name() + "' is not a message";
      return false;
    }
    if (field->is_repeated() && index < 0) {
      // The whole list, in the chosen notation.
      std::string list = "[";
      const int size = reflection->FieldSize(*current, field);
      for (int k = 0; k < size; ++k) {
        if (k > 0)
          list += ", ";
        if (field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) {
          const Message& element = reflection->GetRepeatedMessage(*current, field, k);
          list += json ? ToJson(element) : "{" + ToText(element, true) + "}";
        } else {
          list += ScalarText(*current, field, k, json);
        }
      }
      *out = list + "]";
      return true;
    }
    *out = ScalarText(*current, field, index, json);
    return true;
  }
  *problem = "empty field path";
  return false;
}

std::string JsonQuote(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

bool CheckFieldPath(const google::protobuf::Descriptor* descriptor, const std::string& path,
                    std::string* problem) {
  const std::vector<std::string> parts = Split(path);
  if (parts.empty() || path.back() == '.') {
    *problem = "'" + path + "' is not a field path (e.g. pose.position.x)";
    return false;
  }
  for (size_t i = 0; i < parts.size(); ++i) {
    const FieldDescriptor* field = descriptor->FindFieldByName(parts[i]);
    if (field == nullptr) {
      *problem = descriptor->full_name() + " has no field '" + parts[i] + "'";
      return false;
    }
    bool indexed = false;
    if (field->is_repeated() && i + 1 < parts.size() && IsIndex(parts[i + 1])) {
      indexed = true;
      ++i;
    }
    if (i + 1 == parts.size())
      return true;
    if (field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE || field->is_map()) {
      *problem = "'" + field->name() + "' is not a message";
      return false;
    }
    if (field->is_repeated() && !indexed) {
      *problem = "'" + field->name() + "' is repeated: give an index";
      return false;
    }
    descriptor = field->message_type();
  }
  return true;
}

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
