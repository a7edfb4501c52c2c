#include "korvan/bus/lumis_component.h"

#include "core/bus_core.h"
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

std::shared_ptr<void> LumisComponent::getObject(int, void*, const void*) {
  return nullptr;
}

std::shared_ptr<void> LumisComponent::callObjectFunc(int, const std::string&, void*, const void*) {
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

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
