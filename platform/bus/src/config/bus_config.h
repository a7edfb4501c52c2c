// Loading and checking the bus configuration (private to the bus).
#pragma once

#include <cstdint>
#include <string>

#include "korvan/bus/korvan_bus_config.pb.h"

namespace tarvik {
namespace korvan {
namespace bus {

// Defaults applied to unset fields.
constexpr int kDefaultPortBase = 7400;
constexpr unsigned kDefaultLeaseMs = 3000;
constexpr unsigned kDefaultMaxProcessesPerHost = 100;
constexpr unsigned kDefaultDepth = 10;
constexpr unsigned kMaxDomainId = 232;
constexpr int kMaxDeliveryThreads = 64;
constexpr char kTransportLumis[] = "lumis";
constexpr char kTransportLocal[] = "local";

// Reads and parses the JSON file at `path`, refusing files over kMaxBusConfigFileBytes. On
// failure returns a BusStatus other than 0 and describes the problem in `problem` (without the
// path).
int LoadBusConfigFile(const std::string& path, KorvanBusConfig* config, std::string* problem);

// Parses the content of a configuration file: the same statuses and problems, the file aside.
int ParseBusConfig(const std::string& text, KorvanBusConfig* config, std::string* problem);

// Checks value ranges, transports and topic names. Empty when the configuration is usable,
// else the first problem found.
std::string ValidateBusConfig(const KorvanBusConfig& config);
std::string ValidateTopicConfig(const TopicConfig& topic);

// The DDS domain of a configuration that sets none, from KORVAN_DOMAIN_ID: 0 when the variable
// is unset or empty. False, with `problem` naming the variable and the range, when it holds
// anything but a decimal number 0..kMaxDomainId.
bool DomainFromEnvironment(uint32_t* domain, std::string* problem);

// True when `transport` names a transport this bus has ("" counts as "lumis").
bool IsKnownTransport(const std::string& transport);

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
