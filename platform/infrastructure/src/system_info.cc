#include "infra/system_info.h"

#include <errno.h>
#include <strings.h>

#include <atomic>
#include <cstdlib>

#include "infra/env.h"
#include "trevam/log.h"

namespace tarvik {
namespace quessa {
namespace tarvikdds {
namespace {

constexpr int kUnknown = -1;
std::atomic<int> g_monitoring{kUnknown};

bool MonitoringFromEnvironment() {
  const char* text = korvan::inf::Env::Current()->GetVariable("KORVAN_MONITORING");
  if (text == nullptr)
    return false;
  return strcasecmp(text, "1") == 0 || strcasecmp(text, "true") == 0 ||
         strcasecmp(text, "on") == 0 || strcasecmp(text, "yes") == 0;
}

}  // namespace

uint32_t GetCurrentSOC() {
  static const uint32_t soc = [] {
    const char* text = korvan::inf::Env::Current()->GetVariable("KORVAN_SOC_INDEX");
    if (text == nullptr || *text == '\0')
      return 0u;
    char* end = nullptr;
    unsigned long value = std::strtoul(text, &end, 10);
    if (*end != '\0' || value > 0xFFFFFFFFUL || text[0] == '-') {
      TREVAM_WARNING("korvan_infrastructure")
          << "KORVAN_SOC_INDEX '" << text << "' is not a chip index, using 0";
      return 0u;
    }
    return static_cast<uint32_t>(value);
  }();
  return soc;
}

std::string GetCurrentEXE() {
  return program_invocation_short_name;
}

bool IsMonitoringEnabled() {
  int state = g_monitoring.load(std::memory_order_relaxed);
  if (state == kUnknown) {
    state = MonitoringFromEnvironment() ? 1 : 0;
    int expected = kUnknown;
    // An explicit SetMonitoringEnabled that raced with us wins.
    if (!g_monitoring.compare_exchange_strong(expected, state))
      state = expected;
  }
  return state == 1;
}

void SetMonitoringEnabled(bool enabled) {
  g_monitoring.store(enabled ? 1 : 0);
}

}  // namespace tarvikdds
}  // namespace quessa
}  // namespace tarvik
