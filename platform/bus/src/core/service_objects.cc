#include "core/service_objects.h"

#include <chrono>
#include <set>

#include <google/protobuf/descriptor.h>

#include "core/qos_rules.h"
#include "infra/env.h"
#include "infra/global_data.h"
#include "infra/mutex.h"
#include "korvan/bus/service_topics.h"
#include "trevam/log.h"

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

constexpr char kModule[] = "korvan_bus";
constexpr int kServiceThreads = 4;
constexpr uint32_t kReplayDepth = 64;
constexpr uint32_t kReplayLifespanMs = 10000;

TopicConfig ChannelConfig(const std::string& topic, int delivery_threads) {
  TopicConfig config;
  config.set_name(topic);
  Qos* qos = config.mutable_qos();
  qos->set_history(kHistoryKeepAll);
  qos->set_depth(kReplayDepth);
  qos->set_durability(kDurabilityTransientLocal);
  qos->set_reliability(kReliabilityReliable);
  qos->set_lifespan_ms(kReplayLifespanMs);
  qos->set_max_samples(kDefaultMaxSamples);
  config.set_delivery_threads(delivery_threads);
  return config;
}

// Encodes `msg` with the record's codec. The codec announces an empty message as 32 bytes
// and writes nothing into them; a first byte of 0 can never start a message, so such a
// buffer is sent as the empty message it is.
bool Encode(const BusParam& param, const void* msg, std::string* out) {
  const int size = param.size ? param.size(msg) : -1;
  if (size < 0 || !param.serializer)
    return false;
  out->assign(static_cast<size_t>(size), '\0');
  if (!param.serializer(msg, &(*out)[0], size))
    return false;
  if (!out->empty() && (*out)[0] == '\0')
    out->clear();
  return true;
}

// The descriptor of a service's type: given, or compiled into this program; null for "*".
const google::protobuf::Descriptor* TypeOf(const google::protobuf::Descriptor* given,
                                           const std::string& name) {
  if (given != nullptr || name == "*")
    return given;
  return google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(name);
}

// Request types a service has warned about, once each.
struct WarnedTypes {
  inf::Mutex mutex;
  std::set<std::string> types KORVAN_GUARDED_BY(mutex);
};

bool CopySample(const InboundSample& sample, DeliveryItem* item) {
  if (sample.is_object || sample.correlation == nullptr)
    return false;
  item->bytes.assign(static_cast<const char*>(sample.data), sample.size);
  item->correlation = *sample.correlation;
  return true;
}

}  // namespace

std::shared_ptr<ServiceObject> ServiceObject::Create(const std::shared_ptr<BusCore>& core,
                                                     const BusNode& node, const BusParam& param) {
  auto service = std::make_shared<ServiceObject>();
  service->responses_ = ChannelWriter::Open(
      core, ChannelConfig(param.name + kServiceResponseSuffix, 1), param.response_type,
      TypeOf(param.response_descriptor, param.response_type), node.bus_name);
  if (!service->responses_)
    return nullptr;

  // The handler and codec are copied: the record dies when its caller returns.
  auto record = std::make_shared<BusParam>(param);
  record->arg = nullptr;
  ChannelWriter* responses = service->responses_.get();
  auto warned_types = std::make_shared<WarnedTypes>();
  auto queue = std::make_shared<DeliveryQueue>(
      param.name + kServiceRequestSuffix, DeliveryQueue::Limits::For(ChannelConfig("", 1).qos()),
      [record, warned_types](const InboundSample& sample, DeliveryItem* item) {
        if (!CopySample(sample, item))
          return false;
        const std::string& sent = *sample.type_name;
        if (sent != record->request_type && sent != "*" && record->request_type != "*") {
          inf::MutexLock lock(&warned_types->mutex);
          if (warned_types->types.insert(sent).second) {
            TREVAM_WARNING(kModule) << "service '" << record->name << "': a client sends " << sent
                                    << ", the service reads " << record->request_type;
          }
        }
        return true;
      },
      [record, responses](DeliveryItem& item) {
        Correlation reply;
        reply.request_id = item.correlation.request_id;
        reply.origin = item.correlation.origin;
        std::shared_ptr<void> request;
        std::string bytes;
        if (!record->deserializer ||
            !record->deserializer(item.bytes.data(), static_cast<int>(item.bytes.size()),
                                  &request)) {
          TREVAM_WARNING(kModule) << "service '" << record->name
                                  << "': a request does not decode; no response";
          reply.flags = kCorrelationNoResponse;
        } else {
          std::shared_ptr<void> response = record->handler ? record->handler(request) : nullptr;
          if (!response) {
            reply.flags = kCorrelationNoResponse;
          } else if (!Encode(*record, response.get(), &bytes)) {
            TREVAM_ERROR(kModule) << "service '" << record->name
                                  << "': a response does not encode; no response";
            reply.flags = kCorrelationNoResponse;
          }
        }
        OutboundSample answer(std::move(bytes), record->response_type);
        answer.correlation = reply;
        responses->Write(answer);
      });
  service->requests_ = ChannelReader::Open(
      core, ChannelConfig(param.name + kServiceRequestSuffix, kServiceThreads), param.request_type,
      TypeOf(param.request_descriptor, param.request_type), node.bus_name, queue);
  if (!service->requests_)
    return nullptr;
  return service;
}

