// The bus behind `korvan web` against a real peer in another process: what discovery shows,
// statistics read off the wire, streams of raw bytes, decoding, service calls, parameters and
// application lifecycles.
#include <google/protobuf/descriptor.pb.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "korvan/tools/bus_web_source.h"
#include "support/child_process.h"
#include "support/test_environment.h"
#include "tarvikdds/application/application.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/messaging/dds_service.h"
#include "tarvikdds/parameter/parameter_server.h"
#include "test_proto/test_messages.pb.h"
#include "web_test_proto/web_test.pb.h"

namespace {

using korvan::test::StampedMessage;
using korvan::webtest::SetSpeedRequest;
using korvan::webtest::SetSpeedResponse;
using korvan_test::ChildProcess;
using korvan_test::WaitFor;
using tarvik::korvan::tools::BusWebSource;
using tarvik::korvan::tools::TypeCatalog;
using tarvik::quessa::Node;
using namespace tarvik::korvan::web;

constexpr auto kWait = std::chrono::seconds(20);

// Runs `prefix_app` every 20 ms; its Proc fails while the file `fail` exists.
class FlakyApp : public tarvik::quessa::Application {
 public:
  FlakyApp(const std::string& name, std::string fail) : Application(name), fail_(std::move(fail)) {}
  std::string Init() override { return ""; }
  std::string Proc(uint64_t, uint64_t) override {
    return ::access(fail_.c_str(), F_OK) == 0 ? "too fast" : "";
  }
  std::string Finalize() override { return ""; }

 private:
  const std::string fail_;
};

}  // namespace

// args: prefix, finish file, fail file. A node "<prefix>" publishing StampedMessage on
// "<prefix>/data" at 50 Hz, serving "<prefix>/set_speed" and parameters, and an application
// "<prefix>_app". Prints "param <name>" when a parameter changes.
KORVAN_CHILD_ROLE(web_peer) {
  const std::string prefix = args.at(0);
  auto node = Node::CreateNode(prefix, "");
  tarvik::korvan::ParameterServer params(
      node.get(), [](const std::string& name, const tarvik::korvan::Parameter& parameter) {
        std::printf("param %s\n", parameter.DebugString().c_str());
        std::fflush(stdout);
        (void)name;
      });
  params.SetParameter(tarvik::korvan::Parameter("speed", 1.5));
  params.SetParameter(tarvik::korvan::Parameter("count", 7L));
  params.SetParameter(tarvik::korvan::Parameter("label", "left"));
  params.SetParameter(tarvik::korvan::Parameter("enabled", true));
  SetSpeedRequest limits;
  limits.set_speed(0.25);
  params.SetParameter(tarvik::korvan::Parameter("limits", limits));

  double last_speed = 1.0;
  std::mutex speed_mutex;
  tarvik::quessa::Service<SetSpeedRequest, SetSpeedResponse> service(
      prefix + "/set_speed",
      [&](const std::shared_ptr<SetSpeedRequest>& request) {
        std::lock_guard<std::mutex> lock(speed_mutex);
        auto response = std::make_shared<SetSpeedResponse>();
        response->set_accepted(request->speed() >= 0);
        response->set_previous(last_speed);
        if (request->speed() >= 0)
          last_speed = request->speed();
        return response;
      },
      prefix, "");

  auto app = std::make_shared<FlakyApp>(prefix + "_app", args.at(2));
  app->Start(20);

  auto publisher = node->CreatePublisher<StampedMessage>(prefix + "/data", tarvik::quessa::QoS());
  std::printf("ready\n");
  std::fflush(stdout);
  uint64_t sequence = 0;
  auto next = std::chrono::steady_clock::now();
  while (::access(args.at(1).c_str(), F_OK) != 0) {
    auto message = std::make_shared<StampedMessage>();
    message->set_sequence(++sequence);
    message->set_text("data " + std::to_string(sequence));
    publisher->Publish(message);
    next += std::chrono::milliseconds(20);
    std::this_thread::sleep_until(next);
  }
  app->Stop();
  return 0;
}

