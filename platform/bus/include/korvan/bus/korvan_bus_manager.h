// The bus manager: loads the bus configuration, starts the transports, and creates the
// publishing and subscribing strategies that carry typed messages.
//
// One per process, through utils::Singleton<KorvanBusManager>::Instance(); it lives until the
// static destructors run at process exit. All operations are thread-safe.
//
// Initialisation comes in two forms: from a JSON configuration file (the file named by
// KORVAN_BUS_CONFIG_PATH; schema in korvan_bus_config.proto) or from a configuration message
// (the runtime builds one from LUMIS_IP, LUMIS_LOCATOR_IP and LUMIS_PORT). Both return 0 on
// success and a BusStatus otherwise, after logging one line that names the problem.
// The first successful initialisation starts the transports (DDS unless the default transport
// is "local": KorvanBusConfig.default_transport, else KORVAN_BUS_TRANSPORT, else "lumis");
// initialising again keeps them running and only takes over the topic entries.
#pragma once

#include <memory>
#include <string>

#include "infra/mutex.h"
#include "korvan/bus/korvan_bus_config.pb.h"
#include "korvan/bus/korvan_message_interface.h"
#include "korvan/bus/publisher_strategy.h"
#include "korvan/bus/subscriber_strategy.h"

namespace tarvik {
namespace korvan {
namespace bus {

class BusCore;
class TransportFactory;

class KorvanBusManager {
 public:
  KorvanBusManager();
  ~KorvanBusManager();
  KorvanBusManager(const KorvanBusManager&) = delete;
  KorvanBusManager& operator=(const KorvanBusManager&) = delete;

  // Loads the JSON configuration at `config_path`. A non-empty `name` is the application
  // name under which this process appears in discovery.
  int initial(const std::string& config_path, const std::string& name);
  // Uses `config` as it is.
  int initial(KorvanBusConfig& config);

  // The configured entry for topic `name` (and partition `domain`, empty for any). False and
  // `config` untouched when the topic has no entry.
  bool getTopicConfigByName(const std::string& name, const std::string& domain,
                            TopicConfig* config) const;

  // Null, with an error line, when the bus is not initialised or `config` is unusable.
  std::shared_ptr<PublisherStrategy> createPublisherStrategy(
      const TopicConfig& config, std::shared_ptr<korvan_message_interface> operations);
  std::shared_ptr<SubscriberStrategy> createSubscriberStrategy(
      const TopicConfig& config, std::shared_ptr<korvan_message_interface> operations,
      SubscriberStrategy::MessageCallback callback, SubscriberStrategy::Allocator allocator,
      SubscriberStrategy::Deallocator deallocator);

  bool isInitialised() const;
  // The configuration in use (empty before the first successful initial()).
  KorvanBusConfig config() const;
  // Number of successful initial() calls so far.
  int initialisations() const;

  // Test seam: the factory that creates the network transport at the first successful
  // initial(). Not owned; null restores the default (Cyclone DDS).
  static void SetTransportFactory(TransportFactory* factory);

 private:
  int Apply(KorvanBusConfig& config, const std::string& source);

  mutable inf::Mutex mutex_;
  KorvanBusConfig config_ KORVAN_GUARDED_BY(mutex_);
  int initialisations_ KORVAN_GUARDED_BY(mutex_) = 0;
  std::shared_ptr<BusCore> core_ KORVAN_GUARDED_BY(mutex_);
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
