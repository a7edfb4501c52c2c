// What a transport is told about an endpoint it creates a reader or writer for.
#pragma once

#include <functional>
#include <string>

#include "korvan/bus/korvan_bus_config.pb.h"

namespace tarvik {
namespace korvan {
namespace bus {

struct EndpointDescription {
  std::string entity_id;   // the endpoint's discovery identity
  std::string topic;       // as the application named it
  std::string type_name;   // full protobuf type name, or "*" for any
  uint64_t type_hash = 0;  // fingerprint of the type's description (TypeDescription), 0 if none
  TopicConfig config;      // QoS with every field filled in, partition, batching
  // Optional: called whenever the number of endpoints matched with this one changes (a peer
  // came, left, or its process was found dead), on whichever thread noticed. Must be quick
  // and must not create or destroy endpoints.
  std::function<void()> on_match_change;
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
