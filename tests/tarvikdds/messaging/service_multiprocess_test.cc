// Services and clients in different processes, over DDS.
#include <signal.h>

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
#include "tarvikdds/messaging/dds_service.h"
#include "test_proto/test_messages.pb.h"

namespace {

using korvan::test::PlainMessage;
using korvan::test::PlainMessageTwin;
using korvan_test::ChildProcess;
using korvan_test::UniqueName;
using tarvik::quessa::Client;
using tarvik::quessa::Node;
using tarvik::quessa::Service;
using namespace std::chrono_literals;

constexpr int kWaitMs = 60000;

std::shared_ptr<PlainMessageTwin> Echo(const std::shared_ptr<PlainMessage>& request) {
  auto response = std::make_shared<PlainMessageTwin>();
  response->set_sequence(request->sequence());
  response->set_text(request->text());
  return response;
}

// args: service name, stop file
KORVAN_CHILD_ROLE(echo_service) {
  auto node = Node::CreateNode("server", "");
  Service<PlainMessage, PlainMessageTwin> service(args.at(0), &Echo, "server", "");
  CHILD_CHECK(service.Registered());
  printf("READY\n");
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(1), kWaitMs));
  return CHILD_RESULT();
}

// args: service name, threads, calls per thread, tag. Every response must echo its request.
KORVAN_CHILD_ROLE(echo_clients) {
  auto node = Node::CreateNode("caller", "");
  Client<PlainMessage, PlainMessageTwin> client(args.at(0), "caller", "");
  CHILD_CHECK(client.WaitForService(kWaitMs));
  const int threads = std::stoi(args.at(1));
  const int calls = std::stoi(args.at(2));
  const std::string tag = args.at(3);
  std::atomic<int> wrong{0};
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      for (int i = 0; i < calls; ++i) {
        auto request = std::make_shared<PlainMessage>();
        request->set_sequence(static_cast<uint64_t>(t) * 100000 + i);
        request->set_text(tag + "/" + std::to_string(t) + "/" + std::to_string(i));
        auto response = client.Call(request, 30);
        if (!response || response->sequence() != request->sequence() ||
            response->text() != request->text()) {
          ++wrong;
        }
      }
    });
  }
  for (auto& w : workers)
    w.join();
  CHILD_CHECK(wrong == 0);
  printf("WRONG %d\n", wrong.load());
  return CHILD_RESULT();
}

TEST(ServiceMultiProcessTest, EightThreadsInTwoClientProcessesEachGetTheirOwnAnswers) {
  const std::string name = UniqueName("echo");
  const std::string stop = korvan_test::ScratchPath("stop");
  ChildProcess service("echo_service", {name, stop});
  ASSERT_TRUE(service.WaitForOutput("READY", 60s)) << service.output();
  ChildProcess first("echo_clients", {name, "8", "500", "first"});
  ChildProcess second("echo_clients", {name, "8", "500", "second"});
  ASSERT_TRUE(first.Wait(180s)) << first.output();
  ASSERT_TRUE(second.Wait(180s)) << second.output();
  EXPECT_EQ(first.exit_code(), 0) << first.output();
  EXPECT_EQ(second.exit_code(), 0) << second.output();
  korvan_test::TouchFile(stop);
  ASSERT_TRUE(service.Wait(60s));
  EXPECT_EQ(service.exit_code(), 0) << service.output();
}

// args: service name. Never answers: announces each request and blocks.
KORVAN_CHILD_ROLE(stuck_service) {
  auto node = Node::CreateNode("stuck", "");
  Service<PlainMessage, PlainMessageTwin> service(
      args.at(0),
      [](const std::shared_ptr<PlainMessage>&) -> std::shared_ptr<PlainMessageTwin> {
        printf("IN_HANDLER\n");
        fflush(stdout);
        std::this_thread::sleep_for(std::chrono::hours(1));
        return nullptr;
      },
      "stuck", "");
  printf("READY\n");
  fflush(stdout);
  std::this_thread::sleep_for(std::chrono::hours(1));
  return 0;
}

