// The topics that carry a service's requests and responses: the service name followed by
// these suffixes. Clients publish requests and read responses; services the other way round.
#pragma once

namespace tarvik {
namespace korvan {
namespace bus {

inline constexpr char kServiceRequestSuffix[] = "__SRV__REQUEST";
inline constexpr char kServiceResponseSuffix[] = "__SRV__RESPONSE";

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
