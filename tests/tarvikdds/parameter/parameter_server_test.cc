// The parameter server and client in one process: the local path, and the services through
// the in-process transport.
#include "tarvikdds/parameter/parameter_server.h"

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_environment.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/messaging/dds_parameter_client.h"
#include "tarvikdds/messaging/dds_parameter_server.h"
#include "tarvikdds/parameter/parameter_client.h"
#include "test_proto/test_messages.pb.h"

namespace {

using korvan::test::PlainMessage;
using korvan::test::PlainMessageTwin;
using korvan_test::LogCapture;
using korvan_test::UniqueName;
using tarvik::korvan::Parameter;
using tarvik::korvan::ParameterClient;
using tarvik::korvan::ParameterServer;
using tarvik::quessa::Node;
using namespace std::chrono_literals;

class ParameterServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    korvan_test::UseLocalBus();
    server_node_ = Node::CreateNode(UniqueName("params"), "");
    client_node_ = Node::CreateNode(UniqueName("caller"), "");
  }
  std::unique_ptr<ParameterServer> MakeServer(ParameterServer::ChangeCallback callback = nullptr) {
    return std::make_unique<ParameterServer>(server_node_.get(), std::move(callback));
  }
  std::unique_ptr<ParameterClient> MakeClient() {
    return std::make_unique<ParameterClient>(client_node_.get(), server_node_->name());
  }
  std::unique_ptr<Node> server_node_;
  std::unique_ptr<Node> client_node_;
};

TEST_F(ParameterServerTest, LocalLimitsAtTheirEdges) {
  auto server = MakeServer();
  LogCapture log(2);
  for (int i = 0; i < 200; ++i)
    server->SetParameter(Parameter("p" + std::to_string(i), i));
  server->SetParameter(Parameter("p200", 200));
  EXPECT_EQ(log.Count("[korvan_internal]parameter server max_count(200) exceed"), 1u);
  Parameter out;
  EXPECT_FALSE(server->GetParameter("p200", &out));
  server->SetParameter(Parameter("p5", 55));  // replacing is always allowed
  ASSERT_TRUE(server->GetParameter("p5", &out));
  EXPECT_EQ(out.value<long>(), 55);
  std::vector<Parameter> all;
  server->ListParameters(&all);
  EXPECT_EQ(all.size(), 200u);

  auto sized = MakeServer();
  sized->SetParameter(Parameter("big", std::string(1048576, 'x')));
  sized->SetParameter(Parameter("bigger", std::string(1048577, 'x')));
  EXPECT_EQ(log.Count("parameter server max_size(1M) exceed"), 1u);
  EXPECT_TRUE(sized->GetParameter("big", &out));
  EXPECT_FALSE(sized->GetParameter("bigger", &out));
}

TEST_F(ParameterServerTest, LocalSetsReachTheChangeCallback) {
  std::vector<std::string> changes;
  auto server = MakeServer([&](const std::string& name, const Parameter& p) {
    changes.push_back(name + "=" + p.DebugString());
  });
  server->SetParameter(Parameter("flag", true));
  Parameter untouched("keep", 1);
  EXPECT_FALSE(server->GetParameter("missing", &untouched));
  EXPECT_EQ(untouched.value<long>(), 1);
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_EQ(changes[0], "flag={name: \"flag\", type: \"BOOL\", value: true}");
}

TEST_F(ParameterServerTest, EveryValueTypeRoundTripsThroughTheServices) {
  std::mutex mutex;
  std::vector<std::string> remote_changes;
  auto server = MakeServer([&](const std::string& name, const Parameter&) {
    std::lock_guard<std::mutex> lock(mutex);
    remote_changes.push_back(name);
  });
  auto client = MakeClient();
  PlainMessage message;
  message.set_sequence(9);
  message.set_text("as a parameter");
  const std::vector<Parameter> values = {Parameter("b", true), Parameter("i", 42L),
                                         Parameter("d", 2.5), Parameter("s", "text"),
                                         Parameter("m", message)};
  for (const auto& p : values)
    ASSERT_TRUE(client->SetParameter(p, 5s));
  EXPECT_EQ(remote_changes, (std::vector<std::string>{"b", "i", "d", "s", "m"}));

  Parameter out;
  ASSERT_TRUE(client->GetParameter("b", &out, 5s));
  EXPECT_TRUE(out.value<bool>());
  ASSERT_TRUE(client->GetParameter("i", &out, 5s));
  EXPECT_EQ(out.value<long>(), 42);
  ASSERT_TRUE(client->GetParameter("d", &out, 5s));
  EXPECT_DOUBLE_EQ(out.value<double>(), 2.5);
  ASSERT_TRUE(client->GetParameter("s", &out, 5s));
  EXPECT_EQ(out.value<std::string>(), "text");
  ASSERT_TRUE(client->GetParameter("m", &out, 5s));
  EXPECT_EQ(out.ToProtoParam().type_name(), "korvan.test.PlainMessage");
  PlainMessage parsed;
  ASSERT_TRUE(parsed.ParseFromString(out.value<std::string>()));
  EXPECT_EQ(parsed.text(), "as a parameter");

  std::vector<Parameter> listed = {Parameter("already", 1)};
  ASSERT_TRUE(client->ListParameters(&listed, 5s));
  EXPECT_EQ(listed.size(), 6u);  // existing elements are kept
}

