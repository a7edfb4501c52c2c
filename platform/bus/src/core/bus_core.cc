#include "core/bus_core.h"

#include <unistd.h>

#include <cstdlib>

#include "config/bus_config.h"
#include "infra/env.h"
#include "infra/global_data.h"
#include "infra/system_info.h"
#include "korvan/bus/transport_registry.h"
#include "trevam/log.h"

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

inf::Mutex g_current_mutex;
std::shared_ptr<BusCore> g_current KORVAN_GUARDED_BY(g_current_mutex);

std::string HostName() {
  std::string host;
  if (!inf::Env::Current()->HostName(&host))
    return "unknown";
  return host;
}

}  // namespace

EntityRegistration::~EntityRegistration() {
  core_->Withdraw(entity_id_);
}

std::shared_ptr<BusCore> BusCore::Current() {
  inf::MutexLock lock(&g_current_mutex);
  return g_current;
}

void BusCore::SetCurrent(std::shared_ptr<BusCore> core) {
  inf::MutexLock lock(&g_current_mutex);
  g_current = std::move(core);
}

BusCore::BusCore(const std::string& app_name, const std::string& default_transport,
                 std::shared_ptr<Transport> network, const KorvanBusConfig& config)
    : default_transport_(network ? default_transport : std::string(kTransportLocal)),
      network_(std::move(network)) {
  TransportContext context;
  context.config = &config;
  std::string problem;
  local_ = MakeTransport(kInProcessTransport, context, &problem);
  if (!local_) {
    TREVAM_ERROR("korvan_bus") << "cannot make the in-process transport: " << problem;
    std::abort();  // the library is built without it: nothing can work
  }
  if (network_) {
    // Shared memory serves readers of other processes that the network transport finds.
    context.network = network_;
    problem.clear();
    same_host_ = MakeTransport(kSharedMemoryTransport, context, &problem);
    if (!same_host_ && !problem.empty()) {
      TREVAM_WARNING("korvan_bus") << "shared memory is not used, every process is reached over "
                                      "the network: "
                                   << problem;
    }
  }
  // The configured name, else KORVAN_APP_NAME (several instances of one program), else the
  // program's name.
  const char* from_env = inf::Env::Current()->GetVariable("KORVAN_APP_NAME");
  if (!app_name.empty()) {
    identity_.app_name = app_name;
  } else if (from_env != nullptr && *from_env != '\0') {
    identity_.app_name = from_env;
  } else {
    identity_.app_name = quessa::tarvikdds::GetCurrentEXE();
  }
  identity_.soc_name = std::to_string(quessa::tarvikdds::GetCurrentSOC());
  identity_.host_name = HostName();
  identity_.process_id = static_cast<int32_t>(::getpid());
}

BusCore::~BusCore() = default;

std::vector<std::shared_ptr<Transport>> BusCore::TransportsFor(const TopicConfig& config) const {
  std::vector<std::shared_ptr<Transport>> transports{local_};
  const std::string& transport = config.transport();
  const std::string& chosen =
      (transport.empty() || transport == kTransportLumis) ? default_transport_ : transport;
  if (chosen == kTransportLumis && network_) {
    if (same_host_ && (!config.has_shared_memory() || config.shared_memory()))
      transports.push_back(same_host_);
    transports.push_back(network_);
  }
  return transports;
}

std::shared_ptr<BusNode> BusCore::RegisterNode(const std::string& name, const std::string& domain,
                                               const std::string& bus_name) {
  EntityRecord record;
  record.entity_id = common::GlobalData::GenerateUUID();
  record.role_type = kRoleNode;
  record.node_name = bus_name;
  std::shared_ptr<EntityRegistration> registration = Announce(record);
  auto* node = new BusNode{name, domain, bus_name, record.entity_id};
  // The handle keeps the node listed; the registry only remembers it.
  std::shared_ptr<BusNode> handle(node, [registration](BusNode* n) { delete n; });
  inf::MutexLock lock(&nodes_mutex_);
  nodes_[{name, domain}] = handle;
  return handle;
}

std::shared_ptr<BusNode> BusCore::FindNode(const std::string& name,
                                           const std::string& domain) const {
  inf::MutexLock lock(&nodes_mutex_);
  auto it = nodes_.find({name, domain});
  return it == nodes_.end() ? nullptr : it->second.lock();
}

std::string BusCore::BusNameOf(const std::string& name, const std::string& domain) const {
  std::shared_ptr<BusNode> node = FindNode(name, domain);
  return node ? node->bus_name : name;
}

std::unique_ptr<EntityRegistration> BusCore::Announce(EntityRecord record) {
  record.app_name = identity_.app_name;
  record.soc_name = identity_.soc_name;
  record.host_name = identity_.host_name;
  record.process_id = identity_.process_id;
  record.sequence = sequence_.fetch_add(1) + 1;
  local_->Announce(record);
  if (network_)
    network_->Announce(record);
  return std::make_unique<EntityRegistration>(shared_from_this(), record.entity_id);
}

void BusCore::Withdraw(const std::string& entity_id) {
  local_->Withdraw(entity_id);
  if (network_)
    network_->Withdraw(entity_id);
}

uint64_t BusCore::RegisterType(const google::protobuf::Descriptor* descriptor) {
  if (descriptor == nullptr)
    return 0;
  {
    inf::MutexLock lock(&types_mutex_);
    auto known = type_hashes_.find(descriptor);
    if (known != type_hashes_.end())
      return known->second;
  }
  // Described outside the lock: building the set walks every imported file.
  TypeDescription description = DescribeType(descriptor);
  description.app_name = identity_.app_name;
  description.host_name = identity_.host_name;
  description.process_id = identity_.process_id;
  bool announce = false;
  {
    inf::MutexLock lock(&types_mutex_);
    type_hashes_.emplace(descriptor, description.type_hash);
    announce = own_types_.emplace(description.type_hash, description).second;
  }
  if (announce && network_)
    network_->AnnounceType(description);
  return description.type_hash;
}

bool BusCore::ListTypes(std::vector<TypeDescription>* out) const {
  {
    inf::MutexLock lock(&types_mutex_);
    for (const auto& entry : own_types_)
      out->push_back(entry.second);
  }
  return !network_ || network_->ListTypes(out);
}

bool BusCore::ListEntities(std::vector<EntityRecord>* out) const {
  if (!local_->ListEntities(out))
    return false;
  return !network_ || network_->ListEntities(out);
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