namespace {

class BusWebSourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    prefix_ = korvan_test::UniqueName("webpeer");
    finish_ = korvan_test::ScratchPath(prefix_ + ".finish");
    fail_ = korvan_test::ScratchPath(prefix_ + ".fail");
    peer_ = std::make_unique<ChildProcess>("web_peer",
                                           std::vector<std::string>{prefix_, finish_, fail_});
    ASSERT_TRUE(peer_->WaitForOutput("ready", kWait)) << peer_->output();
    node_ = Node::CreateNode(korvan_test::UniqueName("webview"), "");
    BusWebSource::Options options;
    options.refresh = std::chrono::milliseconds(100);
    options.stats_linger = std::chrono::milliseconds(600);
    // Statistics see one of the peer's five messages per look: its rate still shows 50 Hz.
    options.sample_depth = 1;
    source_ = std::make_unique<BusWebSource>(*node_, catalog_, options);
    // Everything the peer offers is seen.
    ASSERT_TRUE(WaitFor(
        [&] {
          const Graph g = source_->GetGraph();
          return Find(g.topics, prefix_ + "/data") != nullptr &&
                 Find(g.services, prefix_ + "/set_speed") != nullptr &&
                 Find(g.services, prefix_ + "/list_parameters") != nullptr &&
                 Find(g.topics, prefix_ + "_app/post_proc") != nullptr;
        },
        kWait));
  }

  void TearDown() override {
    source_.reset();
    if (peer_) {
      korvan_test::TouchFile(finish_);
      EXPECT_TRUE(peer_->Wait(kWait));
      EXPECT_EQ(peer_->exit_code(), 0) << peer_->output();
    }
  }

  template <typename T>
  static const T* Find(const std::vector<T>& list, const std::string& name) {
    for (const auto& item : list) {
      if (item.name == name)
        return &item;
    }
    return nullptr;
  }

  std::optional<TopicStats> StatsOf(const std::string& topic) {
    for (const auto& s : source_->GetStats()) {
      if (s.topic == topic)
        return s;
    }
    return std::nullopt;
  }

  std::string prefix_, finish_, fail_;
  std::unique_ptr<ChildProcess> peer_;
  std::unique_ptr<Node> node_;
  TypeCatalog catalog_;
  std::unique_ptr<BusWebSource> source_;
};

std::set<std::string> FileNames(const std::string& schema) {
  google::protobuf::FileDescriptorSet set;
  EXPECT_TRUE(set.ParseFromString(schema));
  std::set<std::string> names;
  for (const auto& file : set.file())
    names.insert(file.name());
  return names;
}

TEST_F(BusWebSourceTest, GraphNamesEndpointsWithSchemas) {
  std::atomic<int> changes{0};
  source_->SetChangeCallback([&] { ++changes; });
  const Graph graph = source_->GetGraph();

  const NodeInfo* peer = Find(graph.nodes, prefix_);
  ASSERT_NE(peer, nullptr);
  EXPECT_EQ(Find(graph.nodes, node_->name()), nullptr) << "the viewer's own node is not shown";

  const TopicInfo* data = Find(graph.topics, prefix_ + "/data");
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->type, "korvan.test.StampedMessage");
  EXPECT_EQ(data->publishers, std::vector<std::string>{prefix_});
  EXPECT_TRUE(data->subscribers.empty());
  EXPECT_EQ(FileNames(data->schema).count("test_messages.proto"), 1u);

  // The service's one schema holds both types and what their file imports.
  const ServiceInfo* service = Find(graph.services, prefix_ + "/set_speed");
  ASSERT_NE(service, nullptr);
  EXPECT_EQ(service->request_type, "korvan.webtest.SetSpeedRequest");
  EXPECT_EQ(service->response_type, "korvan.webtest.SetSpeedResponse");
  EXPECT_EQ(service->providers, std::vector<std::string>{prefix_});
  const auto files = FileNames(service->schema);
  EXPECT_EQ(files.count("google/protobuf/timestamp.proto"), 1u);
  EXPECT_EQ(files.size(), 2u);

  // A peer that leaves is noticed, and the change callback says so.
  korvan_test::TouchFile(finish_);
  ASSERT_TRUE(peer_->Wait(kWait));
  peer_.reset();
  ASSERT_TRUE(WaitFor(
      [&] { return Find(source_->GetGraph().topics, prefix_ + "/data") == nullptr; }, kWait));
  EXPECT_GT(changes.load(), 0);
  source_->SetChangeCallback({});
}

