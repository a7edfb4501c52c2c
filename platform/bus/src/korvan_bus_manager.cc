#include "korvan/bus/korvan_bus_manager.h"

#include "config/bus_config.h"
#include "korvan/bus/bus_status.h"
#include "trevam/log.h"

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

constexpr char kModule[] = "korvan_bus";

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
  if (!problem.empty()) {
    TREVAM_ERROR(kModule) << source << ": " << problem;
    return kBusConfigInvalid;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  config_ = config;
  ++initialisations_;
  TREVAM_INFO(kModule) << source << ": loaded, " << config.topics_size() << " topic entries";
  return kBusOk;
}

bool KorvanBusManager::getTopicConfigByName(const std::string& name, const std::string& domain,
                                            TopicConfig* config) const {
  std::lock_guard<std::mutex> lock(mutex_);
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
  std::lock_guard<std::mutex> lock(mutex_);
  return initialisations_ > 0;
}

KorvanBusConfig KorvanBusManager::config() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return config_;
}

int KorvanBusManager::initialisations() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return initialisations_;
}

std::shared_ptr<PublisherStrategy> KorvanBusManager::createPublisherStrategy(
    const TopicConfig&, std::shared_ptr<korvan_message_interface>) {
  return nullptr;
}

std::shared_ptr<SubscriberStrategy> KorvanBusManager::createSubscriberStrategy(
    const TopicConfig&, std::shared_ptr<korvan_message_interface>,
    SubscriberStrategy::MessageCallback, SubscriberStrategy::Allocator,
    SubscriberStrategy::Deallocator) {
  return nullptr;
}

void KorvanBusManager::SetTransportFactory(TransportFactory*) {}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
