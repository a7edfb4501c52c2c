#include "korvan/tools/text_codec.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/message.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/json_util.h>

#include <cctype>
#include <sstream>
#include <vector>

namespace tarvik {
namespace korvan {
namespace tools {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;

class FirstError : public google::protobuf::io::ErrorCollector {
 public:
  void AddError(int line, google::protobuf::io::ColumnNumber column,
                const std::string& message) override {
    if (text.empty()) {
      text = "line " + std::to_string(line + 1) + ", column " + std::to_string(column + 1) + ": " +
             message;
    }
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
    // A JSON string: quote and escape as the protobuf JSON printer would.
    out = "\"";
    for (char c : value) {
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
        default:
          out += c;
      }
    }
    return out + "\"";
  }
  google::protobuf::TextFormat::PrintFieldValueToString(message, field, index, &out);
  return out;
}

}  // namespace

bool ParseMessageText(const std::string& text, Message* message, std::string* problem) {
  size_t first = text.find_first_not_of(" \t\r\n");
  if (first != std::string::npos && text[first] == '{') {
    google::protobuf::util::JsonParseOptions options;
    auto status = google::protobuf::util::JsonStringToMessage(text, message, options);
    if (!status.ok()) {
      *problem = std::string(status.message());
      return false;
    }
    return true;
  }
  google::protobuf::TextFormat::Parser parser;
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
  google::protobuf::util::MessageToJsonString(message, &out, options);
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
      index = std::stoi(parts[++i]);
      if (index >= reflection->FieldSize(*current, field)) {
        *problem = "'" + field->name() + "' has " +
                   std::to_string(reflection->FieldSize(*current, field)) + " elements, not " +
                   std::to_string(index + 1);
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

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
