// Services and clients in different processes, over DDS.
#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

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

}  // namespace
