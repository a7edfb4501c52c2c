#include "tarvikdds/messaging/dds_node.h"

#include <map>
#include <unordered_map>

#include "detail/registry_lock.h"
#include "infra/system_info.h"
#include "korvan/bus/lumis_component.h"
#include "korvan/bus/singleton.h"
#include "tarvikdds/application/init.h"
#include "tarvikdds/detail/location.h"
#include "tarvikdds/detail/logging.h"

namespace tarvik {
namespace quessa {
namespace {

using detail::RegistryLock;
using detail::RegistryReadLock;
using detail::RegistryWriteLock;

RegistryLock s_registryLock;
// Creation index of each node, by domain and name.
std::unordered_map<std::string, std::unordered_map<std::string, uint64_t>> s_registry
    KORVAN_GUARDED_BY(s_registryLock);
uint64_t s_counter KORVAN_GUARDED_BY(s_registryLock) = 0;
// The nodes by creation index.
std::map<uint64_t, Node*> s_auxiliary KORVAN_GUARDED_BY(s_registryLock);

}  // namespace

Node::Node(const std::string& name, const std::string& domain) : name_(name), domain_(domain) {
  tarvikdds::Init("");
  {
    RegistryWriteLock lock(s_registryLock, "node registry");
    auto& names = s_registry[domain];
    if (names.count(name) != 0) {
      // The text has always said line 301; log scrapers match on it.
      TARVIKDDS_THROW_AT("Node", 301, "Dup node exists: " + name + ", " + domain);
    }
    node_name_ = name;
    const uint32_t soc = tarvikdds::GetCurrentSOC();
    if (soc != 0)
      node_name_ += "_S" + std::to_string(soc);
    KORVAN_LOG_INFO << "[timeline] Creating node " << name << "with nodeName: " << node_name_;
    names[name] = s_counter;
    s_auxiliary[s_counter] = this;
    ++s_counter;
    KORVAN_LOG_INFO << "Created node " << name << " in domaine " << domain;
  }
  bus_registration_ =
      korvan::utils::Singleton<korvan::bus::LumisComponent>::Instance()->registerNode(
          name_, domain_, node_name_);
}

Node::~Node() {
  RegistryWriteLock lock(s_registryLock, "node registry");
  KORVAN_LOG_INFO << "Destructing node " << name_;
  auto domain = s_registry.find(domain_);
  if (domain == s_registry.end())
    return;
  auto entry = domain->second.find(name_);
  if (entry == domain->second.end())
    return;
  s_auxiliary.erase(entry->second);
  domain->second.erase(entry);
}

std::unique_ptr<Node> Node::CreateNode(const std::string& name, const std::string& domain) {
  return std::make_unique<Node>(name, domain);
}

Node* Node::GetNode(const std::string& name, const std::string& domain) {
  RegistryReadLock lock(s_registryLock, "node registry");
  auto names = s_registry.find(domain);
  if (names == s_registry.end())
    return nullptr;
  auto entry = names->second.find(name);
  if (entry == names->second.end())
    return nullptr;
  // Both maps change together under the write lock: a registered name has its node.
  auto node = s_auxiliary.find(entry->second);
  return node == s_auxiliary.end() ? nullptr : node->second;
}

uint32_t Node::GetNodeCount() {
  RegistryReadLock lock(s_registryLock, "node registry");
  return static_cast<uint32_t>(s_auxiliary.size());
}

Node* Node::GetNodeAt(uint32_t i) {
  RegistryReadLock lock(s_registryLock, "node registry");
  auto it = s_auxiliary.begin();
  std::advance(it, i);
  return it->second;
}

}  // namespace quessa
}  // namespace tarvik
