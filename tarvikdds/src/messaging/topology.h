// Building the topology snapshot: records of the discovery component regrouped into a tree
// application -> SoC -> node -> role -> names.
#pragma once

#include <string>

#include <rapidjson/document.h>

#include "korvan/bus/node_attr.h"
#include "korvan/bus/role_attr.h"

namespace tarvik {
namespace quessa {

// Makes sure the path application / SoC / node of `node` exists in `tree`.
void ProcessTopoNode(rapidjson::Document& tree, korvan::bus::NodeAttr& node);
// The same for the role's path, then appends the role's topic under its role key ("publisher",
// "subscriber", "service", "client", "node" or "unknown"). Publishers of service request and
// response topics are recorded as the client and the service; subscribers of them are dropped.
void ProcessTopoPar(rapidjson::Document& tree, korvan::bus::RoleAttr& role);
// The snapshot behind Node::GetTopo: false, with `out` untouched, when a discovery list
// cannot be read.
bool GetTopology(std::string& out);
// True when `text` ends with `suffix` (an empty suffix always does).
bool EndsWith(const std::string& text, const std::string& suffix);

}  // namespace quessa
}  // namespace tarvik
