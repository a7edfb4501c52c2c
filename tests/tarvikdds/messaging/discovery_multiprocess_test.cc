// Discovery across processes: the topology snapshot and the node lists.
#include <signal.h>

#include <chrono>
#include <memory>
#include <vector>

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include "korvan/bus/lumis_component.h"
#include "support/child_process.h"
#include "support/test_environment.h"
#include "tarvikdds/messaging/dds_client.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/messaging/dds_service.h"
#include "test_proto/test_messages.pb.h"

namespace {

using korvan::test::PlainMessage;
using korvan_test::ChildProcess;
using korvan_test::UniqueName;
using tarvik::quessa::Client;
using tarvik::quessa::Node;
using tarvik::quessa::QoS;
using tarvik::quessa::Service;
using namespace std::chrono_literals;

constexpr int kWaitMs = 60000;

// args: topic, service, stop file. A publisher and a service.
KORVAN_CHILD_ROLE(alpha) {
  auto node = Node::CreateNode("alpha", "");
  auto pub = node->CreatePublisher<PlainMessage>(args.at(0), QoS());
  Service<PlainMessage, PlainMessage> service(
      args.at(1), [](const std::shared_ptr<PlainMessage>& m) { return m; }, "alpha", "");
  printf("READY\n");
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(2), kWaitMs));
  return CHILD_RESULT();
}

// args: topic, service, stop file. A subscriber and a client.
KORVAN_CHILD_ROLE(beta) {
  auto node = Node::CreateNode("beta", "");
  auto sub = node->CreateSubscriber<PlainMessage>(args.at(0), QoS(), nullptr);
  Client<PlainMessage, PlainMessage> client(args.at(1), "beta", "");
  printf("READY\n");
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(2), kWaitMs));
  return CHILD_RESULT();
}

// The node objects of application `app` in a parsed snapshot, by node name.
std::map<std::string, const rapidjson::Value*> NodesOf(const rapidjson::Document& topo,
                                                       const std::string& app) {
  std::map<std::string, const rapidjson::Value*> nodes;
  for (const auto& entry : topo.GetArray()) {
    if (entry["app_name"].GetString() != app)
      continue;
    for (const auto& node : entry["nodes"].GetArray()) {
      nodes[node["node_name"].GetString()] = &node;
    }
  }
  return nodes;
}

std::vector<std::string> Names(const rapidjson::Value& node, const char* role) {
  std::vector<std::string> names;
  if (!node.HasMember(role))
    return names;
  for (const auto& n : node[role].GetArray())
    names.push_back(n.GetString());
  return names;
}

