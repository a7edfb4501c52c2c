#include "korvan/bus/korvan_bus_manager.h"

#include <atomic>
#include <cstdlib>

#include "config/bus_config.h"
#include "core/bus_core.h"
#include "core/publisher_endpoint.h"
#include "core/qos_rules.h"
#include "core/subscriber_endpoint.h"
#include "infra/env.h"
#include "korvan/bus/bus_status.h"
#include "korvan/bus/transport_factory.h"
#include "trevam/log.h"

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

constexpr char kModule[] = "korvan_bus";

std::atomic<TransportFactory*> g_factory{nullptr};

// Checks a topic entry handed to a create call and fills in every default.
bool Resolve(const TopicConfig& config, TopicConfig* resolved) {
  std::string problem =
      config.name().empty() ? "a topic needs a name" : ValidateTopicConfig(config);
  if (!problem.empty()) {
    TREVAM_ERROR(kModule) << "cannot create an endpoint: " << problem;
    return false;
  }
  *resolved = config;
  *resolved->mutable_qos() = CompleteQos(config.qos());
  if (!resolved->has_delivery_threads())
    resolved->set_delivery_threads(1);
  return true;
}

std::shared_ptr<BusCore> RunningCore(const std::string& topic) {
  std::shared_ptr<BusCore> core = BusCore::Current();
  if (!core) {
    TREVAM_ERROR(kModule) << "topic '" << topic
                          << "': the bus is not initialised (Init failed or was not called)";
  }
  return core;
}

}  // namespace

KorvanBusManager::KorvanBusManager() = default;
KorvanBusManager::~KorvanBusManager() = default;

int KorvanBusManager::initial(const std::string& config_path, const std::string& name) {
  KorvanBusConfig config;
  std::string problem;
  int status = LoadBusConfigFile(config_path, &config, &problem);
  if (status != kBusOk) {
    TREVAM_ERROR(kModule) << "bus configuration '" << config_path << "': " << problem;
    return status;
  }
  if (!name.empty() && !config.has_app_name())
    config.set_app_name(name);
  return Apply(config, "bus configuration '" + config_path + "'");
}

int KorvanBusManager::initial(KorvanBusConfig& config) {
  return Apply(config, "bus configuration from the environment");
}

int KorvanBusManager::Apply(KorvanBusConfig& config, const std::string& source) {
  std::string problem = ValidateBusConfig(config);
  std::string default_transport = config.default_transport();
  if (problem.empty() && default_transport.empty()) {
    const char* from_env = inf::Env::Current()->GetVariable("KORVAN_BUS_TRANSPORT");
    default_transport = from_env != nullptr && *from_env != '\0' ? from_env : kTransportLumis;
    if (!IsKnownTransport(default_transport)) {
      problem =
          "KORVAN_BUS_TRANSPORT '" + default_transport + "' is not a transport (lumis, local)";
    }
  }
  uint32_t domain = 0;
  if (problem.empty() && !config.lumis_config().has_domain_id())
    DomainFromEnvironment(&domain, &problem);
  if (!problem.empty()) {
    TREVAM_ERROR(kModule) << source << ": " << problem;
    return kBusConfigInvalid;
  }

  inf::MutexLock lock(&mutex_);
  if (!core_)
    core_ = BusCore::Current();  // another manager object started it
  if (!core_) {
    std::shared_ptr<Transport> network;
    if (default_transport == kTransportLumis) {
      TransportFactory* factory = g_factory.load();
      if (factory == nullptr)
        factory = TransportFactory::Default();
      network = factory->Create(config, &problem);
      if (!network) {
        TREVAM_ERROR(kModule) << source << ": " << problem;
        return kBusTransportUnavailable;
      }
    }
    core_ = std::make_shared<BusCore>(config.app_name(), default_transport, network, config);
    BusCore::SetCurrent(core_);
    TREVAM_INFO(kModule) << source << ": bus started for '" << core_->identity().app_name
                         << "', transport " << core_->default_transport();
  } else if (config.lumis_config().SerializeAsString() !=
             config_.lumis_config().SerializeAsString()) {
    TREVAM_WARNING(kModule) << source
                            << ": discovery settings differ from those the bus started with; "
                               "they apply after a restart of the process";
  }
  config_ = config;
  ++initialisations_;
  TREVAM_INFO(kModule) << source << ": " << config.topics_size() << " topic entries";
  return kBusOk;
}

bool KorvanBusManager::getTopicConfigByName(const std::string& name, const std::string& domain,
                                            TopicConfig* config) const {
  inf::MutexLock lock(&mutex_);
  for (const auto& topic : config_.topics()) {
    if (topic.name() == name && (domain.empty() || topic.partition() == domain)) {
      if (config != nullptr)
        *config = topic;
      return true;
    }
  }
  return false;
}

bool KorvanBusManager::isInitialised() const {
  inf::MutexLock lock(&mutex_);
  return initialisations_ > 0;
}

KorvanBusConfig KorvanBusManager::config() const {
  inf::MutexLock lock(&mutex_);
  return config_;
}

int KorvanBusManager::initialisations() const {
  inf::MutexLock lock(&mutex_);
  return initialisations_;
}

std::shared_ptr<PublisherStrategy> KorvanBusManager::createPublisherStrategy(
    const TopicConfig& config, std::shared_ptr<korvan_message_interface> operations) {
  std::shared_ptr<BusCore> core = RunningCore(config.name());
  TopicConfig resolved;
  if (!core || !operations || !Resolve(config, &resolved))
    return nullptr;
  return PublisherEndpoint::Create(core, resolved, std::move(operations));
}

std::shared_ptr<SubscriberStrategy> KorvanBusManager::createSubscriberStrategy(
    const TopicConfig& config, std::shared_ptr<korvan_message_interface> operations,
    SubscriberStrategy::MessageCallback callback, SubscriberStrategy::Allocator allocator,
    SubscriberStrategy::Deallocator deallocator) {
  std::shared_ptr<BusCore> core = RunningCore(config.name());
  TopicConfig resolved;
  if (!core || !operations || !Resolve(config, &resolved))
    return nullptr;
  return SubscriberEndpoint::Create(core, resolved, std::move(operations), std::move(callback),
                                    std::move(allocator), std::move(deallocator));
}

void KorvanBusManager::SetTransportFactory(TransportFactory* factory) {
  g_factory.store(factory);
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
