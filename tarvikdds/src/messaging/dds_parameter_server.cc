#include "tarvikdds/messaging/dds_parameter_server.h"

#include "tarvikdds/detail/logging.h"

namespace tarvik {
namespace quessa {

ParamServer::ParamServer(Node* node,
                         std::function<void(const std::string&, const korvan::Parameter&)> callback)
    : server_(std::make_shared<korvan::ParameterServer>(node, std::move(callback))) {}

void ParamServer::SetParameter(const std::string& name,
                               const std::shared_ptr<google::protobuf::Message>& msg) {
  korvan::Parameter parameter(name, *msg);
  KORVAN_LOG_INFO << "set param:" << msg->DebugString();
  server_->SetParameter(parameter);
}

bool ParamServer::GetParameter(const std::string& name,
                               const std::shared_ptr<google::protobuf::Message>& msg) {
  korvan::Parameter parameter;
  if (!server_->GetParameter(name, &parameter))
    return false;
  KORVAN_LOG_INFO << "get param:" << parameter.DebugString();
  msg->ParseFromString(parameter.value<std::string>());  // the result is deliberately ignored
  return true;
}

void ParamServer::ListParameters(std::vector<korvan::Parameter>& out) {
  server_->ListParameters(&out);
}

}  // namespace quessa
}  // namespace tarvik
