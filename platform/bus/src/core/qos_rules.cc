#include "core/qos_rules.h"

#include "config/bus_config.h"

namespace tarvik {
namespace korvan {
namespace bus {

Qos CompleteQos(const Qos& qos) {
  Qos complete = qos;
  if (!complete.has_history())
    complete.set_history(kHistoryKeepLast);
  if (!complete.has_depth() || complete.depth() == 0)
    complete.set_depth(kDefaultDepth);
  if (!complete.has_durability())
    complete.set_durability(kDurabilityVolatile);
  if (!complete.has_reliability())
    complete.set_reliability(kReliabilityReliable);
  if (!complete.has_max_samples() || complete.max_samples() == 0)
    complete.set_max_samples(kDefaultMaxSamples);
  return complete;
}

unsigned ReaderSampleLimit(const Qos& qos) {
  if (qos.history() == kHistoryKeepAll)
    return qos.max_samples() > 0 ? qos.max_samples() : kDefaultMaxSamples;
  return qos.depth() > 0 ? qos.depth() : kDefaultDepth;
}

bool QosCompatible(const Qos& offered, const Qos& requested) {
  if (requested.reliability() == kReliabilityReliable &&
      offered.reliability() != kReliabilityReliable) {
    return false;
  }
  if (requested.durability() == kDurabilityTransientLocal &&
      offered.durability() != kDurabilityTransientLocal) {
    return false;
  }
  return true;
}

unsigned DurableHistoryDepth(const Qos& qos) {
  return qos.depth() > 0 ? qos.depth() : 1;
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
