// Facts about the machine and process the library asks the platform for.
//
//   GetCurrentSOC()       index of the system-on-chip (processor board) the process runs on:
//                         KORVAN_SOC_INDEX, a decimal number; 0 when unset or not a number.
//   GetCurrentEXE()       short name of the running executable.
//   IsMonitoringEnabled() whether performance monitoring is on: KORVAN_MONITORING set to 1,
//                         true, on or yes (any case); off otherwise. Read once, then cached;
//                         SetMonitoringEnabled overrides it at run time.
#pragma once

#include <cstdint>
#include <string>

namespace tarvik {
namespace quessa {
namespace tarvikdds {

uint32_t GetCurrentSOC();
std::string GetCurrentEXE();
bool IsMonitoringEnabled();
void SetMonitoringEnabled(bool enabled);

}  // namespace tarvikdds
}  // namespace quessa
}  // namespace tarvik