struct ClientObject::Shared {
  std::string name;
  std::string identity;  // echoed by the service in every response for us
  inf::Mutex mutex;
  inf::CondVar answered;
  std::unordered_map<uint64_t, Pending*> pending KORVAN_GUARDED_BY(mutex);
  std::atomic<uint64_t> next_request{0};
};

std::shared_ptr<ClientObject> ClientObject::Create(const std::shared_ptr<BusCore>& core,
                                                   const BusNode& node, const BusParam& param) {
  std::shared_ptr<ClientObject> client(new ClientObject());
  client->shared_ = std::make_shared<Shared>();
  client->shared_->name = param.name;
  client->shared_->identity = common::GlobalData::GenerateUUID();
  std::shared_ptr<Shared> shared = client->shared_;
  // A call waits for its answer or for the last service to go, whichever comes first; the
  // transports say when a service came or went.
  auto wake_callers = [shared] {
    { inf::MutexLock lock(&shared->mutex); }
    shared->answered.SignalAll();
  };
  client->requests_ = ChannelWriter::Open(
      core, ChannelConfig(param.name + kServiceRequestSuffix, 1), param.request_type,
      TypeOf(param.request_descriptor, param.request_type), node.bus_name, wake_callers);
  if (!client->requests_)
    return nullptr;

  auto queue = std::make_shared<DeliveryQueue>(
      param.name + kServiceResponseSuffix, DeliveryQueue::Limits::For(ChannelConfig("", 1).qos()),
      [shared](const InboundSample& sample, DeliveryItem* item) {
        // Responses to other clients, and replayed old ones, are none of our business.
        return sample.correlation != nullptr && sample.correlation->origin == shared->identity &&
               CopySample(sample, item);
      },
      [shared](DeliveryItem& item) {
        inf::MutexLock lock(&shared->mutex);
        auto it = shared->pending.find(item.correlation.request_id);
        if (it == shared->pending.end() || it->second->done)
          return;  // late or a second answer
        it->second->done = true;
        it->second->no_response = (item.correlation.flags & kCorrelationNoResponse) != 0;
        it->second->bytes = std::move(item.bytes);
        shared->answered.SignalAll();
      });
  client->responses_ = ChannelReader::Open(
      core, ChannelConfig(param.name + kServiceResponseSuffix, 1), param.response_type,
      TypeOf(param.response_descriptor, param.response_type), node.bus_name, queue, wake_callers);
  if (!client->responses_)
    return nullptr;
  client->codec_ = std::make_shared<BusParam>(param);
  client->codec_->arg = nullptr;
  return client;
}

ClientObject::~ClientObject() = default;

std::shared_ptr<void> ClientObject::WaitForService(long wait_ms) {
  inf::Env* env = inf::Env::Current();
  const uint64_t deadline =
      env->NowNanos() + static_cast<uint64_t>(wait_ms > 0 ? wait_ms : 0) * 1000000;
  for (;;) {
    if (requests_->MatchedReaders() > 0 && responses_->MatchedWriters() > 0) {
      return std::make_shared<bool>(true);
    }
    if (env->NowNanos() >= deadline)
      return nullptr;
    env->SleepForNanos(2000000);
  }
}

bool ClientObject::NoService() {
  // Neither half of a match with any service is left. A half match is a service still being
  // discovered (its request will be replayed to it), not a lost one.
  return requests_->MatchedReaders() == 0 && responses_->MatchedWriters() == 0;
}

std::shared_ptr<void> ClientObject::Call(const CallArgument& argument) {
  std::string bytes;
  if (!argument.request || !Encode(*codec_, argument.request.get(), &bytes)) {
    TREVAM_ERROR(kModule) << "client of '" << shared_->name << "': the request does not encode";
    return nullptr;
  }
  if (NoService()) {
    TREVAM_INFO(kModule) << "client of '" << shared_->name << "': no service; the call fails";
    return nullptr;
  }
  const uint64_t id = ++shared_->next_request;
  Pending pending;
  {
    inf::MutexLock lock(&shared_->mutex);
    shared_->pending[id] = &pending;
  }
  OutboundSample sample(std::move(bytes), codec_->request_type);
  sample.correlation.request_id = id;
  sample.correlation.origin = shared_->identity;
  requests_->Write(sample);

  inf::MutexLock lock(&shared_->mutex);
  const auto deadline =
      std::chrono::steady_clock::now() +
      std::chrono::milliseconds(argument.timeout_ms > 0 ? argument.timeout_ms : 0);
  bool gone = false;
  while (!pending.done && !(gone = NoService()) &&
         shared_->answered.WaitUntil(&shared_->mutex, deadline)) {
  }
  shared_->pending.erase(id);
  lock.Release();
  if (gone && !pending.done) {
    TREVAM_WARNING(kModule) << "client of '" << shared_->name
                            << "': every service left during the call (process ended or lease "
                               "expired); the call fails";
  }
  if (!pending.done || pending.no_response || !codec_->deserializer)
    return nullptr;
  std::shared_ptr<void> response;
  if (!codec_->deserializer(pending.bytes.data(), static_cast<int>(pending.bytes.size()),
                            &response)) {
    TREVAM_WARNING(kModule) << "client of '" << shared_->name << "': a response does not decode";
    return nullptr;
  }
  return response;
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
