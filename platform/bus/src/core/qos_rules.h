// QoS rules shared by the transports (private to the bus).
#pragma once

#include "korvan/bus/korvan_bus_config.pb.h"

namespace tarvik {
namespace korvan {
namespace bus {

// Numbers of the bus Qos message.
inline constexpr int kHistoryKeepLast = 1;
inline constexpr int kHistoryKeepAll = 2;
inline constexpr int kDurabilityVolatile = 1;
inline constexpr int kDurabilityTransientLocal = 2;
inline constexpr int kReliabilityReliable = 1;
inline constexpr int kReliabilityBestEffort = 2;

// What a keep-all reader holds at most when its topic does not say (Qos.max_samples).
inline constexpr unsigned kDefaultMaxSamples = 1000;
// How long a reliable writer waits for room in a full reader before the write fails.
inline constexpr int kMaxBlockingMs = 1000;

// `qos` with every unset field given its default.
Qos CompleteQos(const Qos& qos);

// The samples a reader with `qos` (complete) holds at most, per transport: the depth for
// keep-last, max_samples for keep-all.
unsigned ReaderSampleLimit(const Qos& qos);

// Whether a writer with `offered` QoS serves a reader that `requested` QoS, by the DDS rules:
// a reliable reader needs a reliable writer, a transient-local reader a transient-local writer.
bool QosCompatible(const Qos& offered, const Qos& requested);

// How many samples a transient-local writer keeps for late joiners.
unsigned DurableHistoryDepth(const Qos& qos);

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
