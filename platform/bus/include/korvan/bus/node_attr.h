// A node as the discovery component lists it.
#pragma once

#include <string>

namespace tarvik {
namespace korvan {
namespace bus {

struct NodeAttr {
  std::string app_name;   // the application name of the node's process
  std::string soc_name;   // the chip index of that process, in decimal
  std::string node_name;  // the node's bus name
  std::string host_name;
  int process_id = 0;
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
