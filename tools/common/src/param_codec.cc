#include "korvan/tools/param_codec.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "korvan/tools/text_codec.h"
#include "tarvikdds/message/protobuf_factory.h"

namespace tarvik {
namespace korvan {
namespace tools {
namespace {

std::string Lower(std::string text) {
  for (char& c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// The shortest decimal that reads back as the same double.
std::string DoubleText(double value) {
  char text[40];
  for (int precision = 15; precision <= 17; ++precision) {
    std::snprintf(text, sizeof(text), "%.*g", precision, value);
    if (std::strtod(text, nullptr) == value)
      break;
  }
  return text;
}

// An empty message of a message-typed value's type, its description registered first.
std::unique_ptr<google::protobuf::Message> NewValueMessage(const Param& param,
                                                           std::string* problem) {
  message::ProtobufFactory* factory = message::ProtobufFactory::Instance();
  if (factory == nullptr) {
    *problem = "no protobuf factory";
    return nullptr;
  }
  std::unique_ptr<google::protobuf::Message> message(
      factory->GetMessageByGeneratedType(param.type_name()));
  if (message)
    return message;
  if (!param.proto_desc().empty())
    factory->RegisterMessage(param.proto_desc());
  if (factory->FindMessageTypeByName(param.type_name()) == nullptr) {
    *problem = "the description of " + param.type_name() + " carried by parameter '" +
               param.name() + "' does not build";
    return nullptr;
  }
  message.reset(factory->GenerateMessageByType(param.type_name()));
  if (!message)
    *problem = "no message can be made of " + param.type_name();
  return message;
}

}  // namespace

std::string ParamTypeText(const Param& param) {
  switch (param.type()) {
    case BOOL:
      return "bool";
    case INT:
      return "int";
    case DOUBLE:
      return "double";
    case STRING:
      return "string";
    case PROTOBUF:
      return param.type_name();
    case NOT_SET:
    default:
      return "not set";
  }
}

bool ParamValueText(const Param& param, bool json, std::string* out, std::string* problem) {
  switch (param.type()) {
    case BOOL:
      *out = param.bool_value() ? "true" : "false";
      return true;
    case INT:
      *out = std::to_string(param.int_value());
      return true;
    case DOUBLE: {
      const double value = param.double_value();
      if (json && !std::isfinite(value)) {
        *out = std::isnan(value) ? "\"NaN\"" : (value > 0 ? "\"Infinity\"" : "\"-Infinity\"");
      } else {
        *out = DoubleText(value);
      }
      return true;
    }
    case STRING: {
      if (!json) {
        *out = param.string_value();
        return true;
      }
      *out = JsonQuote(param.string_value());
      return true;
    }
    case PROTOBUF: {
      std::unique_ptr<google::protobuf::Message> message = NewValueMessage(param, problem);
      if (!message || !message->ParsePartialFromString(param.string_value())) {
        if (message)
          *problem = "the value of '" + param.name() + "' is not a " + param.type_name();
        *out = json ? "null" : "?";
        return false;
      }
      *out = json ? ToJson(*message) : ToText(*message, true);
      return true;
    }
    case NOT_SET:
    default:
      *out = json ? "null" : "not set";
      return true;
  }
}

bool ParseParamValue(const Param& current, const std::string& text, Param* out,
                     std::string* problem) {
  Param value = current;
  switch (current.type()) {
    case BOOL: {
      const std::string word = Lower(text);
      if (word == "true" || word == "1") {
        value.set_bool_value(true);
      } else if (word == "false" || word == "0") {
        value.set_bool_value(false);
      } else {
        *problem = "'" + text + "' is not a bool (true, false, 1 or 0)";
        return false;
      }
      break;
    }
    case INT: {
      char* end = nullptr;
      errno = 0;
      const long long parsed = std::strtoll(text.c_str(), &end, 10);
      if (text.empty() || std::isspace(static_cast<unsigned char>(text[0])) ||
          end != text.c_str() + text.size()) {
        *problem = "'" + text + "' is not an int (a decimal integer)";
        return false;
      }
      if (errno == ERANGE) {
        *problem = "'" + text + "' is outside the 64-bit integer range";
        return false;
      }
      value.set_int_value(parsed);
      break;
    }
    case DOUBLE: {
      char* end = nullptr;
      const double parsed = std::strtod(text.c_str(), &end);
      if (text.empty() || std::isspace(static_cast<unsigned char>(text[0])) ||
          end != text.c_str() + text.size()) {
        *problem = "'" + text + "' is not a double (a decimal number)";
        return false;
      }
      value.set_double_value(parsed);
      break;
    }
    case STRING:
      value.set_string_value(text);
      break;
    case PROTOBUF: {
      std::unique_ptr<google::protobuf::Message> message = NewValueMessage(current, problem);
      if (!message)
        return false;
      std::string where;
      if (!ParseMessageText(text, message.get(), &where)) {
        *problem = "the value is not a " + current.type_name() + ": " + where;
        return false;
      }
      if (!message->IsInitialized()) {
        *problem = "the value lacks required fields of " + current.type_name() + ": " +
                   message->InitializationErrorString();
        return false;
      }
      value.set_string_value(message->SerializeAsString());
      break;
    }
    case NOT_SET:
    default:
      *problem = "parameter '" + current.name() + "' holds no value to take a type from";
      return false;
  }
  *out = value;
  return true;
}

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