TEST_F(BusWebSourceTest, StatisticsAndStreamsShareOneReadOfTheTopic) {
  const std::string topic = prefix_ + "/data";
  // Nothing is read until statistics or a stream ask for it.
  EXPECT_TRUE(source_->ReadTopics().empty());

  std::optional<TopicStats> stats;
  ASSERT_TRUE(WaitFor(
      [&] {
        stats = StatsOf(topic);
        return stats && stats->rate_hz > 20 && stats->delay_ms.has_value();
      },
      kWait));
  EXPECT_LT(stats->rate_hz, 80);  // 50 Hz published
  EXPECT_GT(stats->bandwidth_bytes_per_s, stats->rate_hz * 10);
  EXPECT_GE(*stats->delay_ms, 0);
  EXPECT_LT(*stats->delay_ms, 1000);
  const auto read = source_->ReadTopics();
  EXPECT_NE(std::find(read.begin(), read.end(), prefix_ + "_app/post_proc"), read.end());

  // A stream gets the publisher's own bytes, with the publish stamp read off them.
  struct Stream {
    std::mutex mutex;
    std::vector<StampedMessage> messages;
    std::vector<std::optional<int64_t>> stamps;
    std::atomic<int> calls{0};
  } first, second;
  auto collect = [](Stream& s) {
    return [&s](const ReceivedMessage& m) {
      StampedMessage message;
      EXPECT_TRUE(message.ParseFromArray(m.payload.data(), static_cast<int>(m.payload.size())));
      std::lock_guard<std::mutex> lock(s.mutex);
      s.messages.push_back(message);
      s.stamps.push_back(m.publish_ns);
      ++s.calls;
    };
  };
  const uint64_t a = source_->Subscribe(topic, collect(first));
  ASSERT_NE(a, 0u);
  EXPECT_EQ(source_->Subscribe("no/such/topic", collect(second)), 0u);
  ASSERT_TRUE(WaitFor([&] { return first.calls >= 5; }, kWait));
  {
    std::lock_guard<std::mutex> lock(first.mutex);
    for (size_t i = 0; i < first.messages.size(); ++i) {
      EXPECT_EQ(first.messages[i].text(), "data " + std::to_string(first.messages[i].sequence()));
      ASSERT_TRUE(first.stamps[i].has_value());
      EXPECT_EQ(static_cast<uint64_t>(*first.stamps[i]), first.messages[i].publish_ts());
      if (i > 0) {
        EXPECT_GT(first.messages[i].sequence(), first.messages[i - 1].sequence());
      }
    }
  }

  // Once Unsubscribe returns, that callback is done for good, while another stream goes on.
  const uint64_t b = source_->Subscribe(topic, collect(second));
  ASSERT_NE(b, 0u);
  source_->Unsubscribe(a);
  const int after = first.calls;
  ASSERT_TRUE(WaitFor([&] { return second.calls >= 10; }, kWait));
  EXPECT_EQ(first.calls.load(), after);

  // Without statistics asked for, only the streamed topic stays read.
  ASSERT_TRUE(
      WaitFor([&] { return source_->ReadTopics() == std::vector<std::string>{topic}; }, kWait));
  source_->Unsubscribe(b);
  ASSERT_TRUE(WaitFor([&] { return source_->ReadTopics().empty(); }, kWait));
}

TEST_F(BusWebSourceTest, DecodesAndCallsServicesOfTypesLearntFromTheBus) {
  StampedMessage message;
  message.set_sequence(42);
  message.set_text("hello");
  const std::string bytes = message.SerializeAsString();
  Result<std::string> json = source_->DecodeToJson("korvan.test.StampedMessage", bytes);
  ASSERT_TRUE(json.ok()) << json.error;
  EXPECT_NE(json.value->find("\"sequence\":\"42\""), std::string::npos) << *json.value;
  EXPECT_NE(json.value->find("\"text\":\"hello\""), std::string::npos) << *json.value;
  EXPECT_FALSE(source_->DecodeToJson("korvan.test.StampedMessage", "\xff\xff\xff").ok());
  EXPECT_FALSE(source_->DecodeToJson("korvan.test.NoSuchType", bytes).ok());

  const std::string service = prefix_ + "/set_speed";
  Result<std::string> answer = source_->CallService(service, Encoding::kJson, R"({"speed": 2.5})");
  ASSERT_TRUE(answer.ok()) << answer.error;
  EXPECT_EQ(*answer.value, R"({"accepted":true,"previous":1})");

  SetSpeedRequest request;
  request.set_speed(-1);
  answer = source_->CallService(service, Encoding::kProtobuf, request.SerializeAsString());
  ASSERT_TRUE(answer.ok()) << answer.error;
  SetSpeedResponse response;
  ASSERT_TRUE(response.ParseFromString(*answer.value));
  EXPECT_FALSE(response.accepted());
  EXPECT_EQ(response.previous(), 2.5);

  answer = source_->CallService(service, Encoding::kJson, R"({"sped": 1})");
  EXPECT_FALSE(answer.ok());
  EXPECT_NE(answer.error.find("not a korvan.webtest.SetSpeedRequest"), std::string::npos)
      << answer.error;
  EXPECT_EQ(source_->CallService(service, Encoding::kJson, "[]").error,
            "the request is given as a JSON object");
  EXPECT_EQ(source_->CallService("no/such/service", Encoding::kJson, "{}").error,
            "no service no/such/service on the bus");
}

