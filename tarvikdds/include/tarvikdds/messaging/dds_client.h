// Client<Req, Res>: the calling end of a request/response exchange. Finds the named service
// on the bus, probes once that it is reachable, and sends one request per Call, blocking
// until the response or the time-out.
//
// Call may be used from several threads at once; each call gets its own response.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "infra/mutex.h"
#include "korvan/bus/bus_param.h"
#include "tarvikdds/detail/logging.h"
#include "tarvikdds/lumis_interface.h"
#include "tarvikdds/messaging/dds_participant.h"
#include "tarvikdds/messaging/service_codec.h"

namespace tarvik {
namespace quessa {

template <typename Req, typename Res>
class Client : public Participant {
 public:
  // `node_id_a`, `node_id_b`: the owning node's constructor strings (name, domain).
  Client(const std::string& service_name, const std::string& node_id_a,
         const std::string& node_id_b)
      : Participant(service_name), service_name_(service_name) {
    KORVAN_LOG_INFO << "[timeline] Creating Client for Service " << service_name;
    const std::string request_type = service_codec::AdvertisedType<Req>();
    const std::string response_type = service_codec::AdvertisedType<Res>();
    std::shared_ptr<void> node = lumis_interface::GetLumisNode(node_id_a, node_id_b);
    if (!node) {
      KORVAN_LOG_ERROR << "Creatation failed for Client " << service_name;
      return;
    }
    korvan::bus::BusParam param{};
    param.name = service_name;
    param.request_type = request_type;
    param.response_type = response_type;
    param.serializer = &service_codec::Serialize<Req>;
    param.size = &service_codec::Size<Req>;
    param.deserializer = &service_codec::Deserialize<Res>;
    client_object_ = lumis_interface::GetLumisClientObject(node.get(), &param);
    KORVAN_LOG_INFO << "Created Client for Service " << service_name
                    << " with req type: " << request_type << " and res type: " << response_type;
  }

  // Whether the service answers, waiting at most `wait` milliseconds.
  bool WaitForService(long wait) {
    if (!client_object_) {
      KORVAN_LOG_ERROR << "Client hasn't been constructed: " << service_name_;
      return false;
    }
    korvan::bus::BusParam request{};
    request.arg = &wait;
    return lumis_interface::SetLumisClientRequest("WaitForService", client_object_.get(),
                                                  &request) != nullptr;
  }

  // The response, or null on time-out (`timeout_s` seconds), failure, or a service that
  // gave none. Until a first probe succeeded, each call probes the service for up to a second.
  std::shared_ptr<Res> Call(const std::shared_ptr<Req>& request, unsigned long timeout_s) {
    if (!ready_.load(std::memory_order_relaxed)) {
      {
        korvan::inf::MutexLock lock(&probe_lock_);
        ready_.store(WaitForService(1000), std::memory_order_relaxed);
      }
      if (ready_.load(std::memory_order_relaxed)) {
        KORVAN_LOG_INFO << "Service is ready: " << service_name_;
      } else {
        KORVAN_LOG_WARNING << "Service is not ready: " << service_name_;
        return nullptr;
      }
    }
    KORVAN_LOG_DETAIL << "Calling Service " << service_name_ << " with timeout value " << timeout_s;
    korvan::bus::CallArgument argument;
    argument.request = request;
    argument.timeout_ms = static_cast<long>(timeout_s * 1000);
    korvan::bus::BusParam call{};
    call.arg = &argument;
    return std::static_pointer_cast<Res>(
        lumis_interface::SetLumisClientRequest("Call", client_object_.get(), &call));
  }

  ~Client() override { client_object_.reset(); }

  const std::string& service_name() const { return service_name_; }

 private:
  korvan::inf::Mutex probe_lock_;   // one probe at a time
  std::atomic<bool> ready_{false};  // set once a probe succeeded; never cleared
  std::shared_ptr<void> client_object_;
  std::string service_name_;
};

}  // namespace quessa
}  // namespace tarvik
