// Service<Req, Res>: the serving end of a request/response exchange. Registers a request
// handler with the bus; every request is decoded, handed to the callback, and the callback's
// response sent back to the caller.
//
// The callback runs on the bus's service threads, possibly several requests at once, without
// any lock of the service: it must be thread-safe. An empty callback answers every request
// with a default Res; a callback returning null makes the caller's Call return null.
// Construct and destroy from the owner's thread; destruction stops request delivery first.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "korvan/bus/bus_param.h"
#include "tarvikdds/detail/logging.h"
#include "tarvikdds/lumis_interface.h"
#include "tarvikdds/messaging/dds_participant.h"
#include "tarvikdds/messaging/service_codec.h"

namespace tarvik {
namespace quessa {

template <typename Req, typename Res>
class Service : public Participant {
 public:
  using Callback = std::function<std::shared_ptr<Res>(const std::shared_ptr<Req>&)>;

  // `node_id_a`, `node_id_b`: the owning node's constructor strings (name, domain).
  Service(const std::string& service_name, const Callback& callback, const std::string& node_id_a,
          const std::string& node_id_b)
      : Participant(service_name), callback_(callback) {
    KORVAN_LOG_INFO << "[timeline] Creating Service " << service_name;
    const std::string request_type = service_codec::AdvertisedType<Req>();
    const std::string response_type = service_codec::AdvertisedType<Res>();
    std::shared_ptr<void> node = lumis_interface::GetLumisNode(node_id_a, node_id_b);
    if (!node) {
      KORVAN_LOG_ERROR << "Creatation failed for Service " << service_name;
      return;
    }
    korvan::bus::BusParam param{};
    param.name = service_name;
    param.request_type = request_type;
    param.response_type = response_type;
    param.handler = [this](const std::shared_ptr<void>& request) { return Handle(request); };
    param.serializer = &service_codec::Serialize<Res>;
    param.size = &service_codec::Size<Res>;
    param.deserializer = &service_codec::Deserialize<Req>;
    service_object_ = lumis_interface::GetLumisServiceObject(node.get(), &param);
    KORVAN_LOG_INFO << "Created Service " << service_name << " with req type: " << request_type
                    << " and res type: " << response_type;
  }

  ~Service() override {
    // The bus's threads stop before the callback they call goes away.
    service_object_.reset();
    callback_ = nullptr;
  }

  // True when the bus accepted the service.
  bool Registered() const { return service_object_ != nullptr; }

 private:
  std::shared_ptr<void> Handle(const std::shared_ptr<void>& raw) {
    std::shared_ptr<Req> request = std::static_pointer_cast<Req>(raw);
    auto response = std::make_shared<Res>();
    if (!callback_) {
      KORVAN_LOG_ERROR << "Service shouldn't use nullptr as callback for " << topic();
      return response;
    }
    return callback_(request);
  }

  std::shared_ptr<void> service_object_;
  Callback callback_;
};

}  // namespace quessa
}  // namespace tarvik
