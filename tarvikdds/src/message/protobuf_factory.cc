#include "tarvikdds/message/protobuf_factory.h"

#include <new>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/message.h>

#include "tarvikdds/detail/logging.h"
#include "tarvikdds/message/error_collector.h"
#include "tarvikdds/proto/proto_desc.pb.h"

namespace tarvik {
namespace korvan {
namespace message {

namespace pb = google::protobuf;

ProtobufFactory* ProtobufFactory::Instance(bool /*reserved*/) {
  static std::once_flag once;
  static ProtobufFactory* instance = nullptr;
  // Never deleted: messages handed out may outlive any static destruction order.
  std::call_once(once, [] { instance = new (std::nothrow) ProtobufFactory(); });
  return instance;
}

ProtobufFactory::ProtobufFactory()
    : m_pool(std::make_unique<pb::DescriptorPool>()),
      m_factory(std::make_unique<pb::DynamicMessageFactory>(m_pool.get())) {}

ProtobufFactory::~ProtobufFactory() = default;

bool ProtobufFactory::RegisterMessage(const pb::FileDescriptorProto& file) {
  ErrorCollector errors;
  inf::MutexLock lock(&m_lock);
  return m_pool->BuildFileCollectingErrors(file, &errors) != nullptr;
}

bool ProtobufFactory::RegisterMessage(const pb::Descriptor& descriptor) {
  pb::FileDescriptorProto file;
  descriptor.file()->CopyTo(&file);
  return RegisterMessage(file);
}

bool ProtobufFactory::RegisterMessage(const pb::Message& message) {
  return RegisterMessage(*message.GetDescriptor());
}

bool ProtobufFactory::RegisterMessage(const ProtoDesc& desc) {
  for (const ProtoDesc& dependency : desc.dependencies()) {
    if (!RegisterMessage(dependency))
      return false;
  }
  pb::FileDescriptorProto file;
  file.ParseFromString(desc.desc());  // the pool, not the parser, decides what is usable
  return RegisterMessage(file);
}

bool ProtobufFactory::RegisterMessage(const std::string& desc) {
  ProtoDesc parsed;
  parsed.ParseFromString(desc);  // what did parse is still worth a try
  return RegisterMessage(parsed);
}

bool ProtobufFactory::GetProtoDesc(const pb::FileDescriptor* file, ProtoDesc* out) {
  if (file == nullptr || out == nullptr)
    return false;
  pb::FileDescriptorProto proto;
  file->CopyTo(&proto);
  if (!proto.SerializeToString(out->mutable_desc()))
    return false;
  // A file imported along two paths is described twice: each entry stays self-contained.
  for (int i = 0; i < file->dependency_count(); ++i) {
    if (!GetProtoDesc(file->dependency(i), out->add_dependencies()))
      return false;
  }
  return true;
}

void ProtobufFactory::GetDescriptorString(const pb::Descriptor* descriptor, std::string* out) {
  ProtoDesc desc;
  if (descriptor == nullptr || out == nullptr || !GetProtoDesc(descriptor->file(), &desc) ||
      !desc.SerializeToString(out)) {
    KORVAN_LOG_ERROR << "Failed to get descriptor from message";
  }
}

void ProtobufFactory::GetDescriptorString(const pb::Message& message, std::string* out) {
  GetDescriptorString(message.GetDescriptor(), out);
}

pb::Message* ProtobufFactory::GetMessageByGeneratedType(const std::string& name) const {
  const pb::Descriptor* descriptor =
      pb::DescriptorPool::generated_pool()->FindMessageTypeByName(name);
  if (descriptor == nullptr)
    return nullptr;
  const pb::Message* prototype = pb::MessageFactory::generated_factory()->GetPrototype(descriptor);
  return prototype != nullptr ? prototype->New() : nullptr;
}

pb::Message* ProtobufFactory::GenerateMessageByType(const std::string& name) const {
  if (pb::Message* generated = GetMessageByGeneratedType(name))
    return generated;
  const pb::Descriptor* descriptor = m_pool->FindMessageTypeByName(name);
  if (descriptor == nullptr) {
    KORVAN_LOG_ERROR << "cannot find [" << name << "] descriptor";
    return nullptr;
  }
  const pb::Message* prototype = m_factory->GetPrototype(descriptor);
  if (prototype == nullptr) {
    KORVAN_LOG_ERROR << "cannot find [" << name << "] prototype";
    return nullptr;
  }
  return prototype->New();
}

const pb::Descriptor* ProtobufFactory::FindMessageTypeByName(const std::string& name) const {
  return m_pool->FindMessageTypeByName(name);
}

const pb::ServiceDescriptor* ProtobufFactory::FindServiceByName(const std::string& name) const {
  return m_pool->FindServiceByName(name);
}

void ProtobufFactory::GetPythonDesc(const std::string& name, std::string* out) {
  const pb::Descriptor* descriptor = m_pool->FindMessageTypeByName(name);
  if (descriptor == nullptr || out == nullptr)
    return;
  pb::DescriptorProto proto;
  descriptor->CopyTo(&proto);
  proto.SerializeToString(out);
}

}  // namespace message
}  // namespace korvan
}  // namespace tarvik
