#include "korvan/tools/param_json.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>
#include <memory>

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "korvan/tools/text_codec.h"
#include "tarvikdds/proto/proto_desc.pb.h"

namespace tarvik {
namespace korvan {
namespace tools {
namespace {

using message::ProtoDesc;

// Collects the files of a ProtoDesc tree after their imports. The tree may repeat a file (one
// entry per import path); a name seen with other contents makes the description ambiguous.
bool Flatten(const ProtoDesc& desc, std::map<std::string, std::string>* seen,
             google::protobuf::FileDescriptorSet* set) {
  for (const ProtoDesc& dependency : desc.dependencies()) {
    if (!Flatten(dependency, seen, set))
      return false;
  }
  google::protobuf::FileDescriptorProto file;
  if (!file.ParseFromString(desc.desc()))
    return false;
  auto [it, added] = seen->emplace(file.name(), desc.desc());
  if (!added)
    return it->second == desc.desc();
  *set->add_file() = std::move(file);
  return true;
}

// A message of the value's own type, built from the description the value carries. The pool
// and the factory live as long as the message.
struct CarriedType {
  google::protobuf::DescriptorPool pool;
  std::unique_ptr<google::protobuf::DynamicMessageFactory> factory;
  std::unique_ptr<google::protobuf::Message> message;

  bool Build(const Param& param, std::string* problem) {
    std::string set_bytes;
    google::protobuf::FileDescriptorSet set;
    if (!ProtoDescToDescriptorSet(param.proto_desc(), &set_bytes) ||
        !set.ParseFromString(set_bytes)) {
      *problem = "the description of " + param.type_name() + " does not parse";
      return false;
    }
    for (const auto& file : set.file()) {
      if (pool.BuildFile(file) == nullptr) {
        *problem =
            "the description of " + param.type_name() + " does not build (" + file.name() + ")";
        return false;
      }
    }
    const google::protobuf::Descriptor* descriptor = pool.FindMessageTypeByName(param.type_name());
    if (descriptor == nullptr) {
      *problem = "the description carried does not declare " + param.type_name();
      return false;
    }
    factory = std::make_unique<google::protobuf::DynamicMessageFactory>(&pool);
    const google::protobuf::Message* prototype = factory->GetPrototype(descriptor);
    if (prototype == nullptr) {
      *problem = "no message can be made of " + param.type_name();
      return false;
    }
    message.reset(prototype->New());
    return true;
  }

