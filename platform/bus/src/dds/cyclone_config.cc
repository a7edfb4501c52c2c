#include "dds/cyclone_config.h"

#include <sstream>
#include <vector>

#include "config/bus_config.h"
#include "infra/env.h"

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

bool IsLoopback(const std::string& address) {
  return address.rfind("127.", 0) == 0 || address == "::1";
}

}  // namespace

CycloneSettings MakeCycloneSettings(const LumisConfig& lumis, bool with_index) {
  CycloneSettings settings;
  if (lumis.has_domain_id()) {
    settings.domain_id = lumis.domain_id();
  } else {
    std::string ignored;  // the bus manager refused a bad value before the transport started
    DomainFromEnvironment(&settings.domain_id, &ignored);
  }
  const std::string address = lumis.has_discovery_ip() ? lumis.discovery_ip() : "127.0.0.1";
  const bool multicast = lumis.has_multicast() ? lumis.multicast() : !IsLoopback(address);
  const unsigned lease_ms = lumis.has_lease_ms() ? lumis.lease_ms() : kDefaultLeaseMs;
  const unsigned max_processes = lumis.has_max_processes_per_host() ? lumis.max_processes_per_host()
                                                                    : kDefaultMaxProcessesPerHost;
  const int port_base = lumis.has_port() ? lumis.port() : kDefaultPortBase;
  settings.max_processes = max_processes;

  std::vector<std::string> peers;
  if (!multicast)
    peers.push_back(address);  // processes on this host
  if (lumis.has_locator_ip())
    peers.push_back(lumis.locator_ip());
  for (const auto& peer : lumis.peers())
    peers.push_back(peer);

  std::ostringstream xml;
  xml << "<CycloneDDS><Domain id=\"any\">"
      << "<General><Interfaces><NetworkInterface address=\"" << address << "\"/></Interfaces>"
      << "<AllowMulticast>" << (multicast ? "true" : "false") << "</AllowMulticast></General>"
      << "<Discovery>";
  if (with_index) {
    // Cyclone hands out the indices below MaxAutoParticipantIndex: N of them for N processes.
    xml << "<ParticipantIndex>auto</ParticipantIndex>"
        << "<MaxAutoParticipantIndex>" << max_processes << "</MaxAutoParticipantIndex>";
  } else {
    xml << "<ParticipantIndex>none</ParticipantIndex>";
  }
  if (!peers.empty()) {
    xml << "<Peers>";
    for (const auto& peer : peers)
      xml << "<Peer address=\"" << peer << "\"/>";
    xml << "</Peers>";
  }
  // Announce well inside the lease so one lost announcement does not expire us.
  xml << "<Ports><Base>" << port_base << "</Base></Ports>"
      << "<LeaseDuration>" << lease_ms << " ms</LeaseDuration>"
      << "<SPDPInterval>" << (lease_ms / 3 > 0 ? lease_ms / 3 : 1) << " ms</SPDPInterval>"
      << "</Discovery>"
      << "<Tracing><Verbosity>warning</Verbosity><OutputFile>stderr</OutputFile></Tracing>"

      << "</Domain></CycloneDDS>";
  settings.xml = xml.str();
  return settings;
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
