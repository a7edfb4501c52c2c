// Arbitrary bytes as a serialised descriptor tree: registering must answer true or false,
// and creating or describing any type the bytes name must not crash. The factory is one per
// process, so files registered by earlier inputs stay and later inputs may build on them.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.pb.h>

#include "quiet_logs.h"
#include "tarvikdds/message/protobuf_factory.h"
#include "tarvikdds/proto/proto_desc.pb.h"

namespace {

namespace pb = google::protobuf;
using tarvik::korvan::message::ProtobufFactory;
using tarvik::korvan::message::ProtoDesc;

// Bounds the work per input: a tree may name thousands of types.
constexpr size_t kMaxNames = 64;

void AddTypeNames(const std::string& scope, const pb::DescriptorProto& type,
                  std::vector<std::string>* names) {
  if (names->size() >= kMaxNames)
    return;
  std::string name = scope.empty() ? type.name() : scope + "." + type.name();
  names->push_back(name);
  for (const auto& nested : type.nested_type())
    AddTypeNames(name, nested, names);
}

void CollectTypeNames(const ProtoDesc& desc, std::vector<std::string>* names) {
  for (const ProtoDesc& dependency : desc.dependencies())
    CollectTypeNames(dependency, names);
  pb::FileDescriptorProto file;
  file.ParseFromString(desc.desc());
  for (const auto& type : file.message_type())
    AddTypeNames(file.package(), type, names);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  korvan_fuzz::QuietLogs();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ProtobufFactory* factory = ProtobufFactory::Instance();
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  factory->RegisterMessage(bytes);

  ProtoDesc desc;
  desc.ParseFromString(bytes);
  std::vector<std::string> names;
  CollectTypeNames(desc, &names);
  for (const std::string& name : names) {
    std::unique_ptr<pb::Message> message(factory->GenerateMessageByType(name));
    if (message) {
      // The input doubles as a value of the new type: reaches its parser and printer.
      message->ParseFromString(bytes);
      message->ShortDebugString();
    }
    std::string python_desc;
    factory->GetPythonDesc(name, &python_desc);
    if (const pb::Descriptor* descriptor = factory->FindMessageTypeByName(name)) {
      std::string again;
      ProtobufFactory::GetDescriptorString(descriptor, &again);
    }
  }
  return 0;
}