TEST(DiscoveryMultiProcessTest, TopologyListsThreeProcessesAndDropsAKilledOne) {
  const std::string topic = UniqueName("topo/t");
  const std::string service = UniqueName("topo_svc");
  const std::string stop = korvan_test::ScratchPath("stop");
  ChildProcess alpha("alpha", {topic, service, stop}, {"KORVAN_APP_NAME=alpha_app"});
  ChildProcess beta("beta", {topic, service, stop}, {"KORVAN_APP_NAME=beta_app"});
  ASSERT_TRUE(alpha.WaitForOutput("READY", 60s)) << alpha.output();
  ASSERT_TRUE(beta.WaitForOutput("READY", 60s)) << beta.output();
  auto gamma = Node::CreateNode("gamma", "");
  auto sub = gamma->CreateSubscriber<PlainMessage>(topic, QoS(), nullptr);

  rapidjson::Document topo;
  auto complete = [&] {
    std::string text;
    if (!gamma->GetTopo(text))
      return false;
    topo.Parse(text.c_str());
    if (topo.HasParseError() || !topo.IsArray())
      return false;
    auto a = NodesOf(topo, "alpha_app");
    auto b = NodesOf(topo, "beta_app");
    return a.count("alpha") && b.count("beta") &&
           Names(*a["alpha"], "service") == std::vector<std::string>{service} &&
           Names(*b["beta"], "client") == std::vector<std::string>{service};
  };
  ASSERT_TRUE(korvan_test::WaitFor(complete, 60s));
  auto a = NodesOf(topo, "alpha_app");
  auto b = NodesOf(topo, "beta_app");
  EXPECT_EQ(Names(*a["alpha"], "publisher"), std::vector<std::string>{topic});
  EXPECT_TRUE(Names(*a["alpha"], "subscriber").empty());  // the request reader is folded away
  EXPECT_EQ(Names(*b["beta"], "subscriber"), std::vector<std::string>{topic});
  EXPECT_TRUE(Names(*b["beta"], "publisher").empty());
  for (const auto& entry : topo.GetArray()) {
    EXPECT_STREQ(entry["soc"].GetString(), "0");
    for (const auto& node : entry["nodes"].GetArray()) {
      if (std::string(node["node_name"].GetString()) == "gamma") {
        EXPECT_EQ(Names(node, "subscriber"), std::vector<std::string>{topic});
      }
    }
  }

  // A killed process leaves once its lease (3 s) has expired.
  alpha.Kill(SIGKILL);
  ASSERT_TRUE(alpha.Wait(10s));
  const auto killed = std::chrono::steady_clock::now();
  ASSERT_TRUE(korvan_test::WaitFor(
      [&] {
        std::string text;
        if (!gamma->GetTopo(text))
          return false;
        topo.Parse(text.c_str());
        return !topo.HasParseError() && NodesOf(topo, "alpha_app").empty() &&
               !NodesOf(topo, "beta_app").empty();
      },
      30s));
  EXPECT_LT(std::chrono::steady_clock::now() - killed, 10s);

  korvan_test::TouchFile(stop);
  ASSERT_TRUE(beta.Wait(60s));
  EXPECT_EQ(beta.exit_code(), 0) << beta.output();
}

// args: topic, drop file, stop file. Destroys its publisher when told to.
KORVAN_CHILD_ROLE(dropping_publisher) {
  auto node = Node::CreateNode("dropper", "");
  auto pub = node->CreatePublisher<PlainMessage>(args.at(0), QoS());
  printf("READY\n");
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(1), kWaitMs));
  pub.reset();
  CHILD_CHECK(korvan_test::WaitForFile(args.at(2), kWaitMs));
  return CHILD_RESULT();
}

TEST(DiscoveryMultiProcessTest, ADestroyedEndpointLeavesAtOnce) {
  const std::string topic = UniqueName("dropped");
  const std::string drop = korvan_test::ScratchPath("drop");
  const std::string stop = korvan_test::ScratchPath("stop");
  ChildProcess child("dropping_publisher", {topic, drop, stop});
  ASSERT_TRUE(child.WaitForOutput("READY", 60s)) << child.output();
  tarvik::korvan::bus::LumisComponent discovery;
  auto listed = [&](bool want_publisher) {
    std::vector<tarvik::korvan::bus::RoleAttr> publishers;
    std::vector<tarvik::korvan::bus::NodeAttr> nodes;
    if (!discovery.listAllPublishers(&publishers) || !discovery.listAllNodes(&nodes)) {
      return false;
    }
    bool publisher = false;
    for (const auto& p : publishers)
      publisher = publisher || p.topic_name == topic;
    bool node = false;
    for (const auto& n : nodes)
      node = node || n.node_name == "dropper";
    return node && publisher == want_publisher;
  };
  auto node = Node::CreateNode("looker", "");  // starts this process's bus
  ASSERT_TRUE(korvan_test::WaitFor([&] { return listed(true); }, 60s));
  korvan_test::TouchFile(drop);
  const auto dropped = std::chrono::steady_clock::now();
  ASSERT_TRUE(korvan_test::WaitFor([&] { return listed(false); }, 30s));
  EXPECT_LT(std::chrono::steady_clock::now() - dropped, 3s);  // well inside the lease
  korvan_test::TouchFile(stop);
  ASSERT_TRUE(child.Wait(60s));
  EXPECT_EQ(child.exit_code(), 0) << child.output();
}

