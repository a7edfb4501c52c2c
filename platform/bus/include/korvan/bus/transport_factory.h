// Creates the network transport when the bus starts. The default makes the transport
// registered as kNetworkTransport (Cyclone DDS, transport_registry.h); tests install their own
// factory (KorvanBusManager::SetTransportFactory), usually one that wraps the default.
#pragma once

#include <memory>
#include <string>

#include "korvan/bus/korvan_bus_config.pb.h"
#include "korvan/bus/transport.h"

namespace tarvik {
namespace korvan {
namespace bus {

class TransportFactory {
 public:
  virtual ~TransportFactory() = default;
  // The network transport for `config`, or null with `problem` describing why it cannot start.
  virtual std::shared_ptr<Transport> Create(const KorvanBusConfig& config,
                                            std::string* problem) = 0;
  // Makes the registered network transport. Never destroyed.
  static TransportFactory* Default();
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