TEST(ServiceMultiProcessTest, CallToAKilledServiceReturnsNullWithinItsTimeOut) {
  const std::string name = UniqueName("doomed");
  ChildProcess service("stuck_service", {name});
  ASSERT_TRUE(service.WaitForOutput("READY", 60s)) << service.output();
  auto node = Node::CreateNode("survivor", "");
  Client<PlainMessage, PlainMessageTwin> client(name, "survivor", "");
  ASSERT_TRUE(client.WaitForService(kWaitMs));

  std::atomic<bool> returned_null{false};
  std::atomic<bool> returned{false};
  const auto start = std::chrono::steady_clock::now();
  std::thread caller([&] {
    auto request = std::make_shared<PlainMessage>();
    returned_null = client.Call(request, 4) == nullptr;
    returned = true;
  });
  ASSERT_TRUE(service.WaitForOutput("IN_HANDLER", 60s)) << service.output();
  service.Kill(SIGKILL);
  ASSERT_TRUE(service.Wait(10s));
  caller.join();
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_TRUE(returned_null);
  EXPECT_LT(took, 30s);

  // The client process carries on: a new service of the same name answers it.
  const std::string stop = korvan_test::ScratchPath("stop");
  ChildProcess replacement("echo_service", {name, stop});
  ASSERT_TRUE(replacement.WaitForOutput("READY", 60s)) << replacement.output();
  std::shared_ptr<PlainMessageTwin> response;
  auto request = std::make_shared<PlainMessage>();
  request->set_text("again");
  ASSERT_TRUE(korvan_test::WaitFor(
      [&] {
        response = client.Call(request, 2);
        return response != nullptr;
      },
      60s));
  EXPECT_EQ(response->text(), "again");
  korvan_test::TouchFile(stop);
  ASSERT_TRUE(replacement.Wait(60s));
}

