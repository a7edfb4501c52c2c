// Creates the network transport when the bus starts. The default creates the Cyclone DDS
// transport; tests install their own factory (KorvanBusManager::SetTransportFactory), usually
// one that wraps the default transport.
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
  // The Cyclone DDS transport. Never destroyed.
  static TransportFactory* Default();
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
