#include "core/service_objects.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "config/bus_config.h"
#include "core/qos_rules.h"
#include "korvan/bus/service_topics.h"
#include "support/child_process.h"
#include "support/test_environment.h"

namespace {

namespace bus = tarvik::korvan::bus;
using bus::BusCore;
using bus::ClientObject;
using bus::ServiceObject;
using namespace std::chrono_literals;

constexpr auto kDeadline = 20s;
constexpr long kLongTimeoutMs = 20000;
const std::string kType = "test.Text";

// Requests and responses are plain strings here.
bus::BusParam StringCodec(
    const std::string& name,
    std::function<std::shared_ptr<void>(const std::shared_ptr<void>&)> handler = nullptr) {
  bus::BusParam param;
  param.name = name;
  param.request_type = kType;
  param.response_type = kType;
  param.handler = std::move(handler);
  param.size = [](const void* msg) {
    return static_cast<int>(static_cast<const std::string*>(msg)->size());
  };
  param.serializer = [](const void* msg, void* buf, int size) {
    const auto& text = *static_cast<const std::string*>(msg);
    std::memcpy(buf, text.data(), text.size());
    return size == static_cast<int>(text.size());
  };
  param.deserializer = [](const void* data, int size, std::shared_ptr<void>* out) {
    *out = std::make_shared<std::string>(static_cast<const char*>(data), size);
    return true;
  };
  return param;
}

const std::string& TextOf(const std::shared_ptr<void>& message) {
  return *static_cast<const std::string*>(message.get());
}

// The answer to `request`, or "(null)".
std::string Call(ClientObject& client, const std::string& request, long timeout_ms) {
  bus::CallArgument argument;
  argument.request = std::make_shared<std::string>(request);
  argument.timeout_ms = timeout_ms;
  std::shared_ptr<void> response = client.Call(argument);
  return response ? TextOf(response) : "(null)";
}

// The channels of a service's topics as the service itself opens them.
bus::TopicConfig ServiceTopic(const std::string& topic) {
  bus::TopicConfig config;
  config.set_name(topic);
  bus::Qos qos;
  qos.set_history(bus::kHistoryKeepAll);
  qos.set_depth(64);
  qos.set_durability(bus::kDurabilityTransientLocal);
  qos.set_reliability(bus::kReliabilityReliable);
  qos.set_lifespan_ms(10000);
  *config.mutable_qos() = bus::CompleteQos(qos);
  config.set_delivery_threads(1);
  return config;
}

// A service made by hand from the two channels: it records each request with its
// correlation and answers only what, when and to whom the test says.
class ManualService {
 public:
  struct Request {
    std::string bytes;
    bus::Correlation correlation;
  };

  ManualService(const std::shared_ptr<BusCore>& core, const std::string& name) {
    responses_ = bus::ChannelWriter::Open(core, ServiceTopic(name + bus::kServiceResponseSuffix),
                                          kType, nullptr, "manual");
    auto queue = std::make_shared<bus::DeliveryQueue>(
        name, bus::DeliveryQueue::Limits{},
        [](const bus::InboundSample& sample, bus::DeliveryItem* item) {
          if (sample.is_object || sample.correlation == nullptr)
            return false;
          item->bytes.assign(static_cast<const char*>(sample.data), sample.size);
          item->correlation = *sample.correlation;
          return true;
        },
        [this](bus::DeliveryItem& item) {
          std::lock_guard<std::mutex> lock(mutex_);
          requests_.push_back({item.bytes, item.correlation});
        });
    reader_ = bus::ChannelReader::Open(core, ServiceTopic(name + bus::kServiceRequestSuffix), kType,
                                       nullptr, "manual", queue);
  }
  bool ok() const { return responses_ && reader_; }

  // The request that carries `text`, once it arrived. (Requests sent before the service
  // existed arrive too: they are replayed to it.)
  bool WaitForRequest(const std::string& text, Request* out) {
    return korvan_test::WaitFor(
        [&] {
          std::lock_guard<std::mutex> lock(mutex_);
          for (const Request& request : requests_) {
            if (request.bytes == text) {
              *out = request;
              return true;
            }
          }
          return false;
        },
        kDeadline);
  }

  void Answer(uint64_t request_id, const std::string& origin, const std::string& text) {
    bus::OutboundSample sample(text, kType);
    sample.correlation.request_id = request_id;
    sample.correlation.origin = origin;
    responses_->Write(sample);
  }

 private:
  std::mutex mutex_;  // guards requests_
  std::vector<Request> requests_;
  std::unique_ptr<bus::ChannelWriter> responses_;
  std::unique_ptr<bus::ChannelReader> reader_;
};

// A thread that is joined however the test ends (a pending call ends at its time-out).
class Caller {
 public:
  explicit Caller(std::function<void()> fn) : thread_(std::move(fn)) {}
  ~Caller() { Join(); }
  void Join() {
    if (thread_.joinable())
      thread_.join();
  }

