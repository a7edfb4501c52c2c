// ParameterServer: a node's named parameters, kept in memory and served to other processes by
// three services named after the node: "<node>/get_parameter", "<node>/set_parameter" and
// "<node>/list_parameters". The owning application reads and writes the same store directly
// and hears of every change, from either side, through the change callback.
//
// Limits: at most 200 parameters (replacing an existing one is always allowed), and string or
// message values of at most 1 MiB (1048576 bytes). A refused set is logged and changes nothing.
//
// One mutex guards the store; service handlers (bus threads) and the local calls (any thread)
// are serialised by it. The change callback runs with that mutex held, so it must not call
// back into the same server.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "infra/mutex.h"
#include "tarvikdds/messaging/dds_service.h"
#include "tarvikdds/parameter/parameter.h"
#include "tarvikdds/proto/tarvikdds_parameter.pb.h"

namespace tarvik {
namespace quessa {
class Node;
}  // namespace quessa

namespace korvan {

class ParameterServer {
 public:
  using ChangeCallback = std::function<void(const std::string& name, const Parameter& parameter)>;

  // Serves the parameters of `node` (not owned; must outlive the server).
  ParameterServer(quessa::Node* node, ChangeCallback callback);
  ~ParameterServer();
  ParameterServer(const ParameterServer&) = delete;
  ParameterServer& operator=(const ParameterServer&) = delete;

  // Stores or replaces `parameter`; refused (logged) beyond the limits.
  void SetParameter(const Parameter& parameter);
  // True, with `out` filled, when `name` is stored.
  bool GetParameter(const std::string& name, Parameter* out);
  // Appends every stored parameter to `out`, in no particular order.
  void ListParameters(std::vector<Parameter>* out);

  static constexpr size_t kMaxCount = 200;
  static constexpr size_t kMaxValueSize = 1048576;

 private:
  std::shared_ptr<Param> HandleGet(const std::shared_ptr<ParamName>& request);
  std::shared_ptr<BoolResult> HandleSet(const std::shared_ptr<Param>& request);
  std::shared_ptr<Params> HandleList(const std::shared_ptr<NodeName>& request);

  std::shared_ptr<quessa::Service<ParamName, Param>> get_service_;
  std::shared_ptr<quessa::Service<Param, BoolResult>> set_service_;
  std::shared_ptr<quessa::Service<NodeName, Params>> list_service_;
  inf::Mutex store_lock_;
  std::unordered_map<std::string, Param> store_ KORVAN_GUARDED_BY(store_lock_);
  ChangeCallback callback_;
};

}  // namespace korvan
}  // namespace tarvik
