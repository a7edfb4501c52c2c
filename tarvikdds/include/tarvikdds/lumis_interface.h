// Direct access to the bus's discovery component: its nodes, and the bus objects behind
// services (object kind 8) and clients (object kind 7). The four functions share one
// process-wide component, made on the first call of any of them; any thread may call them.
#pragma once

#include <memory>
#include <string>

namespace tarvik {
namespace quessa {
namespace lumis_interface {

// The bus node registered by the Node constructed with (first, second); empty if none.
std::shared_ptr<void> GetLumisNode(const std::string& first, const std::string& second);
// Creates the bus object of a service of `object` (a bus node) from the BusParam at `arg`.
std::shared_ptr<void> GetLumisServiceObject(void* object, const void* arg);
// Creates the bus object of a client of `object` (a bus node) from the BusParam at `arg`.
std::shared_ptr<void> GetLumisClientObject(void* object, const void* arg);
// Runs "WaitForService" or "Call" on the client object `object` with the BusParam at `arg`.
std::shared_ptr<void> SetLumisClientRequest(const std::string& name, void* object, const void* arg);

}  // namespace lumis_interface
}  // namespace quessa
}  // namespace tarvik
