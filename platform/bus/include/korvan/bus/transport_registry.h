// Transports by name. Each transport's unit registers a maker when the library loads; the bus
// makes the transports it runs by name, so the bus core depends on no concrete transport.
// Registering and making are thread-safe.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "korvan/bus/korvan_bus_config.pb.h"
#include "korvan/bus/transport.h"

namespace tarvik {
namespace korvan {
namespace bus {

inline constexpr char kInProcessTransport[] = "in-process";
inline constexpr char kNetworkTransport[] = "dds";
inline constexpr char kSharedMemoryTransport[] = "shared-memory";

// What a maker gets to build its transport from.
struct TransportContext {
  const KorvanBusConfig* config = nullptr;  // never null
  // The network transport of this process, or null. Its discovery lists the entities of the
  // other processes.
  std::shared_ptr<Transport> network;
};

// Returns the transport, or null: with `problem` filled when it failed, empty when the
// transport does not apply here (it is switched off, or the platform lacks what it needs).
using TransportMaker =
    std::function<std::shared_ptr<Transport>(const TransportContext&, std::string* problem)>;

// False when `name` is taken already.
bool RegisterTransport(const std::string& name, TransportMaker maker);
// Null with `problem` "no transport named ..." for an unknown name.
std::shared_ptr<Transport> MakeTransport(const std::string& name, const TransportContext& context,
                                         std::string* problem);

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
