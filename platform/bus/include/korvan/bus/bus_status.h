// Status codes of the bus manager's initialisation. 0 is success; every other value names the
// class of problem, and the bus logs one line with the details.
#pragma once

namespace tarvik {
namespace korvan {
namespace bus {

enum BusStatus : int {
  kBusOk = 0,
  kBusConfigUnreadable = 1,      // the configuration file is missing or cannot be read
  kBusConfigMalformed = 2,       // not JSON, or not the configuration schema
  kBusConfigInvalid = 3,         // a value out of range or an unknown transport
  kBusTransportUnavailable = 4,  // DDS could not be started with these settings
  kBusConfigTooLarge = 5         // the configuration file is above kMaxBusConfigFileBytes
};

// Configuration files larger than this are refused unread (1 MiB).
inline constexpr unsigned long kMaxBusConfigFileBytes = 1048576;

// A short English name of `status`, for messages.
const char* BusStatusText(int status);

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
