#include "korvan/bus/lumis_component.h"

#include "core/bus_core.h"
#include "core/service_objects.h"
#include "korvan/bus/bus_param.h"
#include "trevam/log.h"

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

constexpr char kModule[] = "korvan_bus";

bool ListRoles(int32_t role_type, std::vector<RoleAttr>* out) {
  std::shared_ptr<BusCore> core = BusCore::Current();
  std::vector<EntityRecord> entities;
  if (!core || out == nullptr || !core->ListEntities(&entities))
    return false;
  for (const auto& e : entities) {
    if (e.role_type != role_type)
      continue;
    out->push_back(
        RoleAttr{e.app_name, e.soc_name, e.node_name, e.role_type, e.topic_name, e.type_name});
  }
  return true;
}

}  // namespace

LumisComponent::LumisComponent() = default;
LumisComponent::~LumisComponent() = default;

std::shared_ptr<void> LumisComponent::registerNode(const std::string& name,
                                                   const std::string& domain,
                                                   const std::string& bus_name) {
  std::shared_ptr<BusCore> core = BusCore::Current();
  if (!core) {
    TREVAM_WARNING(kModule) << "node '" << bus_name
                            << "' is not announced: the bus is not initialised";
    return nullptr;
  }
  return core->RegisterNode(name, domain, bus_name);
}

std::shared_ptr<void> LumisComponent::lumisNode(const std::string& name,
                                                const std::string& domain) {
  std::shared_ptr<BusCore> core = BusCore::Current();
  return core ? core->FindNode(name, domain) : nullptr;
}

std::shared_ptr<void> LumisComponent::getObject(int kind, void* node, const void* param) {
  std::shared_ptr<BusCore> core = BusCore::Current();
  if (!core || node == nullptr || param == nullptr) {
    TREVAM_ERROR(kModule) << "getObject(" << kind << "): "
                          << (!core ? "the bus is not initialised" : "no node or no record");
    return nullptr;
  }
  const auto& bus_node = *static_cast<const BusNode*>(node);
  const auto& record = *static_cast<const BusParam*>(param);
  switch (kind) {
    case kObjectService:
      return ServiceObject::Create(core, bus_node, record);
    case kObjectClient:
      return ClientObject::Create(core, bus_node, record);
    default:
      TREVAM_ERROR(kModule) << "getObject: unknown object kind " << kind;
      return nullptr;
  }
}

std::shared_ptr<void> LumisComponent::callObjectFunc(int kind, const std::string& function,
                                                     void* object, const void* param) {
  if (kind != kObjectClient || object == nullptr || param == nullptr) {
    TREVAM_ERROR(kModule) << "callObjectFunc(" << kind << ", " << function
                          << "): only client objects with a record take calls";
    return nullptr;
  }
  auto* client = static_cast<ClientObject*>(object);
  const void* arg = static_cast<const BusParam*>(param)->arg;
  if (function == "WaitForService" && arg != nullptr) {
    return client->WaitForService(*static_cast<const long*>(arg));
  }
  if (function == "Call" && arg != nullptr) {
    return client->Call(*static_cast<const CallArgument*>(arg));
  }
  TREVAM_ERROR(kModule) << "callObjectFunc: unknown function '" << function
                        << "' or missing argument";
  return nullptr;
}

bool LumisComponent::listAllNodes(std::vector<NodeAttr>* nodes) {
  std::shared_ptr<BusCore> core = BusCore::Current();
  std::vector<EntityRecord> entities;
  if (!core || nodes == nullptr || !core->ListEntities(&entities))
    return false;
  for (const auto& e : entities) {
    if (e.role_type != kRoleNode)
      continue;
    nodes->push_back(NodeAttr{e.app_name, e.soc_name, e.node_name, e.host_name, e.process_id});
  }
  return true;
}

bool LumisComponent::listAllPublishers(std::vector<RoleAttr>* publishers) {
  return ListRoles(kRolePublisher, publishers);
}

bool LumisComponent::listAllSubscribers(std::vector<RoleAttr>* subscribers) {
  return ListRoles(kRoleSubscriber, subscribers);
}

bool LumisComponent::listAllEntities(std::vector<EntityRecord>* entities) {
  std::shared_ptr<BusCore> core = BusCore::Current();
  return core && entities != nullptr && core->ListEntities(entities);
}

bool LumisComponent::listTypeDescriptions(std::vector<TypeDescription>* descriptions) {
  std::shared_ptr<BusCore> core = BusCore::Current();
  return core && descriptions != nullptr && core->ListTypes(descriptions);
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
