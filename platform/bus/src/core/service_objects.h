// The bus objects behind services and clients (private to the bus).
//
// A service reads requests from <name>__SRV__REQUEST and answers on <name>__SRV__RESPONSE; a
// client writes the one and reads the other. Each request carries the client's identity and
// a request number, echoed by the response, so concurrent calls from any number of threads
// and clients each get their own answer. Both channels keep recent samples for late joiners
// (transient-local, 10 s lifespan): the DDS match between two processes completes in two
// steps, and a request or response sent between them is replayed instead of lost.
//
// Two services of one name: both receive every request and both answer; a client takes the
// first answer and drops the others, so it never sees two responses to one request.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <unordered_map>

#include "core/bus_core.h"
#include "core/channel.h"
#include "korvan/bus/bus_param.h"

namespace tarvik {
namespace korvan {
namespace bus {

class ServiceObject {
 public:
  // Null when the channels cannot be opened (logged).
  static std::shared_ptr<ServiceObject> Create(const std::shared_ptr<BusCore>& core,
                                               const BusNode& node, const BusParam& param);

 private:
  std::unique_ptr<ChannelWriter> responses_;
  std::unique_ptr<ChannelReader> requests_;
};

class ClientObject {
 public:
  static std::shared_ptr<ClientObject> Create(const std::shared_ptr<BusCore>& core,
                                              const BusNode& node, const BusParam& param);
  ~ClientObject();

  // Waits up to `wait_ms` for a service to be matched both ways; non-empty when one is.
  std::shared_ptr<void> WaitForService(long wait_ms);
  // Sends the request and waits up to its time-out for the answer; empty on time-out, when
  // the service gave no response, when the response does not decode, and as soon as no
  // service of the name is matched any more (at once when none is at the start; when the
  // last one leaves, its process ends, or its lease expires during the call).
  std::shared_ptr<void> Call(const CallArgument& argument);

 private:
  bool NoService();

  // A call waiting for its answer; written under Shared's mutex.
  struct Pending {
    bool done = false;
    bool no_response = false;
    std::string bytes;
  };
  struct Shared;  // state the response thread and callers share

  std::shared_ptr<Shared> shared_;
  std::shared_ptr<BusParam> codec_;
  std::unique_ptr<ChannelWriter> requests_;
  std::unique_ptr<ChannelReader> responses_;
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
