// Quality of service requested for a publisher or subscriber. Used only when the bus
// configuration has no entry for the topic; an entry overrides it.
#pragma once

#include <cstdint>

namespace tarvik {
namespace quessa {

struct QoS {
  int32_t history_type = 0;     // 0 keep-last, anything else keep-all
  uint32_t history_depth = 10;  // keep-last depth (and history kept for late joiners)
  int32_t durability = 1;       // 1 volatile, anything else transient-local
  int32_t reliability = 1;      // 1 reliable, anything else best-effort
};

}  // namespace quessa
}  // namespace tarvik
