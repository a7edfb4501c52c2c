// ParamServer: the application-facing parameter server that stores whole protobuf messages as
// parameters (type PROTOBUF, with their type description), next to the scalar parameters of
// the ParameterServer it wraps. Thread-safety and limits are those of ParameterServer.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <google/protobuf/message.h>

#include "tarvikdds/parameter/parameter_server.h"

namespace tarvik {
namespace quessa {

class Node;

class ParamServer {
 public:
  ParamServer(Node* node,
              std::function<void(const std::string&, const korvan::Parameter&)> callback);

  // Stores `msg` under `name` (refused, and only logged, beyond the server's limits).
  void SetParameter(const std::string& name, const std::shared_ptr<google::protobuf::Message>& msg);
  // Parses the stored value into `msg`; false when `name` is not stored. A value of another
  // type still yields true with whatever the parse left in `msg`.
  bool GetParameter(const std::string& name, const std::shared_ptr<google::protobuf::Message>& msg);
  void ListParameters(std::vector<korvan::Parameter>& out);

  const std::shared_ptr<korvan::ParameterServer>& server() const { return server_; }

 private:
  std::shared_ptr<korvan::ParameterServer> server_;
};

}  // namespace quessa
}  // namespace tarvik
