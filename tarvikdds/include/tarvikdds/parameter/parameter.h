// One named, typed parameter value: a boolean, an integer, a floating-point number, a string
// or a whole protobuf message. The value is kept in its wire form, a Param, so converting to
// and from the wire is a copy.
//
// A message value holds the message's full type name, its serialised bytes and the
// descriptor string of its type (ProtobufFactory::GetDescriptorString), so that a process
// compiled without the type can still decode and print it.
//
// Reading with value<T>() never throws: asking for another type than the declared one logs an
// error line and yields the value member actually held, or zero when another member is held.
//
// A Parameter is a plain value object: it owns its Param and is not synchronised, so one
// instance is used by one thread at a time.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>

#include "tarvikdds/proto/tarvikdds_parameter.pb.h"

namespace google {
namespace protobuf {
class Message;
}  // namespace protobuf
}  // namespace google

namespace tarvik {
namespace korvan {

class Parameter {
 public:
  Parameter();
  explicit Parameter(const std::string& name);
  Parameter(const std::string& name, bool value);
  Parameter(const std::string& name, int value);
  Parameter(const std::string& name, long value);
  Parameter(const std::string& name, float value);
  Parameter(const std::string& name, double value);
  Parameter(const std::string& name, const std::string& value);
  Parameter(const std::string& name, const char* value);
  // Holds the message's type name, its serialised bytes and its descriptor string.
  Parameter(const std::string& name, const google::protobuf::Message& value);
  // A message value already in wire form: the full type name, the serialised message and the
  // descriptor string of the type, in that order.
  Parameter(const std::string& name, const std::string& type_name,
            const std::string& serialized_value, const std::string& proto_desc);
  Parameter(const Parameter& other);
  Parameter& operator=(const Parameter& other) = default;

  Param ToProtoParam() const;
  void FromProtoParam(const Param& param);

  // value<bool>(), value<long>() (any integral type), value<double>() (any floating type)
  // and value<std::string>(). The declared type decides only whether an error is logged; the
  // result comes from the value member actually set (zero, false or "" when another is).
  // Strings are also how a message value reads: its serialised bytes.
  template <typename T>
  std::enable_if_t<std::is_same<T, bool>::value, bool> value() const {
    return BoolValue();
  }
  template <typename T>
  std::enable_if_t<std::is_integral<T>::value && !std::is_same<T, bool>::value, T> value() const {
    return static_cast<T>(IntValue());
  }
  template <typename T>
  std::enable_if_t<std::is_floating_point<T>::value, T> value() const {
    return static_cast<T>(DoubleValue());
  }
  template <typename T>
  std::enable_if_t<std::is_convertible<std::string, T>::value, const std::string&> value() const {
    return StringValue();
  }

  // {name: "<name>", type: "<type name>", value: <value>}: strings and messages quoted, a
  // message printed in short text form after registering its descriptor with the factory.
  std::string DebugString() const;

 private:
  bool BoolValue() const;
  int64_t IntValue() const;
  double DoubleValue() const;
  const std::string& StringValue() const;
  // The value part of DebugString.
  std::string ValueText() const;

  Param m_param;
};

}  // namespace korvan
}  // namespace tarvik
