#include "tarvikdds/messaging/topic_config.h"

#include "korvan/bus/korvan_bus_manager.h"
#include "korvan/bus/singleton.h"

namespace tarvik {
namespace quessa {

korvan::bus::Qos ToBusQos(const QoS& qos) {
  korvan::bus::Qos bus_qos;
  bus_qos.set_history(qos.history_type == 0 ? 1 : 2);
  bus_qos.set_depth(qos.history_depth);
  bus_qos.set_durability(qos.durability == 1 ? 1 : 2);
  bus_qos.set_reliability(qos.reliability == 1 ? 1 : 2);
  return bus_qos;
}

korvan::bus::TopicConfig MakeTopicConfig(const std::string& topic, const QoS& qos,
                                         const std::string& node_name, const std::string& domain) {
  korvan::bus::TopicConfig config;
  config.set_name(topic);
  *config.mutable_qos() = ToBusQos(qos);
  config.set_transport("lumis");
  config.set_partition("");
  config.set_node_name(node_name);
  config.set_node_domain(domain);
  config.set_delivery_threads(1);
  return config;
}

korvan::bus::TopicConfig TopicConfigFor(const std::string& topic, const QoS& qos,
                                        const std::string& node_name, const std::string& domain,
                                        bool* configured) {
  korvan::bus::TopicConfig config;
  *configured =
      korvan::utils::Singleton<korvan::bus::KorvanBusManager>::Instance()->getTopicConfigByName(
          topic, "", &config);
  if (!*configured)
    return MakeTopicConfig(topic, qos, node_name, domain);
  if (!config.has_node_name()) {
    config.set_node_name(node_name);
    config.set_node_domain(domain);
  }
  return config;
}

}  // namespace quessa
}  // namespace tarvik
