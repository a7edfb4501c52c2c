// A publisher, subscriber, service or client as the discovery component lists it.
#pragma once

#include <cstdint>
#include <string>

namespace tarvik {
namespace korvan {
namespace bus {

struct RoleAttr {
  std::string app_name;
  std::string soc_name;
  std::string node_name;
  int32_t role_type = 0;   // 1 publisher, 2 subscriber, 3 service, 4 client, 5 node
  std::string topic_name;  // as the application named it
  std::string type_name;
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
