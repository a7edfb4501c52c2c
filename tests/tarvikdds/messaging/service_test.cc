// Services and clients in one process (the in-process transport only).
#include "tarvikdds/messaging/dds_service.h"

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "korvan/bus/lumis_component.h"
#include "support/child_process.h"
#include "support/test_environment.h"
#include "tarvikdds/messaging/dds_client.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/proto/raw_message.pb.h"
#include "tarvikdds/proto/tarvikdds_parameter.pb.h"
#include "test_proto/test_messages.pb.h"

namespace {

using korvan::test::PlainMessage;
using korvan::test::PlainMessageTwin;
using korvan_test::LogCapture;
using korvan_test::UniqueName;
using tarvik::korvan::BoolResult;
using tarvik::quessa::Client;
using tarvik::quessa::Node;
using tarvik::quessa::Service;
using tarvik::quessa::messages::internal::RawMessage;
namespace service_codec = tarvik::quessa::service_codec;
using namespace std::chrono_literals;

using Echo = Service<PlainMessage, PlainMessageTwin>;
using EchoClient = Client<PlainMessage, PlainMessageTwin>;

std::shared_ptr<PlainMessageTwin> EchoOf(const std::shared_ptr<PlainMessage>& request) {
  auto response = std::make_shared<PlainMessageTwin>();
  response->set_sequence(request->sequence());
  response->set_text("echo:" + request->text());
  return response;
}

std::shared_ptr<PlainMessage> Request(uint64_t sequence, const std::string& text = "") {
  auto request = std::make_shared<PlainMessage>();
  request->set_sequence(sequence);
  request->set_text(text);
  return request;
}

class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    korvan_test::UseLocalBus();
    node_ = Node::CreateNode(UniqueName("svc_node"), "dom");
  }
  std::unique_ptr<Node> node_;
};

TEST_F(ServiceTest, CallReturnsTheServicesAnswer) {
  const std::string name = UniqueName("echo");
  LogCapture log(4);
  Echo service(name, &EchoOf, node_->name(), node_->domain());
  EXPECT_TRUE(service.Registered());
  EXPECT_EQ(log.Count("Created Service " + name +
                      " with req type: korvan.test.PlainMessage and res type: "
                      "korvan.test.PlainMessageTwin"),
            1u);
  EchoClient client(name, node_->name(), node_->domain());
  EXPECT_TRUE(client.WaitForService(1000));
  auto response = client.Call(Request(7, "hi"), 5);
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->sequence(), 7u);
  EXPECT_EQ(response->text(), "echo:hi");
  EXPECT_EQ(log.Count("Service is ready: " + name), 1u);
  client.Call(Request(8), 5);
  EXPECT_EQ(log.Count("Service is ready: " + name), 1u);  // probed once
}

TEST_F(ServiceTest, ConcurrentCallsEachGetTheirOwnAnswer) {
  const std::string name = UniqueName("concurrent");
  std::atomic<int> in_handler{0};
  std::atomic<int> most_at_once{0};
  Echo service(
      name,
      [&](const std::shared_ptr<PlainMessage>& request) {
        int now = ++in_handler;
        int seen = most_at_once.load();
        while (now > seen && !most_at_once.compare_exchange_weak(seen, now)) {
        }
        auto response = EchoOf(request);
        --in_handler;
        return response;
      },
      node_->name(), node_->domain());
  EchoClient client(name, node_->name(), node_->domain());
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        const uint64_t sequence = t * 1000 + i;
        auto response = client.Call(Request(sequence, std::to_string(sequence)), 10);
        if (!response || response->sequence() != sequence ||
            response->text() != "echo:" + std::to_string(sequence)) {
          ++wrong;
        }
      }
    });
  }
  for (auto& t : threads)
    t.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(ServiceTest, EmptyCallbackAnswersDefaultsAndComplainsPerRequest) {
  const std::string name = UniqueName("empty");
  Echo service(name, nullptr, node_->name(), node_->domain());
  EchoClient client(name, node_->name(), node_->domain());
  LogCapture log(2);
  for (int i = 0; i < 2; ++i) {
    auto response = client.Call(Request(i), 5);
    ASSERT_NE(response, nullptr);  // an empty message, announced as 32 bytes on the way
    EXPECT_EQ(response->ByteSizeLong(), 0u);
  }
  EXPECT_EQ(log.Count("Service shouldn't use nullptr as callback for " + name), 2u);
}

TEST_F(ServiceTest, NullResponseComesBackAsNullWithoutWaiting) {
  const std::string name = UniqueName("null");
  Echo service(
      name, [](const std::shared_ptr<PlainMessage>&) { return nullptr; }, node_->name(),
      node_->domain());
  EchoClient client(name, node_->name(), node_->domain());
  ASSERT_TRUE(client.WaitForService(1000));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client.Call(Request(1), 30), nullptr);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);
}