TEST_F(BusWebSourceTest, ParametersAreListedAndSetThroughTheNodesService) {
  Result<std::vector<Parameter>> list = source_->ListParameters(prefix_);
  ASSERT_TRUE(list.ok()) << list.error;
  std::vector<std::string> rows;
  for (const auto& p : *list.value)
    rows.push_back(p.name + " " + p.type + " " + p.value_json);
  EXPECT_EQ(rows, (std::vector<std::string>{
                      "count int 7",
                      "enabled bool true",
                      "label string \"left\"",
                      "limits korvan.webtest.SetSpeedRequest {\"speed\":0.25}",
                      "speed double 1.5",
                  }));

  Result<Parameter> set = source_->SetParameter(prefix_, "speed", "2.75");
  ASSERT_TRUE(set.ok()) << set.error;
  EXPECT_EQ(set.value->value_json, "2.75");
  EXPECT_TRUE(
      peer_->WaitForOutput("param {name: \"speed\", type: \"DOUBLE\", value: 2.750000}", kWait))
      << peer_->output();
  set = source_->SetParameter(prefix_, "limits", R"({"speed": 4})");
  ASSERT_TRUE(set.ok()) << set.error;
  EXPECT_EQ(set.value->value_json, R"({"speed":4})");
  Result<Parameter> got = source_->GetParameter(prefix_, "limits");
  ASSERT_TRUE(got.ok()) << got.error;
  EXPECT_EQ(got.value->value_json, R"({"speed":4})");

  // Values of the wrong type never reach the node.
  set = source_->SetParameter(prefix_, "count", "1.5");
  EXPECT_EQ(set.error, "count is int: not an integer");
  set = source_->SetParameter(prefix_, "limits", R"({"speed": "fast"})");
  EXPECT_FALSE(set.ok());
  got = source_->GetParameter(prefix_, "count");
  ASSERT_TRUE(got.ok()) << got.error;
  EXPECT_EQ(got.value->value_json, "7");

  EXPECT_FALSE(source_->SetParameter(prefix_, "missing", "1").ok());
  EXPECT_EQ(source_->ListParameters("nobody").error, "node nobody serves no parameters");
}

TEST_F(BusWebSourceTest, ApplicationsShowPhaseFrameAndFailures) {
  const std::string app = prefix_ + "_app";
  auto find = [&]() -> std::optional<ApplicationInfo> {
    for (const auto& a : source_->GetApplications()) {
      if (a.name == app)
        return a;
    }
    return std::nullopt;
  };
  std::optional<ApplicationInfo> seen;
  ASSERT_TRUE(WaitFor(
      [&] {
        seen = find();
        return seen && seen->phase == "running" && seen->frame > 0;
      },
      kWait));
  EXPECT_FALSE(seen->failed);
  const uint64_t frame = seen->frame;
  ASSERT_TRUE(WaitFor([&] { return find()->frame > frame + 5; }, kWait));

  // A failing step shows with its reason; a later good one clears it.
  korvan_test::TouchFile(fail_);
  ASSERT_TRUE(WaitFor(
      [&] {
        seen = find();
        return seen->failed;
      },
      kWait));
  EXPECT_EQ(seen->phase, "running");
  EXPECT_NE(seen->failure.find("too fast"), std::string::npos) << seen->failure;
  ::unlink(fail_.c_str());
  ASSERT_TRUE(WaitFor([&] { return !find()->failed; }, kWait));

  // A finished application reads as stopped, not as gone.
  korvan_test::TouchFile(finish_);
  ASSERT_TRUE(peer_->Wait(kWait));
  EXPECT_EQ(peer_->exit_code(), 0) << peer_->output();
  peer_.reset();
  ASSERT_TRUE(WaitFor([&] { return find()->phase == "stopped"; }, kWait)) << find()->phase;
}

}  // namespace
