// Arbitrary bytes as samples off the wire, handed through a fake network transport to the
// three readers that take bytes from other processes: a subscriber of a stamped type (parse,
// CRC over the wire bytes, counter and publisher checks, callback), a service (request
// decode, handler, response encode) and a client waiting for its answer (correlation
// matching, response decode).
//
// Input: byte 0 picks the reader, byte 1 the envelope fields (type name, description
// fingerprint, correlation), the rest is the payload.
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "fuzz_proto/fuzz_messages.pb.h"
#include "korvan/bus/bus_param.h"
#include "korvan/bus/korvan_bus_manager.h"
#include "korvan/bus/transport.h"
#include "korvan/bus/transport_factory.h"
#include "korvan/bus/type_description.h"
#include "quiet_logs.h"
#include "tarvikdds/application/init.h"
#include "tarvikdds/lumis_interface.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/messaging/dds_service.h"
#include "tarvikdds/messaging/service_codec.h"

namespace {

namespace bus = tarvik::korvan::bus;
using korvan::fuzz::Request;
using korvan::fuzz::Response;
using korvan::fuzz::Stamped;
using namespace std::chrono_literals;

constexpr char kTopic[] = "fuzz/stamped";
constexpr char kService[] = "fuzz_service";
constexpr char kRemote[] = "fuzz_remote";  // a client whose service is elsewhere

// What the bus wrote on one topic.
struct Written {
  std::mutex mutex;
  std::condition_variable changed;
  uint64_t count = 0;
  bus::Correlation last;
};

class FakeWriter : public bus::TransportWriter {
 public:
  explicit FakeWriter(std::shared_ptr<Written> written) : written_(std::move(written)) {}
  int Write(bus::OutboundSample& sample) override {
    sample.Bytes();  // the wire form is made, as a network writer would
    std::lock_guard<std::mutex> lock(written_->mutex);
    ++written_->count;
    written_->last = sample.correlation;
    written_->changed.notify_all();
    return 1;
  }
  int MatchedReaders() override { return 1; }  // the peers are out there

 private:
  std::shared_ptr<Written> written_;
};

class FakeReader : public bus::TransportReader {
 public:
  size_t Take(size_t, const std::function<void(const bus::InboundSample&)>&) override {
    return 0;  // the fuzzer pushes
  }
  int MatchedWriters() override { return 1; }
};

class FakeNetwork : public bus::Transport {
 public:
  const char* Name() const override { return "fuzz"; }
  std::unique_ptr<bus::TransportWriter> CreateWriter(
      const bus::EndpointDescription& endpoint) override {
    return std::make_unique<FakeWriter>(WrittenOn(endpoint.topic));
  }
  std::unique_ptr<bus::TransportReader> CreateReader(
      const bus::EndpointDescription& endpoint, std::shared_ptr<bus::ReaderSink> sink) override {
    std::lock_guard<std::mutex> lock(mutex_);
    sinks_[endpoint.topic] = std::move(sink);
    return std::make_unique<FakeReader>();
  }
  void Announce(const bus::EntityRecord&) override {}
  void Withdraw(const std::string&) override {}
  bool ListEntities(std::vector<bus::EntityRecord>*) override { return true; }

