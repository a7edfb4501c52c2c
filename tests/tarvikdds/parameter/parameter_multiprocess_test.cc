// Parameter servers and clients in different processes, over DDS.
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/test_environment.h"
#include "tarvikdds/message/protobuf_factory.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/messaging/dds_parameter_client.h"
#include "tarvikdds/parameter/parameter_client.h"
#include "test_proto/diamond_top.pb.h"
#include "test_proto/test_messages.pb.h"

#ifndef KORVAN_PARAM_PEER
#error "KORVAN_PARAM_PEER must name the peer program"
#endif

namespace {

using korvan_test::ChildProcess;
using korvan_test::UniqueName;
using tarvik::korvan::Parameter;
using tarvik::korvan::ParameterClient;
using tarvik::quessa::Node;
using namespace std::chrono_literals;

class ParameterMultiProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_name_ = UniqueName("remote_params");
    stop_ = korvan_test::ScratchPath("stop");
    peer_ = std::make_unique<ChildProcess>(ChildProcess::Program{KORVAN_PARAM_PEER},
                                           std::vector<std::string>{server_name_, stop_});
    ASSERT_TRUE(peer_->WaitForOutput("READY", 60s)) << peer_->output();
    node_ = Node::CreateNode(UniqueName("local"), "");
  }
  void TearDown() override {
    korvan_test::TouchFile(stop_);
    ASSERT_TRUE(peer_->Wait(60s));
    EXPECT_EQ(peer_->exit_code(), 0) << peer_->output();
  }
  std::string server_name_;
  std::string stop_;
  std::unique_ptr<ChildProcess> peer_;
  std::unique_ptr<Node> node_;
};

TEST_F(ParameterMultiProcessTest, GetSetListEveryTypeAndTheServerHearsRemoteSets) {
  ParameterClient client(node_.get(), server_name_);
  ASSERT_TRUE(client.SetParameter(Parameter("b", false), 30s)) << peer_->output();
  ASSERT_TRUE(client.SetParameter(Parameter("i", -5), 10s));
  ASSERT_TRUE(client.SetParameter(Parameter("d", 0.25f), 10s));
  ASSERT_TRUE(client.SetParameter(Parameter("s", std::string("remote")), 10s));
  korvan::test::PlainMessage message;
  message.set_text("over there");
  ASSERT_TRUE(client.SetParameter(Parameter("m", message), 10s));

  Parameter out;
  ASSERT_TRUE(client.GetParameter("b", &out, 10s));
  EXPECT_FALSE(out.value<bool>());
  ASSERT_TRUE(client.GetParameter("i", &out, 10s));
  EXPECT_EQ(out.value<long>(), -5);
  ASSERT_TRUE(client.GetParameter("d", &out, 10s));
  EXPECT_DOUBLE_EQ(out.value<double>(), 0.25);
  ASSERT_TRUE(client.GetParameter("s", &out, 10s));
  EXPECT_EQ(out.value<std::string>(), "remote");
  std::vector<Parameter> listed;
  ASSERT_TRUE(client.ListParameters(&listed, 10s));
  EXPECT_EQ(listed.size(), 5u);

  ASSERT_TRUE(peer_->WaitForOutput("CHANGED m", 30s));
  const std::string output = peer_->output();
  EXPECT_NE(output.find("CHANGED b {name: \"b\", type: \"BOOL\", value: false}"),
            std::string::npos);
  EXPECT_NE(output.find("CHANGED i {name: \"i\", type: \"INT\", value: -5}"), std::string::npos);
  EXPECT_NE(output.find("CHANGED d {name: \"d\", type: \"DOUBLE\", value: 0.250000}"),
            std::string::npos);
  EXPECT_NE(output.find("CHANGED s {name: \"s\", type: \"STRING\", value: \"remote\"}"),
            std::string::npos);
}

TEST_F(ParameterMultiProcessTest, ALimitRefusedOverTheBusAndServingGoesOn) {
  ParameterClient client(node_.get(), server_name_);
  ASSERT_TRUE(client.SetParameter(Parameter("edge", std::string(1048576, 'y')), 30s));
  EXPECT_FALSE(client.SetParameter(Parameter("over", std::string(1048577, 'y')), 30s));
  for (int i = 1; i < 200; ++i) {
    ASSERT_TRUE(client.SetParameter(Parameter("n" + std::to_string(i), i), 10s)) << i;
  }
  EXPECT_FALSE(client.SetParameter(Parameter("n200", 200), 10s));
  Parameter out;
  ASSERT_TRUE(client.GetParameter("edge", &out, 30s));
  EXPECT_EQ(out.value<std::string>().size(), 1048576u);
  EXPECT_NE(peer_->output().find("max_size(1M) exceed, return false"), std::string::npos);
  EXPECT_NE(peer_->output().find("max_count(200) exceed, return false"), std::string::npos);
}

TEST_F(ParameterMultiProcessTest, APeerWithoutTheTypeDecodesItFromItsDescription) {
  tarvik::quessa::ParamClient client(node_.get(), server_name_);
  auto top = std::make_shared<korvan::test::DiamondTop>();
  top->mutable_left()->set_label("left side");
  top->mutable_left()->mutable_base()->set_id(1);
  top->mutable_right()->add_values(2.5);
  top->mutable_right()->mutable_base()->set_id(2);
  ASSERT_TRUE(client.SetParameter("diamond", top, 30s)) << peer_->output();
  ASSERT_TRUE(peer_->WaitForOutput("DECODED korvan.test.DiamondTop", 30s)) << peer_->output();
  const std::string expected = top->ShortDebugString();
  EXPECT_NE(peer_->output().find("DECODED korvan.test.DiamondTop " + expected), std::string::npos)
      << peer_->output();
  EXPECT_NE(peer_->output().find("type: \"korvan.test.DiamondTop\", value: \"" + expected + "\"}"),
            std::string::npos)
      << peer_->output();
}

}  // namespace
