// The snapshot built from discovery records, with a fake network transport supplying the
// records of "other processes". This process creates no node, so the records are all there is.
#include "messaging/topology.h"

#include <gtest/gtest.h>

#include "support/fake_transport.h"
#include "support/test_environment.h"
#include "tarvikdds/application/init.h"

namespace {

namespace bus = tarvik::korvan::bus;
using tarvik::quessa::EndsWith;
using tarvik::quessa::GetTopology;

bus::EntityRecord Record(int role, const std::string& app, const std::string& soc,
                         const std::string& node, const std::string& topic = "") {
  bus::EntityRecord r;
  r.role_type = role;
  r.app_name = app;
  r.soc_name = soc;
  r.node_name = node;
  r.topic_name = topic;
  return r;
}

class TopologyTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    transport_ = korvan_test::InstallFakeTransport();
    ASSERT_TRUE(tarvik::quessa::tarvikdds::Init("topology_test"));
  }
  std::string Snapshot(std::vector<bus::EntityRecord> records) {
    transport_->SetRemote(std::move(records));
    std::string out;
    EXPECT_TRUE(GetTopology(out));
    return out;
  }
  static std::shared_ptr<korvan_test::FakeTransport> transport_;
};
std::shared_ptr<korvan_test::FakeTransport> TopologyTest::transport_;

TEST_F(TopologyTest, EmptyBusIsAnEmptyArray) {
  EXPECT_EQ(Snapshot({}), "[]");
}

TEST_F(TopologyTest, NodeWithoutEndpointsHasOnlyItsName) {
  EXPECT_EQ(Snapshot({Record(5, "app", "0", "n")}),
            R"([{"app_name":"app","soc":"0","nodes":[{"node_name":"n"}]}])");
}

TEST_F(TopologyTest, ServiceTopicsFoldIntoServicesAndClients) {
  EXPECT_EQ(Snapshot({Record(5, "a", "0", "n"), Record(1, "a", "0", "n", "x__SRV__REQUEST"),
                      Record(1, "a", "0", "n", "y__SRV__RESPONSE"),
                      Record(1, "a", "0", "n", "__SRV__REQUEST"),
                      Record(2, "a", "0", "n", "x__SRV__REQUEST"),
                      Record(2, "a", "0", "n", "y__SRV__RESPONSE"),
                      Record(2, "a", "0", "n", "z__SRV__RESPONS")}),
            R"([{"app_name":"a","soc":"0","nodes":[{"client":["x",""],"service":["y"],)"
            R"("subscriber":["z__SRV__RESPONS"],"node_name":"n"}]}])");
}

TEST_F(TopologyTest, KeysInFirstOccurrenceOrderDuplicatesKept) {
  EXPECT_EQ(Snapshot({Record(5, "a", "0", "n"), Record(1, "a", "0", "n", "t"),
                      Record(1, "a", "0", "n", "t"), Record(1, "a", "0", "n", "u"),
                      Record(2, "a", "0", "n", "t")}),
            R"([{"app_name":"a","soc":"0","nodes":[{"publisher":["t","t","u"],)"
            R"("subscriber":["t"],"node_name":"n"}]}])");
}

TEST_F(TopologyTest, ApplicationOnTwoChipsAndNodesMissingFromTheNodeList) {
  // The endpoint's node is not in the node list; the tree makes its path anyway.
  EXPECT_EQ(Snapshot({Record(5, "a", "0", "n"), Record(5, "a", "1", "m"),
                      Record(1, "a", "2", "ghost", "t")}),
            R"([{"app_name":"a","soc":"0","nodes":[{"node_name":"n"}]},)"
            R"({"app_name":"a","soc":"1","nodes":[{"node_name":"m"}]},)"
            R"({"app_name":"a","soc":"2","nodes":[{"publisher":["t"],"node_name":"ghost"}]}])");
}

TEST_F(TopologyTest, RoleTypesOutsideTheTableAreUnknown) {
  rapidjson::Document tree;
  tree.Parse("{}");
  for (int role : {0, 3, 4, 5, 9, -1}) {
    bus::RoleAttr attr{"a", "0", "n", role, "t" + std::to_string(role), ""};
    tarvik::quessa::ProcessTopoPar(tree, attr);
  }
  const auto& node = tree["a"]["0"]["n"];
  EXPECT_EQ(node["unknown"].Size(), 3u);
  EXPECT_STREQ(node["service"][0].GetString(), "t3");
  EXPECT_STREQ(node["client"][0].GetString(), "t4");
  EXPECT_STREQ(node["node"][0].GetString(), "t5");
}

TEST_F(TopologyTest, FailingListCallsKeepTheOldText) {
  for (int failing_call = 1; failing_call <= 3; ++failing_call) {
    transport_->SetRemote({Record(5, "a", "0", "n")});
    transport_->FailListCall(failing_call);
    std::string out = "previous";
    EXPECT_FALSE(GetTopology(out)) << "call " << failing_call;
    EXPECT_EQ(out, "previous");
    transport_->FailListCall(0);
  }
}

TEST(EndsWithTest, Suffixes) {
  EXPECT_TRUE(EndsWith("abc", "bc"));
  EXPECT_TRUE(EndsWith("abc", ""));
  EXPECT_TRUE(EndsWith("abc", "abc"));
  EXPECT_FALSE(EndsWith("bc", "abc"));
  EXPECT_FALSE(EndsWith("abcab", "abc"));
  EXPECT_TRUE(EndsWith("abcabc", "abc"));
}

}  // namespace
