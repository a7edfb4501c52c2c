// The process-wide registry of protobuf message types learnt at run time.
//
// A type travels as a ProtoDesc: its file descriptor plus, recursively, every file that file
// imports, so that a receiver which was not compiled with the type can still register it,
// decode a value of it and print it. Registered files go into a private descriptor pool that
// has no underlay, which is why a registration must bring its imports along (or find them
// registered already). Message creation by name prefers the types compiled into the process
// and falls back to the registered ones.
//
// Ownership: the factory is created on first use and never destroyed; the pool only grows.
// Messages returned by GetMessageByGeneratedType and GenerateMessageByType belong to the
// caller (delete them, or hand them to a std::unique_ptr).
//
// Threads: every member may be called from any thread. Registrations are serialised by the
// factory's lock; lookups and message creation take no lock, so a lookup racing with the
// registration of the very file it looks for is not defined. Register first, then look up.
#pragma once

#include <memory>
#include <string>

#include "infra/mutex.h"

namespace google {
namespace protobuf {
class Descriptor;
class DescriptorPool;
class DynamicMessageFactory;
class FileDescriptor;
class FileDescriptorProto;
class Message;
class ServiceDescriptor;
}  // namespace protobuf
}  // namespace google

namespace tarvik {
namespace korvan {
namespace message {

class ProtoDesc;

class ProtobufFactory {
 public:
  // The single factory, created on the first call. The flag is reserved and changes nothing:
  // creation happens on first use whatever its value. Null only if that first allocation
  // failed.
  static ProtobufFactory* Instance(bool reserved = true);

  ProtobufFactory(const ProtobufFactory&) = delete;
  ProtobufFactory& operator=(const ProtobufFactory&) = delete;

  // Builds `file` into the private pool; its imports must be there already. True when the
  // pool holds the file afterwards (registering an identical file again is fine). Every
  // problem the pool reports is logged.
  bool RegisterMessage(const google::protobuf::FileDescriptorProto& file);
  // Registers the file that declares `descriptor`, without its imports.
  bool RegisterMessage(const google::protobuf::Descriptor& descriptor);
  // Registers the file that declares the message's type, without its imports.
  bool RegisterMessage(const google::protobuf::Message& message);
  // Registers the imports first (depth first, in import order), then the file itself. Stops
  // with false at the first file that does not build; files registered before it stay.
  bool RegisterMessage(const ProtoDesc& desc);
  // `desc` is a serialised ProtoDesc. Bytes that do not parse completely are not refused
  // here: whatever part parsed is registered, and the pool judges it.
  bool RegisterMessage(const std::string& desc);

  // Fills `out` with the description of `file` and all its imports. False when a file could
  // not be serialised; entries added before that stay in `out`.
  static bool GetProtoDesc(const google::protobuf::FileDescriptor* file, ProtoDesc* out);
  // Serialises the ProtoDesc of the file declaring the type into `out`.
  static void GetDescriptorString(const google::protobuf::Descriptor* descriptor, std::string* out);
  static void GetDescriptorString(const google::protobuf::Message& message, std::string* out);

  // A new, empty message of a compiled-in type, or null when `name` is not compiled in.
  google::protobuf::Message* GetMessageByGeneratedType(const std::string& name) const;
  // A new, empty message of type `name`: the compiled-in type when there is one, else the
  // registered one. Null (and an error line) when neither is known.
  google::protobuf::Message* GenerateMessageByType(const std::string& name) const;

  // Lookups in the registered types only; compiled-in types are not seen unless registered.
  const google::protobuf::Descriptor* FindMessageTypeByName(const std::string& name) const;
  const google::protobuf::ServiceDescriptor* FindServiceByName(const std::string& name) const;

  // Writes the serialised DescriptorProto of the registered message type `name` (the type
  // alone, not its file) into `out`. Leaves `out` untouched when the type is not registered.
  void GetPythonDesc(const std::string& name, std::string* out);

 private:
  ProtobufFactory();
  ~ProtobufFactory();

  inf::Mutex m_lock;  // serialises registrations; lookups read the pool without it
  // Declared before the factory built over it, so that the factory goes first.
  std::unique_ptr<google::protobuf::DescriptorPool> m_pool;
  std::unique_ptr<google::protobuf::DynamicMessageFactory> m_factory;
};

}  // namespace message
}  // namespace korvan
}  // namespace tarvik