TEST_F(ServiceTest, UnknownNodeMakesInertEndpoints) {
  const std::string name = UniqueName("inert");
  LogCapture log(4);
  Echo service(name, &EchoOf, "no-such-node", "dom");
  EXPECT_FALSE(service.Registered());
  EXPECT_EQ(log.Count("[korvan_internal]Creatation failed for Service " + name), 1u);
  EXPECT_EQ(log.Count("Created Service " + name), 0u);
  EchoClient client(name, "no-such-node", "dom");
  EXPECT_EQ(log.Count("Creatation failed for Client " + name), 1u);
  EXPECT_FALSE(client.WaitForService(10));
  EXPECT_EQ(client.Call(Request(1), 1), nullptr);
  EXPECT_EQ(log.Count("Client hasn't been constructed: " + name), 2u);
  EXPECT_EQ(log.Count("Service is not ready: " + name), 1u);
}

TEST_F(ServiceTest, AbsentServiceIsProbedOnEveryCallUntilItAppears) {
  const std::string name = UniqueName("later");
  EchoClient client(name, node_->name(), node_->domain());
  LogCapture log(3);
  EXPECT_EQ(client.Call(Request(1), 1), nullptr);
  EXPECT_EQ(log.Count("Service is not ready: " + name), 1u);
  EXPECT_EQ(log.SeverityOf("Service is not ready"), google::GLOG_WARNING);
  auto service = std::make_unique<Echo>(name, &EchoOf, node_->name(), node_->domain());
  ASSERT_NE(client.Call(Request(2), 5), nullptr);
  // Once ready, a vanished service is a time-out, not a new probe.
  service.reset();
  EXPECT_EQ(client.Call(Request(3), 1), nullptr);
  EXPECT_EQ(log.Count("Service is not ready: " + name), 1u);
}

TEST_F(ServiceTest, TwoServicesOfOneNameGiveOneAnswer) {
  const std::string name = UniqueName("twice");
  std::atomic<int> handled{0};
  auto handler = [&](const std::shared_ptr<PlainMessage>& request) {
    ++handled;
    return EchoOf(request);
  };
  Echo first(name, handler, node_->name(), node_->domain());
  Echo second(name, handler, node_->name(), node_->domain());
  EchoClient client(name, node_->name(), node_->domain());
  for (int i = 0; i < 20; ++i) {
    auto response = client.Call(Request(i), 5);
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->sequence(), static_cast<uint64_t>(i));
  }
  EXPECT_TRUE(korvan_test::WaitFor([&] { return handled == 40; }, 10s));
}

TEST_F(ServiceTest, RawEnvelopeIsAdvertisedAsAnyType) {
  const std::string name = UniqueName("raw");
  Service<RawMessage, BoolResult> service(
      name, [](const std::shared_ptr<RawMessage>&) { return std::make_shared<BoolResult>(); },
      node_->name(), node_->domain());
  tarvik::korvan::bus::LumisComponent discovery;
  std::vector<tarvik::korvan::bus::RoleAttr> subscribers;
  ASSERT_TRUE(discovery.listAllSubscribers(&subscribers));
  bool found = false;
  for (const auto& s : subscribers) {
    if (s.topic_name == name + "__SRV__REQUEST") {
      found = true;
      EXPECT_EQ(s.type_name, "*");
      EXPECT_EQ(s.node_name, node_->node_name());
    }
  }
  EXPECT_TRUE(found);
}

TEST(ServiceCodecTest, EmptyMessagesAreAnnouncedAs32Bytes) {
  BoolResult empty;
  EXPECT_EQ(empty.ByteSizeLong(), 0u);
  EXPECT_EQ(service_codec::Size<BoolResult>(&empty), 32);
  BoolResult set;
  set.set_value(true);
  EXPECT_EQ(service_codec::Size<BoolResult>(&set), 2);
  char buffer[4];
  EXPECT_FALSE(service_codec::Serialize<BoolResult>(&set, nullptr, 2));
  EXPECT_TRUE(service_codec::Serialize<BoolResult>(&set, buffer, 2));
  std::shared_ptr<void> out;
  EXPECT_FALSE(service_codec::Deserialize<BoolResult>(nullptr, 2, &out));
  EXPECT_NE(out, nullptr);  // the fresh message is stored first
  EXPECT_TRUE(service_codec::Deserialize<BoolResult>(buffer, 2, &out));
  EXPECT_TRUE(std::static_pointer_cast<BoolResult>(out)->value());
}

}  // namespace
