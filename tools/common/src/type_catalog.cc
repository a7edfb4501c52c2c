#include "korvan/tools/type_catalog.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>

#include <thread>

#include "korvan/bus/lumis_component.h"
#include "korvan/bus/type_description.h"
#include "tarvikdds/message/protobuf_factory.h"

namespace tarvik {
namespace korvan {
namespace tools {
namespace {

// Collects what a pool reports while building, for one clear line.
class CollectErrors : public google::protobuf::DescriptorPool::ErrorCollector {
 public:
  void AddError(const std::string& filename, const std::string& element,
                const google::protobuf::Message*, ErrorLocation,
                const std::string& message) override {
    if (text.empty())
      text = filename + ": " + (element.empty() ? "" : element + ": ") + message;
  }
  std::string text;
};

}  // namespace

TypeCatalog::TypeCatalog()
    : factory_(std::make_unique<google::protobuf::DynamicMessageFactory>()) {}

TypeCatalog::~TypeCatalog() {
  // Operations hold prototypes of the factory: they go first.
  inf::MutexLock lock(&mutex_);
  types_.clear();
}

const google::protobuf::Descriptor* TypeCatalog::Build(const std::string& type_name,
                                                       const std::string& descriptor_set,
                                                       std::string* problem) {
  google::protobuf::FileDescriptorSet set;
  if (!set.ParseFromString(descriptor_set)) {
    *problem = "the description of " + type_name + " is not a FileDescriptorSet";
    return nullptr;
  }
  // The shared factory first: it is where the rest of the process looks for learnt types.
  message::ProtobufFactory* shared = message::ProtobufFactory::Instance();
  // A name the factory holds already comes with another description here (the same one would
  // have been found by its fingerprint): straight to a pool of its own.
  bool all = shared != nullptr && shared->FindMessageTypeByName(type_name) == nullptr;
  for (int i = 0; all && i < set.file_size(); ++i)
    all = shared->RegisterMessage(set.file(i));
  if (all) {
    if (const auto* found = shared->FindMessageTypeByName(type_name))
      return found;
  }
  // Another description of the same files is there already: a pool of its own.
  auto pool = std::make_unique<google::protobuf::DescriptorPool>();
  CollectErrors errors;
  for (const auto& file : set.file()) {
    if (pool->BuildFileCollectingErrors(file, &errors) == nullptr) {
      *problem = "the description of " + type_name +
                 " does not build: " + (errors.text.empty() ? file.name() : errors.text);
      return nullptr;
    }
  }
  const auto* found = pool->FindMessageTypeByName(type_name);
  if (found == nullptr) {
    *problem = "the description of " + type_name + " does not declare that type";
    return nullptr;
  }
  private_pools_.push_back(std::move(pool));
  return found;
}

const DynamicType* TypeCatalog::Load(const std::string& type_name,
                                     const std::string& descriptor_set, uint64_t type_hash,
                                     std::string* problem) {
  std::string scratch;
  if (problem == nullptr)
    problem = &scratch;
  if (type_hash == 0)
    type_hash = bus::DescriptionHash(type_name, descriptor_set);
  inf::MutexLock lock(&mutex_);
  auto known = types_.find(type_hash);
  if (known != types_.end() && known->second->type_name == type_name)
    return known->second.get();
  const google::protobuf::Descriptor* descriptor = Build(type_name, descriptor_set, problem);
  if (descriptor == nullptr)
    return nullptr;
  const google::protobuf::Message* prototype = factory_->GetPrototype(descriptor);
  if (prototype == nullptr) {
    *problem = "no message can be made of " + type_name;
    return nullptr;
  }
  auto type = std::make_unique<DynamicType>();
  type->type_name = type_name;
  type->type_hash = type_hash;
  type->descriptor_set = descriptor_set;
  type->descriptor = descriptor;
  type->prototype = prototype;
  type->operations = std::make_shared<message::DynamicMessageOperations>(descriptor, prototype);
  const DynamicType* result = type.get();
  types_[type_hash] = std::move(type);
  return result;
}

const DynamicType* TypeCatalog::FromBus(const std::string& type_name, uint64_t type_hash,
                                        std::chrono::milliseconds wait, std::string* problem) {
  const auto deadline = std::chrono::steady_clock::now() + wait;
  bus::LumisComponent discovery;
  for (;;) {
    {
      inf::MutexLock lock(&mutex_);
      for (const auto& entry : types_) {
        if (entry.second->type_name == type_name && (type_hash == 0 || entry.first == type_hash))
          return entry.second.get();
      }
    }
    std::vector<bus::TypeDescription> descriptions;
    if (discovery.listTypeDescriptions(&descriptions)) {
      for (const auto& d : descriptions) {
        if (d.type_name == type_name && (type_hash == 0 || d.type_hash == type_hash))
          return Load(type_name, d.descriptor_set, d.type_hash, problem);
      }
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      if (problem != nullptr)
        *problem = "no description of " + type_name + " was seen on the bus";
      return nullptr;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

std::vector<const DynamicType*> TypeCatalog::Loaded(const std::string& type_name) const {
  inf::MutexLock lock(&mutex_);
  std::vector<const DynamicType*> found;
  for (const auto& entry : types_) {
    if (entry.second->type_name == type_name)
      found.push_back(entry.second.get());
  }
  return found;
}

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
