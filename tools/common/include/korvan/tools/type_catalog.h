// The message types a tool decodes and encodes without having been compiled with them:
// built from the descriptions that travel with the bus, or from a file's schemas.
//
// Descriptions go into the process's ProtobufFactory. A second, different description of a
// type name that the factory already holds (two programs that disagree) gets a private pool of
// its own, so each sample is decoded with the description it was written with.
//
// Types live as long as the catalog. All members are thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "infra/mutex.h"
#include "tarvikdds/message/dynamic_message_operations.h"

namespace google {
namespace protobuf {
class Descriptor;
class DescriptorPool;
class DynamicMessageFactory;
class Message;
}  // namespace protobuf
}  // namespace google

namespace tarvik {
namespace korvan {
namespace tools {

struct DynamicType {
  std::string type_name;
  uint64_t type_hash = 0;
  std::string descriptor_set;  // serialised FileDescriptorSet it was built from
  const google::protobuf::Descriptor* descriptor = nullptr;
  const google::protobuf::Message* prototype = nullptr;  // owned by the catalog
  std::shared_ptr<message::DynamicMessageOperations> operations;
};

class TypeCatalog {
 public:
  TypeCatalog();
  ~TypeCatalog();
  TypeCatalog(const TypeCatalog&) = delete;
  TypeCatalog& operator=(const TypeCatalog&) = delete;

  // Builds `type_name` from a serialised FileDescriptorSet. `type_hash` keys it (0: the
  // fingerprint of the set). Null with `problem` ("the description of x does not build: ...")
  // when the set does not parse, does not build or lacks the type.
  const DynamicType* Load(const std::string& type_name, const std::string& descriptor_set,
                          uint64_t type_hash, std::string* problem);
  // The type with this fingerprint (0: any description of the name) as described on the bus,
  // waiting up to `wait` for the description to be seen.
  const DynamicType* FromBus(const std::string& type_name, uint64_t type_hash,
                             std::chrono::milliseconds wait, std::string* problem);
  // Types loaded so far with this name.
  std::vector<const DynamicType*> Loaded(const std::string& type_name) const;

 private:
  const google::protobuf::Descriptor* Build(const std::string& type_name,
                                            const std::string& descriptor_set, std::string* problem)
      KORVAN_REQUIRES(mutex_);

  mutable inf::Mutex mutex_;
  std::map<uint64_t, std::unique_ptr<DynamicType>> types_ KORVAN_GUARDED_BY(mutex_);
  std::vector<std::unique_ptr<google::protobuf::DescriptorPool>> private_pools_
      KORVAN_GUARDED_BY(mutex_);
  std::unique_ptr<google::protobuf::DynamicMessageFactory> factory_;
};

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