// The description of a type travels once, and the publisher's record carries its fingerprint.
TEST(DiscoveryMultiProcessTest, TypeDescriptionsReachOtherProcessesOncePerType) {
  const std::string topic = UniqueName("described");
  const std::string stop = korvan_test::ScratchPath("stop");
  ChildProcess alpha("alpha", {topic, UniqueName("described_svc"), stop},
                     {"KORVAN_APP_NAME=describer"});
  ASSERT_TRUE(alpha.WaitForOutput("READY", 60s)) << alpha.output();
  auto node = Node::CreateNode("reader", "");
  tarvik::korvan::bus::LumisComponent discovery;
  uint64_t published_hash = 0;
  std::vector<tarvik::korvan::bus::TypeDescription> remote;
  ASSERT_TRUE(korvan_test::WaitFor(
      [&] {
        std::vector<tarvik::korvan::bus::EntityRecord> entities;
        std::vector<tarvik::korvan::bus::TypeDescription> types;
        if (!discovery.listAllEntities(&entities) || !discovery.listTypeDescriptions(&types))
          return false;
        for (const auto& e : entities) {
          if (e.topic_name == topic && e.role_type == tarvik::korvan::bus::kRolePublisher)
            published_hash = e.type_hash;
        }
        remote.clear();
        for (const auto& t : types) {
          if (t.app_name == "describer")
            remote.push_back(t);
        }
        return published_hash != 0 && !remote.empty();
      },
      60s));
  // The publisher, the service's request reader and its response writer share one type.
  ASSERT_EQ(remote.size(), 1u);
  EXPECT_EQ(remote[0].type_name, "korvan.test.PlainMessage");
  EXPECT_EQ(remote[0].type_hash, published_hash);
  EXPECT_EQ(remote[0].process_id, alpha.pid());
  EXPECT_EQ(remote[0].type_hash,
            tarvik::korvan::bus::DescribeType(PlainMessage::descriptor()).type_hash);
  korvan_test::TouchFile(stop);
  ASSERT_TRUE(alpha.Wait(60s));
  EXPECT_EQ(alpha.exit_code(), 0) << alpha.output();
}

// args: index, expected number of nodes, stop file.

KORVAN_CHILD_ROLE(crowd_member) {
  auto node = Node::CreateNode("member_" + args.at(0), "");
  const size_t expected = std::stoul(args.at(1));
  tarvik::korvan::bus::LumisComponent discovery;
  CHILD_CHECK(korvan_test::WaitFor(
      [&] {
        std::vector<tarvik::korvan::bus::NodeAttr> nodes;
        return discovery.listAllNodes(&nodes) && nodes.size() >= expected;
      },
      std::chrono::milliseconds(kWaitMs)));
  printf("SAW_ALL\n");
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(2), kWaitMs));
  return CHILD_RESULT();
}

TEST(DiscoveryMultiProcessTest, ThirtyProcessesOnOneHostDiscoverEachOther) {
  constexpr int kProcesses = 30;
  const std::string stop = korvan_test::ScratchPath("stop");
  std::vector<std::unique_ptr<ChildProcess>> crowd;
  for (int i = 0; i < kProcesses; ++i) {
    crowd.push_back(std::make_unique<ChildProcess>(
        "crowd_member",
        std::vector<std::string>{std::to_string(i), std::to_string(kProcesses), stop}));
  }
  for (auto& member : crowd) {
    EXPECT_TRUE(member->WaitForOutput("SAW_ALL", 120s)) << member->output();
  }
  korvan_test::TouchFile(stop);
  for (auto& member : crowd) {
    ASSERT_TRUE(member->Wait(60s));
    EXPECT_EQ(member->exit_code(), 0) << member->output();
  }
}

}  // namespace
