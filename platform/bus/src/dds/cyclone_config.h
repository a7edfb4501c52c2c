// Turns the bus's discovery settings into a Cyclone DDS configuration (private to the bus).
#pragma once

#include <cstdint>
#include <string>

#include "korvan/bus/korvan_bus_config.pb.h"

namespace tarvik {
namespace korvan {
namespace bus {

struct CycloneSettings {
  uint32_t domain_id = 0;
  unsigned max_processes = 0;  // per host and domain: the participant indices there are
  std::string xml;             // a <CycloneDDS> document for dds_create_domain
};

// Applies, in order of precedence: the LumisConfig fields, then KORVAN_DOMAIN_ID for the
// domain, then the defaults (loopback only, port base 7400, lease 3 s, 100 processes per
// host). On loopback, or with multicast off, discovery is unicast: every process probes the
// participant indices 0..max_processes_per_host-1 on each peer (this host, LUMIS_LOCATOR_IP,
// the configured peers). `with_index` false leaves the participant index out (ports chosen by
// the system): only to find out whether a failed start failed for want of a free index.
CycloneSettings MakeCycloneSettings(const LumisConfig& lumis, bool with_index = true);

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