  ~CarriedType() { message.reset(); }  // before the factory that made it
};

std::string Written(const rapidjson::StringBuffer& buffer) {
  return std::string(buffer.GetString(), buffer.GetSize());
}

std::string DoubleJson(double value) {
  if (std::isnan(value))
    return "\"NaN\"";
  if (std::isinf(value))
    return value > 0 ? "\"Infinity\"" : "\"-Infinity\"";
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.Double(value);
  return Written(buffer);
}

std::string StringJson(const std::string& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>,
                    rapidjson::CrtAllocator, rapidjson::kWriteValidateEncodingFlag>
      writer(buffer);
  // The encoding check reads a multi-byte sequence whole before it looks at the length: a
  // lead byte at the end would read past the string, so it reads padding instead.
  std::string padded = value;
  padded.append(4, '\0');
  if (writer.String(padded.data(), static_cast<rapidjson::SizeType>(value.size())))
    return Written(buffer);
  // Not UTF-8: a browser would refuse the whole message, so the odd bytes show as '?'.
  std::string ascii = value;
  for (char& c : ascii) {
    if (static_cast<unsigned char>(c) >= 0x80)
      c = '?';
  }
  rapidjson::StringBuffer plain;
  rapidjson::Writer<rapidjson::StringBuffer> plain_writer(plain);
  plain_writer.String(ascii.data(), static_cast<rapidjson::SizeType>(ascii.size()));
  return Written(plain);
}

bool ParseDecimal(const std::string& text, int64_t* value) {
  if (text.empty() || text.size() > 20)
    return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (!(c >= '0' && c <= '9') && !(i == 0 && c == '-' && text.size() > 1))
      return false;
  }
  errno = 0;
  char* end = nullptr;
  const long long parsed = std::strtoll(text.c_str(), &end, 10);
  if (errno == ERANGE || end != text.c_str() + text.size())
    return false;
  *value = parsed;
  return true;
}

}  // namespace

std::string ParamTypeName(const Param& param) {
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
      return param.type_name().empty() ? "message" : param.type_name();
    case NOT_SET:
    default:
      return "unset";
  }
}

bool ParamValueJson(const Param& param, std::string* json, std::string* problem) {
  switch (param.type()) {
    case BOOL:
      *json = param.bool_value() ? "true" : "false";
      return true;
    case INT:
      *json = std::to_string(param.int_value());
      return true;
    case DOUBLE:
      *json = DoubleJson(param.double_value());
      return true;
    case STRING:
      *json = StringJson(param.string_value());
      return true;
    case PROTOBUF: {
      CarriedType type;
      if (!type.Build(param, problem))
        return false;
      if (!type.message->ParseFromString(param.string_value())) {
        *problem = "the value is not a valid " + param.type_name();
        return false;
      }
      *json = ToJson(*type.message);
      return true;
    }
    case NOT_SET:
    default:
      *json = "null";
      return true;
  }
}

bool ParamWithJsonValue(const Param& current, const std::string& json, Param* out,
                        std::string* problem) {
  Param next = current;
  if (current.type() == PROTOBUF) {
    const size_t first = json.find_first_not_of(" \t\r\n");
    if (first == std::string::npos || json[first] != '{') {
      *problem = "a " + current.type_name() + " is given as a JSON object";
      return false;
    }
    CarriedType type;
    if (!type.Build(current, problem))
      return false;
    std::string why;
    if (!ParseMessageText(json, type.message.get(), &why)) {
      *problem = "not a " + current.type_name() + ": " + why;
      return false;
    }
    if (!type.message->SerializeToString(next.mutable_string_value())) {
      *problem = "the value lacks required fields of " + current.type_name();
      return false;
    }
    *out = std::move(next);
    return true;
  }

  rapidjson::Document doc;
  doc.Parse(json.data(), json.size());
  if (doc.HasParseError()) {
    *problem = "not a JSON value";
    return false;
  }
  switch (current.type()) {
    case BOOL:
      if (!doc.IsBool()) {
        *problem = "not true or false";
        return false;
      }
      next.set_bool_value(doc.GetBool());
      break;
    case INT: {
      int64_t value = 0;
      if (doc.IsInt64()) {
        value = doc.GetInt64();
      } else if (!(doc.IsString() && ParseDecimal(doc.GetString(), &value))) {
        *problem = doc.IsUint64() ? "out of the 64-bit range" : "not an integer";
        return false;
      }
      next.set_int_value(value);
      break;
    }
    case DOUBLE: {
      double value = 0;
      if (doc.IsNumber()) {
        value = doc.GetDouble();
      } else if (doc.IsString() && std::string(doc.GetString()) == "NaN") {
        value = std::numeric_limits<double>::quiet_NaN();
      } else if (doc.IsString() && std::string(doc.GetString()) == "Infinity") {
        value = std::numeric_limits<double>::infinity();
      } else if (doc.IsString() && std::string(doc.GetString()) == "-Infinity") {
        value = -std::numeric_limits<double>::infinity();
      } else {
        *problem = "not a number";
        return false;
      }
      next.set_double_value(value);
      break;
    }
    case STRING:
      if (!doc.IsString()) {
        *problem = "not a string";
        return false;
      }
      next.set_string_value(std::string(doc.GetString(), doc.GetStringLength()));
      break;
    case NOT_SET:
    default:
      *problem = "the parameter has no type to read the value as";
      return false;
  }
  *out = std::move(next);
  return true;
}

bool ProtoDescToDescriptorSet(const std::string& proto_desc, std::string* descriptor_set) {
  ProtoDesc desc;
  if (!desc.ParseFromString(proto_desc))
    return false;
  std::map<std::string, std::string> seen;
  google::protobuf::FileDescriptorSet set;
  if (!Flatten(desc, &seen, &set))
    return false;
  return set.SerializeToString(descriptor_set);
}

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