 private:
  std::thread thread_;
};

class ServiceObjectsTest : public ::testing::Test {
 protected:
  // The in-process transport only.
  std::shared_ptr<BusCore> core_ =
      std::make_shared<BusCore>("service_test", bus::kTransportLocal, nullptr);
  bus::BusNode node_{"node", "", "node", "node-id"};
  std::string name_ = korvan_test::UniqueName("service");
};

TEST_F(ServiceObjectsTest, ConcurrentCallsFromSeveralThreadsEachGetTheirOwnAnswer) {
  auto service =
      ServiceObject::Create(core_, node_, StringCodec(name_, [](const auto& request) {
                              return std::make_shared<std::string>("re:" + TextOf(request));
                            }));
  ASSERT_NE(service, nullptr);
  std::vector<std::shared_ptr<ClientObject>> clients;
  for (int c = 0; c < 2; ++c) {
    clients.push_back(ClientObject::Create(core_, node_, StringCodec(name_)));
    ASSERT_NE(clients.back(), nullptr);
    ASSERT_NE(clients.back()->WaitForService(kLongTimeoutMs), nullptr);
  }

  // The service answers on several threads, so answers overtake each other.
  std::atomic<int> wrong{0};
  std::vector<std::thread> callers;
  for (int c = 0; c < 2; ++c) {
    for (int t = 0; t < 4; ++t) {
      callers.emplace_back([&, c, t] {
        for (int n = 0; n < 50; ++n) {
          const std::string request =
              "c" + std::to_string(c) + "t" + std::to_string(t) + "n" + std::to_string(n);
          if (Call(*clients[c], request, kLongTimeoutMs) != "re:" + request)
            ++wrong;
        }
      });
    }
  }
  for (auto& caller : callers)
    caller.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(ServiceObjectsTest, AServiceThatGivesNoResponseEndsTheCallWithNull) {
  auto service = ServiceObject::Create(
      core_, node_, StringCodec(name_, [](const auto&) { return std::shared_ptr<void>(); }));
  auto client = ClientObject::Create(core_, node_, StringCodec(name_));
  ASSERT_NE(client->WaitForService(kLongTimeoutMs), nullptr);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Call(*client, "anything", kLongTimeoutMs), "(null)");
  // Told by the service, not by the time-out.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(kLongTimeoutMs));
}

TEST_F(ServiceObjectsTest, OnlyTheFirstAnswerAddressedToTheCallerCounts) {
  ManualService service(core_, name_);
  ASSERT_TRUE(service.ok());
  auto client = ClientObject::Create(core_, node_, StringCodec(name_));
  ASSERT_NE(client->WaitForService(kLongTimeoutMs), nullptr);

  std::string first_result;
  Caller first([&] { first_result = Call(*client, "q1", kLongTimeoutMs); });
  ManualService::Request request;
  ASSERT_TRUE(service.WaitForRequest("q1", &request));
  const bus::Correlation asked = request.correlation;
  service.Answer(asked.request_id, "another client", "for another client");
  service.Answer(asked.request_id + 1000, asked.origin, "for a request never made");
  service.Answer(asked.request_id, asked.origin, "first");
  service.Answer(asked.request_id, asked.origin, "second");
  first.Join();
  EXPECT_EQ(first_result, "first");

  // The dropped second answer does not linger for the next call.
  std::string next_result;
  Caller next([&] { next_result = Call(*client, "q2", kLongTimeoutMs); });
  ASSERT_TRUE(service.WaitForRequest("q2", &request));
  EXPECT_NE(request.correlation.request_id, asked.request_id);
  service.Answer(request.correlation.request_id, request.correlation.origin, "answer to q2");
  next.Join();
  EXPECT_EQ(next_result, "answer to q2");
}

TEST_F(ServiceObjectsTest, ACallNobodyAnswersReturnsNullAtItsTimeOut) {
  auto client = ClientObject::Create(core_, node_, StringCodec(name_));
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(client->WaitForService(50), nullptr);
  // With no service at all the call fails at once rather than at its time-out.
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Call(*client, "nobody there", kLongTimeoutMs), "(null)");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(kLongTimeoutMs));

  // A service that answers too late: the call has ended, the answer is dropped, and it is
  // not taken for the answer of the next call.
  ManualService service(core_, name_);
  ASSERT_TRUE(service.ok());
  ASSERT_NE(client->WaitForService(kLongTimeoutMs), nullptr);
  EXPECT_EQ(Call(*client, "too slow", 100), "(null)");
  ManualService::Request late;
  ASSERT_TRUE(service.WaitForRequest("too slow", &late));
  service.Answer(late.correlation.request_id, late.correlation.origin, "late");

  std::string result;
  Caller caller([&] { result = Call(*client, "in time", kLongTimeoutMs); });
  ManualService::Request request;
  ASSERT_TRUE(service.WaitForRequest("in time", &request));
  service.Answer(late.correlation.request_id, late.correlation.origin, "late again");
  service.Answer(request.correlation.request_id, request.correlation.origin, "on time");
  caller.Join();
  EXPECT_EQ(result, "on time");
}

}  // namespace
