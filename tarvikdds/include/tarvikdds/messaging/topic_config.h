// The bus topic entry an endpoint uses: the configured one, else one it builds for itself.
// Publishers and subscribers of this library use it, and so do the tools' raw subscribers,
// so that every endpoint of a topic is configured by the same rule.
#pragma once

#include <string>

#include "korvan/bus/korvan_bus_config.pb.h"
#include "tarvikdds/messaging/qos.h"

namespace tarvik {
namespace quessa {

// The QoS mapping: history 0 -> keep-last (1), else keep-all (2); depth as is; durability
// 1 -> volatile (1), else transient-local (2); reliability 1 -> reliable (1), else
// best-effort (2).
korvan::bus::Qos ToBusQos(const QoS& qos);

// Name `topic`, the mapped QoS, transport "lumis", the default partition, the owning node's
// two strings (node name, domain) and one delivery thread.
korvan::bus::TopicConfig MakeTopicConfig(const std::string& topic, const QoS& qos,
                                         const std::string& node_name, const std::string& domain);

// The bus's configured entry for `topic` when it has one (transport settings as configured;
// only missing node strings are filled in, for discovery), else MakeTopicConfig. `configured`
// tells which.
korvan::bus::TopicConfig TopicConfigFor(const std::string& topic, const QoS& qos,
                                        const std::string& node_name, const std::string& domain,
                                        bool* configured);

}  // namespace quessa
}  // namespace tarvik
