// Process-wide start-up and shutdown of the middleware runtime: logging, the platform's
// asynchronous executor and the bus manager.
//
// Init brings the runtime up once (creating a Node calls it too); Shutdown takes it down once
// and also runs at process exit. Every function may be called from any thread.
//
// Environment read by Init:
//   KORVAN_BUS_CONFIG_PATH  bus configuration file (JSON); when set, even to "", the three
//                           variables below are ignored
//   LUMIS_IP                local interface address of the bus
//   LUMIS_LOCATOR_IP        unicast discovery peer
//   LUMIS_PORT              discovery port base (decimal; parsed like std::stoi, so a value
//                           that is not a number makes Init throw std::invalid_argument and
//                           one out of int range std::out_of_range, after one error line that
//                           names the variable and its value)
#pragma once

#include <string>

namespace tarvik {
namespace quessa {
namespace tarvikdds {

// Brings the runtime up; true when it runs afterwards. Returns at once when already running.
// `name` names the process to the log sink and, with a configuration file, to discovery.
bool Init(const std::string& name);
// True while the runtime runs.
bool Ok();
// True while a shutdown is in progress (not after it completed).
bool IsShutdown();
// Stops the executor and closes the log sink; only the first call does anything. The bus
// manager stays until process exit.
void Shutdown();
// Blocks until Shutdown has completed, polling every 500 ms (so never less than 500 ms).
void WaitForShutdown();

}  // namespace tarvikdds
}  // namespace quessa
}  // namespace tarvik
