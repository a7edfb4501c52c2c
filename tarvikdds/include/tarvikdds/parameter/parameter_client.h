// ParameterClient: reads, writes and lists the parameters of another node's ParameterServer
// over the bus. Every call blocks until the answer or the time-out, and reports failure as
// false with one log line; nothing is thrown. Calls may come from several threads at once.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tarvikdds/messaging/dds_client.h"
#include "tarvikdds/parameter/parameter.h"
#include "tarvikdds/proto/tarvikdds_parameter.pb.h"

namespace tarvik {
namespace quessa {
class Node;
}  // namespace quessa

namespace korvan {

class ParameterClient {
 public:
  // Talks to the server of the node named `remote_node_name` from the local `node` (not
  // owned; must outlive the client).
  ParameterClient(quessa::Node* node, const std::string& remote_node_name);

  // False when the call failed or the server does not hold `name` (then `out` is untouched).
  bool GetParameter(const std::string& name, Parameter* out, const std::chrono::seconds& timeout);
  // The server's answer: false also when it refused the value (its limits).
  bool SetParameter(const Parameter& parameter, const std::chrono::seconds& timeout);
  // Appends the server's parameters to `out`.
  bool ListParameters(std::vector<Parameter>* out, const std::chrono::seconds& timeout);

  quessa::Node* node() const { return node_; }

 private:
  quessa::Node* node_;
  std::string remote_node_name_;
  std::shared_ptr<quessa::Client<ParamName, Param>> get_client_;
  std::shared_ptr<quessa::Client<Param, BoolResult>> set_client_;
  std::shared_ptr<quessa::Client<NodeName, Params>> list_client_;
};

}  // namespace korvan
}  // namespace tarvik