  std::shared_ptr<bus::ReaderSink> Sink(const std::string& topic) {
    std::lock_guard<std::mutex> lock(mutex_);
    return sinks_[topic];
  }
  std::shared_ptr<Written> WrittenOn(const std::string& topic) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto& written = written_[topic];
    if (!written)
      written = std::make_shared<Written>();
    return written;
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<bus::ReaderSink>> sinks_;
  std::map<std::string, std::shared_ptr<Written>> written_;
};

class FakeFactory : public bus::TransportFactory {
 public:
  std::shared_ptr<bus::Transport> Create(const bus::KorvanBusConfig&, std::string*) override {
    return network;
  }
  std::shared_ptr<FakeNetwork> network = std::make_shared<FakeNetwork>();
};

FakeFactory* g_factory = nullptr;
std::unique_ptr<tarvik::quessa::Node> g_node;
std::shared_ptr<tarvik::quessa::Subscriber<Stamped>> g_subscriber;
std::unique_ptr<tarvik::quessa::Service<Request, Response>> g_service;
std::shared_ptr<void> g_client;  // the bus's client object of kRemote

// Waits until `written` has more than `count` samples; false after a generous while.
bool WaitForWrite(Written& written, uint64_t count, bus::Correlation* last = nullptr) {
  std::unique_lock<std::mutex> lock(written.mutex);
  if (!written.changed.wait_for(lock, 10s, [&] { return written.count > count; }))
    return false;
  if (last != nullptr)
    *last = written.last;
  return true;
}

uint64_t Count(Written& written) {
  std::lock_guard<std::mutex> lock(written.mutex);
  return written.count;
}

// The envelope's type name and fingerprint, chosen by `fields` around the reader's own.
void ChooseType(uint8_t fields, const google::protobuf::Descriptor* own, std::string* name,
                uint64_t* hash) {
  switch (fields & 3) {
    case 0:
      *name = own->full_name();
      break;
    case 1:
      *name = Request::descriptor()->full_name();
      break;
    case 2:
      *name = "*";
      break;
    default:
      *name = "korvan.fuzz.Unknown";
      break;
  }
  const uint64_t own_hash = bus::DescribeType(own).type_hash;
  switch ((fields >> 2) & 3) {
    case 0:
      *hash = 0;
      break;
    case 1:
      *hash = own_hash;
      break;
    case 2:
      *hash = 1;
      break;
    default:
      *hash = own_hash ^ 1;
      break;
  }
}

void ToSubscriber(uint8_t fields, const uint8_t* payload, size_t size) {
  std::string type_name;
  bus::InboundSample in;
  ChooseType(fields, Stamped::descriptor(), &type_name, &in.type_hash);
  bus::Correlation correlation;
  in.data = payload;
  in.size = size;
  in.type_name = &type_name;
  in.correlation = &correlation;
  g_factory->network->Sink(kTopic)->OnSample(in);  // delivered inline, on this thread
}

void ToService(uint8_t fields, const uint8_t* payload, size_t size) {
  std::string type_name;
  bus::InboundSample in;
  ChooseType(fields, Request::descriptor(), &type_name, &in.type_hash);
  bus::Correlation correlation;
  correlation.request_id = fields;
  correlation.origin = "a-client";
  correlation.flags = (fields & 16) != 0 ? bus::kCorrelationNoResponse : 0;
  in.data = payload;
  in.size = size;
  in.type_name = &type_name;
  in.correlation = &correlation;
  auto responses = g_factory->network->WrittenOn(std::string(kService) + "__SRV__RESPONSE");
  const uint64_t before = Count(*responses);
  g_factory->network->Sink(std::string(kService) + "__SRV__REQUEST")->OnSample(in);
  // Every request is answered, if only with "no response".
  if (!WaitForWrite(*responses, before))
    std::abort();
}

void ToClient(uint8_t fields, const uint8_t* payload, size_t size) {
  auto requests = g_factory->network->WrittenOn(std::string(kRemote) + "__SRV__REQUEST");
  const uint64_t before = Count(*requests);
  std::thread caller([] {
    bus::CallArgument argument;
    auto request = std::make_shared<Request>();
    request->set_id(7);
    argument.request = request;
    argument.timeout_ms = 10000;
    bus::BusParam call{};
    call.arg = &argument;
    tarvik::quessa::lumis_interface::SetLumisClientRequest("Call", g_client.get(), &call);
  });
  bus::Correlation sent;
  if (!WaitForWrite(*requests, before, &sent))
    std::abort();

  std::string type_name;
  bus::InboundSample in;
  ChooseType(fields, Response::descriptor(), &type_name, &in.type_hash);
  bus::Correlation correlation;
  correlation.origin = (fields & 16) != 0 ? sent.origin : "someone-else";
  correlation.request_id = sent.request_id + ((fields & 32) != 0 ? 0 : 1);
  correlation.flags = (fields & 64) != 0 ? bus::kCorrelationNoResponse : 0;
  in.data = payload;
  in.size = size;
  in.type_name = &type_name;
  in.correlation = &correlation;
  auto sink = g_factory->network->Sink(std::string(kRemote) + "__SRV__RESPONSE");
  sink->OnSample(in);
  // Ends the call if the fuzzed answer was not its answer.
  bus::Correlation end = sent;
  end.flags = bus::kCorrelationNoResponse;
  in.correlation = &end;
  in.size = 0;
  sink->OnSample(in);
  caller.join();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  korvan_fuzz::QuietLogs();
  // The stamped topic delivers inline, so a sample is checked on the fuzzing thread.
  const std::string config = std::string("{\"appName\": \"fuzz\", \"topics\": [{\"name\": \"") +
                             kTopic + "\", \"inlineDelivery\": true, \"qos\": {\"history\": 2}}]}";
  const int file = ::memfd_create("bus-config", 0);
  if (file < 0 ||
      ::write(file, config.data(), config.size()) != static_cast<ssize_t>(config.size())) {
    std::perror("bus configuration");
    std::abort();
  }
  const std::string path = "/proc/self/fd/" + std::to_string(file);
  ::setenv("KORVAN_BUS_CONFIG_PATH", path.c_str(), 1);
  ::unsetenv("KORVAN_BUS_TRANSPORT");
  g_factory = new FakeFactory();
  bus::KorvanBusManager::SetTransportFactory(g_factory);
  if (!tarvik::quessa::tarvikdds::Init("fuzz"))
    std::abort();

  g_node = tarvik::quessa::Node::CreateNode("fuzz", "");
  g_subscriber = g_node->CreateSubscriber<Stamped>(
      kTopic, tarvik::quessa::QoS(),
      [](const std::shared_ptr<Stamped>& msg) { msg->ByteSizeLong(); });
  g_service = std::make_unique<tarvik::quessa::Service<Request, Response>>(
      kService,
      [](const std::shared_ptr<Request>& request) -> std::shared_ptr<Response> {
        if (request->id() == 0)
          return nullptr;  // the "no response" path
        auto response = std::make_shared<Response>();
        response->set_id(request->id());
        response->set_payload(request->payload());
        return response;
      },
      "fuzz", "");

  std::shared_ptr<void> node = tarvik::quessa::lumis_interface::GetLumisNode("fuzz", "");
  bus::BusParam param{};
  param.name = kRemote;
  param.request_type = Request::descriptor()->full_name();
  param.response_type = Response::descriptor()->full_name();
  param.serializer = &tarvik::quessa::service_codec::Serialize<Request>;
  param.size = &tarvik::quessa::service_codec::Size<Request>;
  param.deserializer = &tarvik::quessa::service_codec::Deserialize<Response>;
  g_client = tarvik::quessa::lumis_interface::GetLumisClientObject(node.get(), &param);
  if (!g_subscriber || !g_client)
    std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2)
    return 0;
  const uint8_t fields = data[1];
  switch (data[0] % 3) {
    case 0:
      ToSubscriber(fields, data + 2, size - 2);
      break;
    case 1:
      ToService(fields, data + 2, size - 2);
      break;
    default:
      ToClient(fields, data + 2, size - 2);
      break;
  }
  return 0;
}
