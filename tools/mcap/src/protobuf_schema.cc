#include "korvan/mcap/protobuf_schema.h"

#include <set>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>

namespace tarvik::korvan::mcap {

namespace {

namespace pb = google::protobuf;

// Depth first, so that every file comes after the files it imports.
void AddFile(const pb::FileDescriptor* file, std::set<const pb::FileDescriptor*>* seen,
             pb::FileDescriptorSet* set) {
  if (!seen->insert(file).second)
    return;
  for (int i = 0; i < file->dependency_count(); ++i)
    AddFile(file->dependency(i), seen, set);
  file->CopyTo(set->add_file());
}

}  // namespace

std::string ProtobufFileDescriptorSet(const pb::Descriptor* type) {
  pb::FileDescriptorSet set;
  std::set<const pb::FileDescriptor*> seen;
  AddFile(type->file(), &seen, &set);
  return set.SerializeAsString();
}

Schema ProtobufSchema(const pb::Descriptor* type) {
  Schema schema;
  schema.name = type->full_name();
  schema.encoding = kProtobufEncoding;
  schema.data = ProtobufFileDescriptorSet(type);
  return schema;
}

}  // namespace tarvik::korvan::mcap