// args: service name, gate file. Answers each request once the gate file exists.
KORVAN_CHILD_ROLE(gated_service) {
  auto node = Node::CreateNode("gated", "");
  const std::string gate = args.at(1);
  Service<PlainMessage, PlainMessageTwin> service(
      args.at(0),
      [gate](const std::shared_ptr<PlainMessage>& request) {
        printf("IN_HANDLER\n");
        fflush(stdout);
        korvan_test::WaitForFile(gate, kWaitMs);
        return Echo(request);
      },
      "gated", "");
  printf("READY\n");
  fflush(stdout);
  std::this_thread::sleep_for(std::chrono::hours(1));
  return 0;
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The bus learns of a killed process when its lease expires (3 s by default); a call waiting
// for that process's answer ends then, not at its own time-out.
constexpr unsigned long kLongTimeoutS = 30;
constexpr auto kWellBeforeTheTimeOut = 20s;

TEST(ServiceDeathTest, CallEndsWhenTheServiceIsKilledDuringIt) {
  const std::string name = UniqueName("dies_during");
  ChildProcess service("stuck_service", {name});
  ASSERT_TRUE(service.WaitForOutput("READY", 60s)) << service.output();
  auto node = Node::CreateNode("survivor", "");
  Client<PlainMessage, PlainMessageTwin> client(name, "survivor", "");
  ASSERT_TRUE(client.WaitForService(kWaitMs));

  std::atomic<bool> returned_null{false};
  std::chrono::steady_clock::time_point killed;
  std::chrono::steady_clock::time_point ended;
  std::thread caller([&] {
    returned_null = client.Call(std::make_shared<PlainMessage>(), kLongTimeoutS) == nullptr;
    ended = std::chrono::steady_clock::now();
  });
  ASSERT_TRUE(service.WaitForOutput("IN_HANDLER", 60s)) << service.output();
  killed = std::chrono::steady_clock::now();
  service.Kill(SIGKILL);
  ASSERT_TRUE(service.Wait(10s));
  caller.join();
  const double took = std::chrono::duration<double>(ended - killed).count();
  std::printf("[ measured ] call ended %.2f s after its service was killed (time-out %lu s)\n",
              took, kLongTimeoutS);
  EXPECT_TRUE(returned_null);
  EXPECT_LT(ended - killed, kWellBeforeTheTimeOut);
  EXPECT_FALSE(client.WaitForService(0)) << "readiness must follow the loss";
}

TEST(ServiceDeathTest, CallToAServiceKilledBeforehandEndsAtItsLeaseExpiry) {
  const std::string name = UniqueName("dies_before");
  const std::string stop = korvan_test::ScratchPath("stop");
  ChildProcess service("echo_service", {name, stop});
  ASSERT_TRUE(service.WaitForOutput("READY", 60s)) << service.output();
  auto node = Node::CreateNode("survivor", "");
  Client<PlainMessage, PlainMessageTwin> client(name, "survivor", "");
  ASSERT_TRUE(client.WaitForService(kWaitMs));
  ASSERT_NE(client.Call(std::make_shared<PlainMessage>(), 30), nullptr);

  service.Kill(SIGKILL);
  ASSERT_TRUE(service.Wait(10s));
  const auto killed = std::chrono::steady_clock::now();
  EXPECT_EQ(client.Call(std::make_shared<PlainMessage>(), kLongTimeoutS), nullptr);
  const double took = SecondsSince(killed);
  std::printf(
      "[ measured ] call to a killed service ended %.2f s after the kill (time-out %lu s)\n", took,
      kLongTimeoutS);
  EXPECT_LT(took, std::chrono::duration<double>(kWellBeforeTheTimeOut).count());
  EXPECT_FALSE(client.WaitForService(0));

  // Once the bus knows, a call fails at once.
  const auto again = std::chrono::steady_clock::now();
  EXPECT_EQ(client.Call(std::make_shared<PlainMessage>(), kLongTimeoutS), nullptr);
  std::printf("[ measured ] a later call failed after %.3f s\n", SecondsSince(again));
  EXPECT_LT(SecondsSince(again), 5.0);
}

// Two services of one name both get every request: losing one of them must not end a call
// that the other can still answer.
TEST(ServiceDeathTest, CallOutlivesOneOfTwoServicesOfItsName) {
  const std::string name = UniqueName("twins");
  const std::string gate = korvan_test::ScratchPath("gate");
  ChildProcess stuck("stuck_service", {name});
  ChildProcess gated("gated_service", {name, gate});
  ASSERT_TRUE(stuck.WaitForOutput("READY", 60s)) << stuck.output();
  ASSERT_TRUE(gated.WaitForOutput("READY", 60s)) << gated.output();
  auto node = Node::CreateNode("survivor", "");
  Client<PlainMessage, PlainMessageTwin> client(name, "survivor", "");
  ASSERT_TRUE(client.WaitForService(kWaitMs));
  tarvik::korvan::bus::LumisComponent discovery;
  auto lists = [&](const std::string& node_name) {
    std::vector<tarvik::korvan::bus::NodeAttr> nodes;
    discovery.listAllNodes(&nodes);
    for (const auto& n : nodes) {
      if (n.node_name == node_name)
        return true;
    }
    return false;
  };
  ASSERT_TRUE(korvan_test::WaitFor([&] { return lists("stuck") && lists("gated"); }, 60s));

  std::shared_ptr<PlainMessageTwin> response;
  auto request = std::make_shared<PlainMessage>();
  request->set_text("still here");
  std::thread caller([&] { response = client.Call(request, 120); });
  ASSERT_TRUE(stuck.WaitForOutput("IN_HANDLER", 60s)) << stuck.output();
  ASSERT_TRUE(gated.WaitForOutput("IN_HANDLER", 60s)) << gated.output();
  stuck.Kill(SIGKILL);
  ASSERT_TRUE(stuck.Wait(10s));
  // Once discovery has dropped the killed service, the bus has seen it go.
  EXPECT_TRUE(korvan_test::WaitFor([&] { return !lists("stuck"); }, 60s));
  korvan_test::TouchFile(gate);
  caller.join();
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->text(), "still here");
}

}  // namespace
