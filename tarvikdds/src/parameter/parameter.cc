#include "tarvikdds/parameter/parameter.h"

#include <cstdio>
#include <memory>

#include <google/protobuf/message.h>

#include "tarvikdds/detail/logging.h"
#include "tarvikdds/message/protobuf_factory.h"

namespace tarvik {
namespace korvan {
namespace {

Param Named(const std::string& name, ParamType type) {
  Param param;
  param.set_name(name);
  param.set_type(type);
  if (type != NOT_SET)
    param.set_type_name(ParamType_Name(type));
  return param;
}

void LogMismatch(const Param& param, const char* wanted) {
  KORVAN_LOG_ERROR << "The type of parameter \"" << param.name() << "\" is " << param.type_name()
                   << ", not " << wanted;
}

std::string Quoted(const std::string& text) {
  return "\"" + text + "\"";
}

}  // namespace

Parameter::Parameter() : m_param(Named("", NOT_SET)) {}

Parameter::Parameter(const std::string& name) : m_param(Named(name, NOT_SET)) {}

Parameter::Parameter(const std::string& name, bool value) : m_param(Named(name, BOOL)) {
  m_param.set_bool_value(value);
}

Parameter::Parameter(const std::string& name, int value) : m_param(Named(name, INT)) {
  m_param.set_int_value(value);
}

Parameter::Parameter(const std::string& name, long value) : m_param(Named(name, INT)) {
  m_param.set_int_value(value);
}

Parameter::Parameter(const std::string& name, float value) : m_param(Named(name, DOUBLE)) {
  m_param.set_double_value(value);
}

Parameter::Parameter(const std::string& name, double value) : m_param(Named(name, DOUBLE)) {
  m_param.set_double_value(value);
}

Parameter::Parameter(const std::string& name, const std::string& value)
    : m_param(Named(name, STRING)) {
  m_param.set_string_value(value);
}

Parameter::Parameter(const std::string& name, const char* value) : m_param(Named(name, STRING)) {
  m_param.set_string_value(value != nullptr ? value : "");
}

Parameter::Parameter(const std::string& name, const google::protobuf::Message& value)
    : m_param(Named(name, PROTOBUF)) {
  m_param.set_type_name(value.GetDescriptor()->full_name());
  m_param.set_string_value(value.SerializeAsString());
  message::ProtobufFactory::GetDescriptorString(value, m_param.mutable_proto_desc());
}

Parameter::Parameter(const std::string& name, const std::string& type_name,
                     const std::string& serialized_value, const std::string& proto_desc)
    : m_param(Named(name, PROTOBUF)) {
  m_param.set_type_name(type_name);
  m_param.set_string_value(serialized_value);
  m_param.set_proto_desc(proto_desc);
}

Parameter::Parameter(const Parameter& other) = default;

Param Parameter::ToProtoParam() const {
  return m_param;
}

void Parameter::FromProtoParam(const Param& param) {
  m_param = param;
}

// The getters of the oneof members answer the zero value unless that member is the one set.
bool Parameter::BoolValue() const {
  if (m_param.type() != BOOL)
    LogMismatch(m_param, "BOOL");
  return m_param.bool_value();
}

int64_t Parameter::IntValue() const {
  if (m_param.type() != INT)
    LogMismatch(m_param, "INT");
  return m_param.int_value();
}

double Parameter::DoubleValue() const {
  if (m_param.type() != DOUBLE)
    LogMismatch(m_param, "DOUBLE");
  return m_param.double_value();
}

const std::string& Parameter::StringValue() const {
  if (m_param.type() != STRING && m_param.type() != PROTOBUF)
    LogMismatch(m_param, "STRING");
  return m_param.string_value();
}

std::string Parameter::DebugString() const {
  return "{name: " + Quoted(m_param.name()) + ", type: " + Quoted(m_param.type_name()) +
         ", value: " + ValueText() + "}";
}

std::string Parameter::ValueText() const {
  switch (m_param.type()) {
    case BOOL:
      return m_param.bool_value() ? "true" : "false";
    case INT:
      return std::to_string(m_param.int_value());
    case DOUBLE: {
      // "%f" of the largest doubles needs over 300 characters.
      int size = std::snprintf(nullptr, 0, "%f", m_param.double_value());
      std::string text(static_cast<size_t>(size > 0 ? size : 0) + 1, '\0');
      std::snprintf(text.data(), text.size(), "%f", m_param.double_value());
      text.resize(text.size() - 1);
      return text;
    }
    case STRING:
      return Quoted(m_param.string_value());
    case PROTOBUF: {
      // The receiver may not have the type compiled in: the descriptor travels with the value.
      auto* factory = message::ProtobufFactory::Instance();
      if (factory == nullptr)
        return Quoted("");
      factory->RegisterMessage(m_param.proto_desc());
      std::unique_ptr<google::protobuf::Message> value(
          factory->GenerateMessageByType(m_param.type_name()));
      if (!value)
        return Quoted("");
      value->ParseFromString(m_param.string_value());
      return Quoted(value->ShortDebugString());
    }
    case NOT_SET:
    default:
      return "not set";
  }
}

}  // namespace korvan
}  // namespace tarvik
