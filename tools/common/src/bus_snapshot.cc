#include "korvan/tools/bus_snapshot.h"

#include <unistd.h>

#include <algorithm>
#include <thread>
#include <tuple>

#include "korvan/bus/lumis_component.h"
#include "korvan/bus/service_topics.h"

namespace tarvik {
namespace korvan {
namespace tools {
namespace {

using bus::EntityRecord;

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

EndpointRef ToEndpoint(const EntityRecord& e) {
  EndpointRef ref;
  ref.entity_id = e.entity_id;
  ref.role = e.role_type;
  ref.node_name = e.node_name;
  ref.topic = e.topic_name;
  ref.type_name = e.type_name;
  ref.type_hash = e.type_hash;
  ref.process = ProcessRef{e.app_name, e.host_name, e.process_id, e.soc_name};
  ref.history = e.history;
  ref.depth = e.depth;
  ref.durability = e.durability;
  ref.reliability = e.reliability;
  return ref;
}

NodeRef& NodeOf(std::map<std::pair<std::string, ProcessRef>, NodeRef>& nodes,
                const EndpointRef& endpoint) {
  NodeRef& node = nodes[{endpoint.node_name, endpoint.process}];
  node.name = endpoint.node_name;
  node.process = endpoint.process;
  return node;
}

}  // namespace

std::string ProcessRef::Describe() const {
  return app_name + " (host " + host_name + ", pid " + std::to_string(process_id) + ")";
}

bool ProcessRef::operator<(const ProcessRef& other) const {
  return std::tie(host_name, process_id, app_name) <
         std::tie(other.host_name, other.process_id, other.app_name);
}

bool ProcessRef::operator==(const ProcessRef& other) const {
  return host_name == other.host_name && process_id == other.process_id &&
         app_name == other.app_name;
}

std::string EndpointRef::DescribeQos() const {
  std::string text = history == 2 ? "keep-all" : "keep-last " + std::to_string(depth);
  text += reliability == 2 ? ", best-effort" : ", reliable";
  text += durability == 2 ? ", transient-local" : ", volatile";
  return text;
}

std::vector<std::string> TopicRef::TypeNames() const {
  std::vector<std::string> names;
  for (const auto* list : {&publishers, &subscribers}) {
    for (const auto& e : *list) {
      if (std::find(names.begin(), names.end(), e.type_name) == names.end())
        names.push_back(e.type_name);
    }
  }
  return names;
}

std::vector<std::pair<EndpointRef, EndpointRef>> TopicRef::Conflicts() const {
  std::vector<std::pair<EndpointRef, EndpointRef>> conflicts;
  for (size_t i = 0; i < publishers.size(); ++i) {
    for (size_t j = i + 1; j < publishers.size(); ++j) {
      const auto& a = publishers[i];
      const auto& b = publishers[j];
      if (a.type_name == b.type_name && a.type_hash != 0 && b.type_hash != 0 &&
          a.type_hash != b.type_hash) {
        conflicts.emplace_back(a, b);
      }
    }
  }
  return conflicts;
}

bool BusSnapshot::Take(BusSnapshot* out, bool include_own_process) {
  bus::LumisComponent discovery;
  std::vector<EntityRecord> entities;
  std::vector<bus::TypeDescription> types;
  if (!discovery.listAllEntities(&entities) || !discovery.listTypeDescriptions(&types))
    return false;
  *out = BusSnapshot();
  const int32_t own_pid = static_cast<int32_t>(::getpid());
  std::string own_host;
  for (const auto& e : entities) {
    if (e.process_id == own_pid && e.role_type == bus::kRoleNode) {
      own_host = e.host_name;  // this process's records come first
      break;
    }
  }
  const std::string request_suffix = bus::kServiceRequestSuffix;
  const std::string response_suffix = bus::kServiceResponseSuffix;
  std::map<std::pair<std::string, ProcessRef>, NodeRef> nodes;
  for (const auto& e : entities) {
    if (!include_own_process && e.process_id == own_pid &&
        (own_host.empty() || e.host_name == own_host)) {
      continue;
    }
    if (!out->entity_ids_.insert(e.entity_id).second)
      continue;  // listed by two transports
    EndpointRef endpoint = ToEndpoint(e);
    if (e.role_type == bus::kRoleNode) {
      NodeOf(nodes, endpoint);
      continue;
    }
    const bool publisher = e.role_type == bus::kRolePublisher;
    if (EndsWith(e.topic_name, request_suffix) || EndsWith(e.topic_name, response_suffix)) {
      const bool request = EndsWith(e.topic_name, request_suffix);
      const std::string name = e.topic_name.substr(
          0, e.topic_name.size() - (request ? request_suffix.size() : response_suffix.size()));
      ServiceRef& service = out->services[name];
      service.name = name;
      if (request)
        service.request_type = e.type_name;
      else
        service.response_type = e.type_name;
      // The server's ends carry the descriptions a call must use.
      if (request && !publisher && service.request_type_hash == 0)
        service.request_type_hash = e.type_hash;
      if (!request && publisher && service.response_type_hash == 0)
        service.response_type_hash = e.type_hash;
      // A service reads requests; a client writes them. The other channel adds nothing new.
      if (!request)
        continue;
      endpoint.topic = name;
      if (publisher) {
        endpoint.role = bus::kRoleClient;
        service.clients.push_back(endpoint);
        NodeOf(nodes, endpoint).clients.push_back(endpoint);
      } else {
        endpoint.role = bus::kRoleService;
        service.servers.push_back(endpoint);
        NodeOf(nodes, endpoint).services.push_back(endpoint);
      }
      continue;
    }
    TopicRef& topic = out->topics[e.topic_name];
    topic.name = e.topic_name;
    if (publisher) {
      topic.publishers.push_back(endpoint);
      NodeOf(nodes, endpoint).publishers.push_back(endpoint);
    } else if (e.role_type == bus::kRoleSubscriber) {
      topic.subscribers.push_back(endpoint);
      NodeOf(nodes, endpoint).subscribers.push_back(endpoint);
    }
  }
  for (auto& entry : nodes)
    out->nodes.push_back(std::move(entry.second));
  std::stable_sort(out->nodes.begin(), out->nodes.end(), [](const NodeRef& a, const NodeRef& b) {
    return std::tie(a.name, a.process) < std::tie(b.name, b.process);
  });
  std::set<uint64_t> seen;
  for (auto& t : types) {
    if (seen.insert(t.type_hash).second)
      out->types.push_back(std::move(t));
  }
  return true;
}

bool BusSnapshot::TakeSettled(BusSnapshot* out, std::chrono::milliseconds quiet,
                              std::chrono::milliseconds limit, bool include_own_process) {
  const auto start = std::chrono::steady_clock::now();
  auto changed = start;
  std::string last;
  bool any = false;
  for (;;) {
    BusSnapshot next;
    if (Take(&next, include_own_process)) {
      const std::string signature = next.Signature();
      if (!any || signature != last) {
        last = signature;
        changed = std::chrono::steady_clock::now();
      }
      *out = std::move(next);
      any = true;
    }
    const auto now = std::chrono::steady_clock::now();
    if ((any && now - changed >= quiet) || now - start >= limit)
      return any;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

std::vector<const NodeRef*> BusSnapshot::FindNodes(const std::string& name) const {
  std::vector<const NodeRef*> found;
  for (const auto& node : nodes) {
    if (node.name == name)
      found.push_back(&node);
  }
  return found;
}

const TopicRef* BusSnapshot::FindTopic(const std::string& name) const {
  auto it = topics.find(name);
  return it == topics.end() ? nullptr : &it->second;
}

const ServiceRef* BusSnapshot::FindService(const std::string& name) const {
  auto it = services.find(name);
  return it == services.end() ? nullptr : &it->second;
}

const bus::TypeDescription* BusSnapshot::FindType(const std::string& type_name,
                                                  uint64_t type_hash) const {
  for (const auto& t : types) {
    if (t.type_name == type_name && (type_hash == 0 || t.type_hash == type_hash))
      return &t;
  }
  return nullptr;
}

std::string BusSnapshot::Signature() const {
  std::string signature;
  for (const auto& id : entity_ids_)
    signature += id;
  for (const auto& t : types)
    signature += std::to_string(t.type_hash);
  return signature;
}

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
