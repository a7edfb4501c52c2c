// A picture of the bus taken from discovery, for tools: every node, topic and service, with
// the process each endpoint runs in (application, host, process id, so two instances of one
// program are told apart), its type, the fingerprint of the type's description and its QoS.
//
// A snapshot is a plain value: take one, read it on any thread, take another to refresh.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "korvan/bus/entity_record.h"
#include "korvan/bus/type_description.h"

namespace tarvik {
namespace korvan {
namespace tools {

struct ProcessRef {
  std::string app_name;
  std::string host_name;
  int32_t process_id = 0;
  std::string soc_name;

  // "app (host h, pid p)"
  std::string Describe() const;
  bool operator<(const ProcessRef& other) const;
  bool operator==(const ProcessRef& other) const;
};

struct EndpointRef {
  std::string entity_id;
  int32_t role = 0;  // bus::RoleType
  std::string node_name;
  std::string topic;  // for services and clients: the service name
  std::string type_name;
  uint64_t type_hash = 0;
  ProcessRef process;
  int32_t history = 0;  // QoS numbers of the bus configuration
  int32_t depth = 0;
  int32_t durability = 0;
  int32_t reliability = 0;

  // "keep-last 10, reliable, volatile"
  std::string DescribeQos() const;
};

struct NodeRef {
  std::string name;  // the node's bus name
  ProcessRef process;
  std::vector<EndpointRef> publishers;
  std::vector<EndpointRef> subscribers;
  std::vector<EndpointRef> services;
  std::vector<EndpointRef> clients;
};

struct TopicRef {
  std::string name;
  std::vector<EndpointRef> publishers;
  std::vector<EndpointRef> subscribers;

  // Distinct type names used on the topic (publishers first).
  std::vector<std::string> TypeNames() const;
  // Publishers that send the same type name with different descriptions, as pairs.
  std::vector<std::pair<EndpointRef, EndpointRef>> Conflicts() const;
};

struct ServiceRef {
  std::string name;
  std::string request_type;
  std::string response_type;
  // Fingerprints of the descriptions the servers read requests and write responses with
  // (0 when not known).
  uint64_t request_type_hash = 0;
  uint64_t response_type_hash = 0;
  std::vector<EndpointRef> servers;  // one entry per serving process and node
  std::vector<EndpointRef> clients;
};

class BusSnapshot {
 public:
  // Reads discovery now. The calling process's own entities are left out unless
  // `include_own_process`. False when the bus is not running or cannot be read.
  static bool Take(BusSnapshot* out, bool include_own_process = false);
  // Takes snapshots until nothing changed for `quiet` (discovery has settled) or `limit`
  // passed; a tool that just joined the bus sees the others only after a moment.
  static bool TakeSettled(BusSnapshot* out, std::chrono::milliseconds quiet,
                          std::chrono::milliseconds limit, bool include_own_process = false);

  std::vector<NodeRef> nodes;              // by name, then process
  std::map<std::string, TopicRef> topics;  // plain topics (service channels excluded)
  std::map<std::string, ServiceRef> services;
  std::vector<bus::TypeDescription> types;  // every description known, one per fingerprint

  std::vector<const NodeRef*> FindNodes(const std::string& name) const;
  const TopicRef* FindTopic(const std::string& name) const;
  const ServiceRef* FindService(const std::string& name) const;
  // The description with this fingerprint, or (hash 0) the first one of `type_name`.
  const bus::TypeDescription* FindType(const std::string& type_name, uint64_t type_hash) const;

  // A value that changes whenever an entity comes or goes.
  std::string Signature() const;

 private:
  std::set<std::string> entity_ids_;
};

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
