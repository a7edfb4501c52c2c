#include "korvan/bus/type_description.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include <set>
#include <string>

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

using google::protobuf::FileDescriptor;

void StripJsonNames(google::protobuf::DescriptorProto* message) {
  for (auto& field : *message->mutable_field())
    field.clear_json_name();
  for (auto& field : *message->mutable_extension())
    field.clear_json_name();
  for (auto& nested : *message->mutable_nested_type())
    StripJsonNames(&nested);
}

// Dependencies first, each file once, in import order.
void AddFile(const FileDescriptor* file, std::set<std::string>* seen,
             google::protobuf::FileDescriptorSet* set) {
  if (!seen->insert(file->name()).second)
    return;
  for (int i = 0; i < file->dependency_count(); ++i)
    AddFile(file->dependency(i), seen, set);
  google::protobuf::FileDescriptorProto* proto = set->add_file();
  file->CopyTo(proto);
  proto->clear_source_code_info();
  for (auto& message : *proto->mutable_message_type())
    StripJsonNames(&message);
  for (auto& field : *proto->mutable_extension())
    field.clear_json_name();
}

}  // namespace

uint64_t DescriptionHash(const std::string& type_name, const std::string& descriptor_set) {
  // FNV-1a: stable across builds and machines, which std::hash is not. The name is mixed in
  // because the types of one file share one set.
  uint64_t hash = 14695981039346656037ULL;
  auto mix = [&hash](const std::string& text) {
    for (unsigned char c : text) {
      hash ^= c;
      hash *= 1099511628211ULL;
    }
  };
  mix(type_name);
  hash ^= 0xFF;
  hash *= 1099511628211ULL;
  mix(descriptor_set);
  return hash == 0 ? 1 : hash;
}

TypeDescription DescribeType(const google::protobuf::Descriptor* descriptor) {
  TypeDescription description;
  if (descriptor == nullptr)
    return description;
  google::protobuf::FileDescriptorSet set;
  std::set<std::string> seen;
  AddFile(descriptor->file(), &seen, &set);
  {
    google::protobuf::io::StringOutputStream stream(&description.descriptor_set);
    google::protobuf::io::CodedOutputStream coded(&stream);
    coded.SetSerializationDeterministic(true);
    set.SerializeToCodedStream(&coded);
  }
  description.type_name = descriptor->full_name();
  description.type_hash = DescriptionHash(description.type_name, description.descriptor_set);
  return description;
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
