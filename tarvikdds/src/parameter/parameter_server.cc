#include "tarvikdds/parameter/parameter_server.h"

#include "tarvikdds/detail/logging.h"
#include "tarvikdds/messaging/dds_node.h"

namespace tarvik {
namespace korvan {

ParameterServer::ParameterServer(quessa::Node* node, ChangeCallback callback)
    : callback_(std::move(callback)) {
  const std::string& name = node->name();
  get_service_ = std::make_shared<quessa::Service<ParamName, Param>>(
      name + "/get_parameter", [this](const std::shared_ptr<ParamName>& r) { return HandleGet(r); },
      node->name(), node->domain());
  set_service_ = std::make_shared<quessa::Service<Param, BoolResult>>(
      name + "/set_parameter", [this](const std::shared_ptr<Param>& r) { return HandleSet(r); },
      node->name(), node->domain());
  list_service_ = std::make_shared<quessa::Service<NodeName, Params>>(
      name + "/list_parameters",
      [this](const std::shared_ptr<NodeName>& r) { return HandleList(r); }, node->name(),
      node->domain());
}

ParameterServer::~ParameterServer() {
  // The bus stops calling the handlers before the store they use goes away.
  list_service_.reset();
  set_service_.reset();
  get_service_.reset();
}

void ParameterServer::SetParameter(const Parameter& parameter) {
  Param param = parameter.ToProtoParam();
  inf::MutexLock lock(&store_lock_);
  if (store_.size() >= kMaxCount && store_.count(param.name()) == 0) {
    KORVAN_LOG_ERROR << "parameter server max_count(200) exceed";
    return;
  }
  if ((param.type() == STRING || param.type() == PROTOBUF) &&
      parameter.value<std::string>().size() > kMaxValueSize) {
    KORVAN_LOG_ERROR << "parameter server max_size(1M) exceed";
    return;
  }
  store_[param.name()] = param;
  if (callback_)
    callback_(param.name(), parameter);
}

bool ParameterServer::GetParameter(const std::string& name, Parameter* out) {
  inf::MutexLock lock(&store_lock_);
  auto it = store_.find(name);
  if (it == store_.end())
    return false;
  out->FromProtoParam(it->second);
  return true;
}

void ParameterServer::ListParameters(std::vector<Parameter>* out) {
  inf::MutexLock lock(&store_lock_);
  for (const auto& entry : store_) {
    Parameter parameter;
    parameter.FromProtoParam(entry.second);
    out->push_back(parameter);
  }
}

std::shared_ptr<Param> ParameterServer::HandleGet(const std::shared_ptr<ParamName>& request) {
  auto response = std::make_shared<Param>();
  inf::MutexLock lock(&store_lock_);
  auto it = store_.find(request->value());
  if (it == store_.end()) {
    KORVAN_LOG_INFO << "GetParameterService: [" << request->value() << "] not set";
  } else {
    *response = it->second;
  }
  return response;
}

std::shared_ptr<BoolResult> ParameterServer::HandleSet(const std::shared_ptr<Param>& request) {
  auto response = std::make_shared<BoolResult>();
  inf::MutexLock lock(&store_lock_);
  if (store_.size() >= kMaxCount && store_.count(request->name()) == 0) {
    KORVAN_LOG_ERROR << "parameter server max_count(200) exceed, return false";
    response->set_value(false);
    return response;
  }
  Parameter parameter;
  parameter.FromProtoParam(*request);
  if (parameter.value<std::string>().size() > kMaxValueSize) {
    KORVAN_LOG_ERROR << "parameter server max_size(1M) exceed, return false";
    response->set_value(false);
    return response;
  }
  store_[request->name()] = *request;
  if (callback_)
    callback_(request->name(), parameter);
  response->set_value(true);
  return response;
}

std::shared_ptr<Params> ParameterServer::HandleList(const std::shared_ptr<NodeName>&) {
  auto response = std::make_shared<Params>();
  inf::MutexLock lock(&store_lock_);
  for (const auto& entry : store_)
    *response->add_param() = entry.second;
  return response;
}

}  // namespace korvan
}  // namespace tarvik
