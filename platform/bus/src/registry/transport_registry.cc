#include "korvan/bus/transport_registry.h"

#include <map>

#include "infra/mutex.h"
#include "korvan/bus/transport_factory.h"

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

struct Registry {
  inf::Mutex mutex;
  std::map<std::string, TransportMaker> makers KORVAN_GUARDED_BY(mutex);
};

// Built on first use: registrations run from static initialisers in any order.
Registry& TheRegistry() {
  static Registry* registry = new Registry();
  return *registry;
}

class NetworkFactory : public TransportFactory {
 public:
  std::shared_ptr<Transport> Create(const KorvanBusConfig& config, std::string* problem) override {
    TransportContext context;
    context.config = &config;
    return MakeTransport(kNetworkTransport, context, problem);
  }
};

}  // namespace

bool RegisterTransport(const std::string& name, TransportMaker maker) {
  Registry& registry = TheRegistry();
  inf::MutexLock lock(&registry.mutex);
  return registry.makers.emplace(name, std::move(maker)).second;
}

std::shared_ptr<Transport> MakeTransport(const std::string& name, const TransportContext& context,
                                         std::string* problem) {
  TransportMaker maker;
  {
    Registry& registry = TheRegistry();
    inf::MutexLock lock(&registry.mutex);
    auto it = registry.makers.find(name);
    if (it == registry.makers.end()) {
      *problem = "no transport named '" + name + "'";
      return nullptr;
    }
    maker = it->second;
  }
  return maker(context, problem);
}

TransportFactory* TransportFactory::Default() {
  static NetworkFactory* factory = new NetworkFactory();
  return factory;
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
