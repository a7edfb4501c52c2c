// Node: the named endpoint under which an application creates publishers, subscribers,
// services, clients and parameter servers.
//
// Nodes are registered process-wide by (domain, name): a second node of the same name in the
// same domain is refused with std::runtime_error. Every node can be found by name or
// enumerated in creation order, and is announced to discovery from construction to
// destruction. Constructing a node brings the runtime up (Init("")). The registry does not
// own nodes; their creators do. Any thread may create, find or destroy nodes.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "tarvikdds/messaging/dds_publisher.h"
#include "tarvikdds/messaging/dds_subscriber.h"
#include "tarvikdds/messaging/qos.h"
#include "tarvikdds/proto/monitor_messages.pb.h"

namespace tarvik {
namespace quessa {

class Node {
 public:
  Node(const std::string& name, const std::string& domain);
  virtual ~Node();
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  static std::unique_ptr<Node> CreateNode(const std::string& name, const std::string& domain);
  // The registered node, or null.
  static Node* GetNode(const std::string& name, const std::string& domain);
  static uint32_t GetNodeCount();
  // The node with the i-th smallest creation index; `i` must be below GetNodeCount().
  static Node* GetNodeAt(uint32_t i);

  // Everything alive on the bus, as JSON text; false (and `out` untouched) when discovery
  // cannot be read.
  bool GetTopo(std::string& out);

  // Topology is published as snapshots (GetTopo); these change hooks do nothing.
  void CheckNetwork() {}
  void CreateTopologyWriter() {}
  void PublishTopologyChange() {}
  void PublishTopologyChange(messages::internal::MonitorMessage_Event, const std::string&,
                             const std::string&, const QoS&) {}

  template <typename T>
  std::shared_ptr<Publisher<T>> CreatePublisher(const std::string& topic, const QoS& qos) {
    return std::make_shared<Publisher<T>>(topic, qos, 0, name_, domain_);
  }

  // `fault_threshold`: the largest allowed gap between messages in milliseconds (0: none).
  template <typename T>
  std::shared_ptr<Subscriber<T>> CreateSubscriber(
      const std::string& topic, const QoS& qos,
      const std::function<void(const std::shared_ptr<T>&)>& callback,
      uint32_t fault_threshold = 0) {
    return std::make_shared<Subscriber<T>>(topic, callback, qos, fault_threshold, name_, domain_);
  }

  const std::string& name() const { return name_; }
  // The name discovery lists: the name, with "_S<chip>" on a chip other than 0.
  const std::string& node_name() const { return node_name_; }
  const std::string& domain() const { return domain_; }

 private:
  std::string name_;
  std::string node_name_;
  std::string domain_;
  std::shared_ptr<void> bus_registration_;  // keeps the node announced
};

}  // namespace quessa
}  // namespace tarvik
