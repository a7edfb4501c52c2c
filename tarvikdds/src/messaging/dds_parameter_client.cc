#include "tarvikdds/messaging/dds_parameter_client.h"

#include "tarvikdds/detail/logging.h"

namespace tarvik {
namespace quessa {

ParamClient::ParamClient(Node* node, const std::string& remote_node_name)
    : client_(std::make_shared<korvan::ParameterClient>(node, remote_node_name)) {}

bool ParamClient::GetParameter(const std::string& name,
                               const std::shared_ptr<google::protobuf::Message>& msg,
                               const std::chrono::seconds& timeout) {
  korvan::Parameter parameter;
  if (!client_->GetParameter(name, &parameter, timeout))
    return false;
  KORVAN_LOG_INFO << "get param:" << parameter.DebugString();
  msg->ParseFromString(parameter.value<std::string>());  // the result is deliberately ignored
  return true;
}

bool ParamClient::SetParameter(const std::string& name,
                               const std::shared_ptr<google::protobuf::Message>& msg,
                               const std::chrono::seconds& timeout) {
  korvan::Parameter parameter(name, *msg);
  KORVAN_LOG_INFO << "set param:" << msg->DebugString();
  return client_->SetParameter(parameter, timeout);
}

bool ParamClient::ListParameters(std::vector<korvan::Parameter>& out,
                                 const std::chrono::seconds& timeout) {
  return client_->ListParameters(&out, timeout);
}

}  // namespace quessa
}  // namespace tarvik
