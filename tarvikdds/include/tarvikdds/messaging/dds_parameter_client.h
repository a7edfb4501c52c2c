// ParamClient: the application-facing parameter client that reads and writes whole protobuf
// messages in another node's parameter server. Calls may come from several threads at once.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <google/protobuf/message.h>

#include "tarvikdds/parameter/parameter_client.h"

namespace tarvik {
namespace quessa {

class Node;

class ParamClient {
 public:
  ParamClient(Node* node, const std::string& remote_node_name);

  // Parses the remote value into `msg`; false when the call failed or `name` is not set.
  bool GetParameter(const std::string& name, const std::shared_ptr<google::protobuf::Message>& msg,
                    const std::chrono::seconds& timeout);
  bool SetParameter(const std::string& name, const std::shared_ptr<google::protobuf::Message>& msg,
                    const std::chrono::seconds& timeout);
  bool ListParameters(std::vector<korvan::Parameter>& out, const std::chrono::seconds& timeout);

  const std::shared_ptr<korvan::ParameterClient>& client() const { return client_; }

 private:
  std::shared_ptr<korvan::ParameterClient> client_;
};

}  // namespace quessa
}  // namespace tarvik
