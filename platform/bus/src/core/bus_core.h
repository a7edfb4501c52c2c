// The running bus of this process (private to the bus): its transports, its nodes and the
// discovery records of everything it created. Started by the first successful
// KorvanBusManager::initial and shared by everything created from it, so it outlives them.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "infra/mutex.h"
#include "korvan/bus/korvan_bus_config.pb.h"
#include "korvan/bus/transport.h"
#include "korvan/bus/type_description.h"

namespace google {
namespace protobuf {
class Descriptor;
}  // namespace protobuf
}  // namespace google

namespace tarvik {
namespace korvan {
namespace bus {

// Who this process is in discovery.
struct ProcessIdentity {
  std::string app_name;
  std::string soc_name;
  std::string host_name;
  int32_t process_id = 0;
};

// A node known to the bus; what lumisNode() hands out.
struct BusNode {
  std::string name;  // as given to the node's constructor
  std::string domain;
  std::string bus_name;  // the name discovery lists
  std::string entity_id;
};

class BusCore;

// Keeps an entity listed in discovery until destroyed.
class EntityRegistration {
 public:
  EntityRegistration(std::shared_ptr<BusCore> core, std::string entity_id)
      : core_(std::move(core)), entity_id_(std::move(entity_id)) {}
  ~EntityRegistration();
  const std::string& entity_id() const { return entity_id_; }

 private:
  std::shared_ptr<BusCore> core_;
  std::string entity_id_;
};

class BusCore : public std::enable_shared_from_this<BusCore> {
 public:
  // The running core, or null before the bus started.
  static std::shared_ptr<BusCore> Current();
  static void SetCurrent(std::shared_ptr<BusCore> core);

  // `network` may be null: the process then stays on the in-process transport. `config` is
  // what the bus started with; the same-host transport is made from it unless switched off.
  BusCore(const std::string& app_name, const std::string& default_transport,
          std::shared_ptr<Transport> network, const KorvanBusConfig& config = KorvanBusConfig());
  ~BusCore();

  const ProcessIdentity& identity() const { return identity_; }
  const std::string& default_transport() const { return default_transport_; }
  Transport* network() const { return network_.get(); }

  // The transports an endpoint of `config` uses: in-process first, then the same-host
  // transport (unless the entry turns shared memory off), then the network.
  std::vector<std::shared_ptr<Transport>> TransportsFor(const TopicConfig& config) const;

  // Nodes: registered for the lifetime of the returned handle.
  std::shared_ptr<BusNode> RegisterNode(const std::string& name, const std::string& domain,
                                        const std::string& bus_name);
  std::shared_ptr<BusNode> FindNode(const std::string& name, const std::string& domain) const;
  // The discovery name of the node (name, domain), or `name` when no such node exists.
  std::string BusNameOf(const std::string& name, const std::string& domain) const;

  // Lists `record` (identity and sequence filled in here) until the registration dies.
  std::unique_ptr<EntityRegistration> Announce(EntityRecord record);
  void Withdraw(const std::string& entity_id);
  // Every entity on the bus: this process's first, in creation order, then the others.
  bool ListEntities(std::vector<EntityRecord>* out) const;

  // Makes the description of `descriptor`'s type known on the bus, once per type and process,
  // and returns its fingerprint; 0 for null.
  uint64_t RegisterType(const google::protobuf::Descriptor* descriptor);
  // Every description known: this process's, then those of other processes.
  bool ListTypes(std::vector<TypeDescription>* out) const;

 private:
  ProcessIdentity identity_;
  std::string default_transport_;
  std::shared_ptr<Transport> local_;
  std::shared_ptr<Transport> same_host_;  // null when shared memory is off or unavailable
  std::shared_ptr<Transport> network_;
  std::atomic<uint64_t> sequence_{0};

  mutable inf::Mutex nodes_mutex_;
  std::map<std::pair<std::string, std::string>, std::weak_ptr<BusNode>> nodes_
      KORVAN_GUARDED_BY(nodes_mutex_);

  mutable inf::Mutex types_mutex_;
  std::map<const google::protobuf::Descriptor*, uint64_t> type_hashes_
      KORVAN_GUARDED_BY(types_mutex_);
  std::map<uint64_t, TypeDescription> own_types_ KORVAN_GUARDED_BY(types_mutex_);
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
