// The discovery component: registers this process's nodes, hands out the bus objects of
// services and clients, and lists every node and endpoint on the bus.
//
// Any number of LumisComponent objects may exist; they are views of the one running bus of
// the process, so all of them see the same nodes and objects. Every operation is
// thread-safe. Before the bus is initialised, lookups return empty handles and the list
// operations return false.
//
// Listed entities leave the lists when they are destroyed, and, when their process dies, once
// its lease expires (LumisConfig.lease_ms, 3 s by default, plus up to one second).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "korvan/bus/entity_record.h"
#include "korvan/bus/node_attr.h"
#include "korvan/bus/role_attr.h"
#include "korvan/bus/type_description.h"

namespace tarvik {
namespace korvan {
namespace bus {

// Object kinds of getObject and callObjectFunc.
inline constexpr int kObjectClient = 7;
inline constexpr int kObjectService = 8;

class LumisComponent {
 public:
  LumisComponent();
  ~LumisComponent();

  // Makes the node (name, domain) of this process known to the bus as `bus_name` for as long
  // as the returned handle lives. Empty when the bus is not initialised.
  std::shared_ptr<void> registerNode(const std::string& name, const std::string& domain,
                                     const std::string& bus_name);
  // The bus node registered as (name, domain), or empty when there is none.
  std::shared_ptr<void> lumisNode(const std::string& name, const std::string& domain);

  // Creates the bus object of a service (kObjectService) or client (kObjectClient) of `node`
  // (a lumisNode handle) from the BusParam at `param`. The object is withdrawn when the last
  // handle goes. Empty on failure (logged).
  std::shared_ptr<void> getObject(int kind, void* node, const void* param);
  // Runs `function` of a client object: "WaitForService" (param's arg points at a long, the
  // wait in milliseconds; non-empty result when a service answers) or "Call" (param's arg
  // points at a CallArgument; the result is the response, empty on time-out or failure).
  std::shared_ptr<void> callObjectFunc(int kind, const std::string& function, void* object,
                                       const void* param);

  // Every node / publisher / subscriber on the bus, this process's first.
  bool listAllNodes(std::vector<NodeAttr>* nodes);
  bool listAllPublishers(std::vector<RoleAttr>* publishers);
  bool listAllSubscribers(std::vector<RoleAttr>* subscribers);

  // Everything discovery knows, with host, process and description fingerprint: the nodes and
  // endpoints of every process, this process's first. For tools that must tell two instances
  // of one program apart.
  bool listAllEntities(std::vector<EntityRecord>* entities);
  // The type descriptions known on the bus: this process's, then one entry per distinct
  // description made known by other processes (several per type name when two processes
  // describe one name differently).
  bool listTypeDescriptions(std::vector<TypeDescription>* descriptions);
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