TEST_F(ParameterServerTest, UnknownNamesAndEmptyServers) {
  auto server = MakeServer();
  auto client = MakeClient();
  LogCapture log(4);
  Parameter out("untouched", 7);
  EXPECT_FALSE(client->GetParameter("nothing", &out, 5s));
  EXPECT_EQ(out.value<long>(), 7);
  EXPECT_EQ(log.Count("Parameter nothing not exists yet."), 1u);
  EXPECT_EQ(log.Count("GetParameterService: [nothing] not set"), 1u);
  EXPECT_EQ(log.Count("failed"), 0u);
  std::vector<Parameter> listed;
  EXPECT_TRUE(client->ListParameters(&listed, 5s));
  EXPECT_TRUE(listed.empty());
}

TEST_F(ParameterServerTest, RemoteLimitsAtTheirEdgesAndTheServerKeepsServing) {
  auto server = MakeServer();
  auto client = MakeClient();
  LogCapture log(2);
  for (int i = 0; i < 199; ++i)
    server->SetParameter(Parameter("p" + std::to_string(i), i));
  EXPECT_TRUE(client->SetParameter(Parameter("p199", 199), 5s));  // the 200th
  EXPECT_FALSE(client->SetParameter(Parameter("p200", 200), 5s));
  EXPECT_EQ(log.Count("parameter server max_count(200) exceed, return false"), 1u);
  EXPECT_TRUE(client->SetParameter(Parameter("p0", -1), 5s));

  auto sized = std::make_unique<Node>(UniqueName("sized"), "");
  ParameterServer sized_server(sized.get(), nullptr);
  ParameterClient sized_client(client_node_.get(), sized->name());
  EXPECT_TRUE(sized_client.SetParameter(Parameter("big", std::string(1048576, 'x')), 10s));
  EXPECT_FALSE(sized_client.SetParameter(Parameter("bigger", std::string(1048577, 'x')), 10s));
  EXPECT_EQ(log.Count("parameter server max_size(1M) exceed, return false"), 1u);
  // A number measures as an empty string (with the type complaint) and always fits.
  EXPECT_TRUE(sized_client.SetParameter(Parameter("n", 1.0), 5s));
  EXPECT_EQ(log.Count("The type of parameter \"n\" is DOUBLE, not STRING"), 1u);

  Parameter out;
  EXPECT_TRUE(sized_client.GetParameter("big", &out, 10s));
  EXPECT_EQ(out.value<std::string>().size(), 1048576u);
}

TEST_F(ParameterServerTest, ConcurrentRemoteSetsAndALocalReaderLoseNothing) {
  auto server = MakeServer();
  auto client = MakeClient();
  constexpr int kThreads = 6;
  constexpr int kSets = 30;
  std::atomic<bool> done{false};
  std::thread reader([&] {
    Parameter out;
    while (!done) {
      server->GetParameter("t0_0", &out);
      std::vector<Parameter> all;
      server->ListParameters(&all);
    }
  });
  std::atomic<int> failures{0};
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      for (int i = 0; i < kSets; ++i) {
        const std::string name = "t" + std::to_string(t) + "_" + std::to_string(i % 5);
        if (!client->SetParameter(Parameter(name, static_cast<long>(i)), 10s))
          ++failures;
      }
    });
  }
  for (auto& w : writers)
    w.join();
  done = true;
  reader.join();
  EXPECT_EQ(failures, 0);
  for (int t = 0; t < kThreads; ++t) {
    for (int slot = 0; slot < 5; ++slot) {
      Parameter out;
      ASSERT_TRUE(server->GetParameter("t" + std::to_string(t) + "_" + std::to_string(slot), &out));
      EXPECT_EQ(out.value<long>(), kSets - 5 + slot);  // the last write of each name won
    }
  }
}

TEST_F(ParameterServerTest, MissingServerMakesEveryCallFailWithTwoLines) {
  auto client = MakeClient();
  LogCapture log(3);
  Parameter out;
  EXPECT_FALSE(client->GetParameter("x", &out, 1s));
  EXPECT_EQ(log.Count("Service is not ready: " + server_node_->name() + "/get_parameter"), 1u);
  EXPECT_EQ(log.Count("Call " + server_node_->name() + "/get_parameter failed"), 1u);
}

TEST_F(ParameterServerTest, MessageWrappersStoreAndFetchMessages) {
  tarvik::quessa::ParamServer server(server_node_.get(), nullptr);
  tarvik::quessa::ParamClient client(client_node_.get(), server_node_->name());
  auto sent = std::make_shared<PlainMessage>();
  sent->set_sequence(3);
  sent->set_text("pose");
  ASSERT_TRUE(client.SetParameter("pose", sent, 5s));
  auto fetched = std::make_shared<PlainMessage>();
  ASSERT_TRUE(server.GetParameter("pose", fetched));
  EXPECT_EQ(fetched->text(), "pose");
  // Into a message of another type the fetch still succeeds: fields match by number.
  auto other = std::make_shared<PlainMessageTwin>();
  ASSERT_TRUE(client.GetParameter("pose", other, 5s));
  EXPECT_EQ(other->sequence(), 3u);
  EXPECT_FALSE(client.GetParameter("absent", other, 5s));
  std::vector<Parameter> listed;
  EXPECT_TRUE(client.ListParameters(listed, 5s));
  EXPECT_EQ(listed.size(), 1u);
}

}  // namespace
