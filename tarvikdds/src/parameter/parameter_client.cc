#include "tarvikdds/parameter/parameter_client.h"

#include "tarvikdds/detail/logging.h"
#include "tarvikdds/messaging/dds_node.h"

namespace tarvik {
namespace korvan {

ParameterClient::ParameterClient(quessa::Node* node, const std::string& remote_node_name)
    : node_(node), remote_node_name_(remote_node_name) {
  get_client_ = std::make_shared<quessa::Client<ParamName, Param>>(
      remote_node_name + "/get_parameter", node->name(), node->domain());
  set_client_ = std::make_shared<quessa::Client<Param, BoolResult>>(
      remote_node_name + "/set_parameter", node->name(), node->domain());
  list_client_ = std::make_shared<quessa::Client<NodeName, Params>>(
      remote_node_name + "/list_parameters", node->name(), node->domain());
}

bool ParameterClient::GetParameter(const std::string& name, Parameter* out,
                                   const std::chrono::seconds& timeout) {
  auto request = std::make_shared<ParamName>();
  request->set_value(name);
  std::shared_ptr<Param> response = get_client_->Call(request, timeout.count());
  if (!response) {
    KORVAN_LOG_ERROR << "Call " << get_client_->service_name() << " failed";
    return false;
  }
  if (response->type() == NOT_SET) {
    KORVAN_LOG_WARNING << "Parameter " << name << " not exists yet.";
    return false;
  }
  out->FromProtoParam(*response);
  return true;
}

bool ParameterClient::SetParameter(const Parameter& parameter,
                                   const std::chrono::seconds& timeout) {
  auto request = std::make_shared<Param>(parameter.ToProtoParam());
  std::shared_ptr<BoolResult> response = set_client_->Call(request, timeout.count());
  if (!response) {
    KORVAN_LOG_ERROR << "Call " << set_client_->service_name() << " failed";
    return false;
  }
  return response->value();
}

bool ParameterClient::ListParameters(std::vector<Parameter>* out,
                                     const std::chrono::seconds& timeout) {
  auto request = std::make_shared<NodeName>();
  request->set_value(remote_node_name_);
  std::shared_ptr<Params> response = list_client_->Call(request, timeout.count());
  if (!response) {
    KORVAN_LOG_ERROR << "Call " << list_client_->service_name() << " failed";
    return false;
  }
  for (const auto& param : response->param()) {
    Parameter parameter;
    parameter.FromProtoParam(param);
    out->push_back(parameter);
  }
  return true;
}

}  // namespace korvan
}  // namespace tarvik
