// One node or endpoint as discovery knows it.
#pragma once

#include <cstdint>
#include <string>

namespace tarvik {
namespace korvan {
namespace bus {

// Role numbers as listed by discovery.
enum RoleType : int32_t {
  kRoleUnknown = 0,
  kRolePublisher = 1,
  kRoleSubscriber = 2,
  kRoleService = 3,
  kRoleClient = 4,
  kRoleNode = 5,
};

struct EntityRecord {
  std::string entity_id;  // unique on the bus (a UUID)
  int32_t role_type = kRoleUnknown;
  std::string app_name;    // the process's application name
  std::string soc_name;    // the chip index of the process, in decimal
  std::string node_name;   // the node's bus name (empty for endpoints without a node)
  std::string topic_name;  // endpoints: the topic as the application named it
  std::string type_name;   // endpoints: full protobuf type name
  std::string host_name;
  int32_t process_id = 0;
  uint64_t sequence = 0;   // creation order within its process
  uint64_t type_hash = 0;  // endpoints: fingerprint of the type's description, 0 if unknown
  // Endpoints: their QoS, in the numbers of the bus configuration (korvan_bus_config.proto).
  int32_t history = 0;
  int32_t depth = 0;
  int32_t durability = 0;
  int32_t reliability = 0;
  // Publishers: where readers on the same host find the writer's shared memory; empty when
  // it offers none.
  std::string shared_memory;
};

// A 64-bit key of an endpoint's discovery id (FNV-1a), carried with every sample so that a
// reader can tell the writers apart without their 36-character ids.
inline uint64_t WriterKey(const std::string& entity_id) {
  uint64_t hash = 14695981039346656037ull;
  for (unsigned char c : entity_id) {
    hash ^= c;
    hash *= 1099511628211ull;
  }
  return hash == 0 ? 1 : hash;
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
