#include "tarvikdds/messaging/dds_node.h"

#include <stdexcept>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/test_environment.h"

namespace {

using korvan_test::ChildProcess;
using tarvik::quessa::Node;
using namespace std::chrono_literals;

class NodeTest : public ::testing::Test {
 protected:
  void SetUp() override { korvan_test::UseLocalBus(); }
};

TEST_F(NodeTest, DuplicateNameInOneDomainIsRefused) {
  auto first = Node::CreateNode("a", "d1");
  try {
    Node::CreateNode("a", "d1");
    FAIL() << "the duplicate was accepted";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "messaging/dds_node.cc : Node @line 301 Dup node exists: a, d1");
  }
  auto other_domain = Node::CreateNode("a", "d2");
  EXPECT_EQ(Node::GetNode("a", "d1"), first.get());
  EXPECT_EQ(Node::GetNode("a", "d2"), other_domain.get());
}

TEST_F(NodeTest, EnumerationFollowsCreationOrderAcrossDeletions) {
  const uint32_t before = Node::GetNodeCount();
  auto x = Node::CreateNode("x", "enum");
  auto y = Node::CreateNode("y", "enum");
  auto z = Node::CreateNode("z", "enum");
  y.reset();
  ASSERT_EQ(Node::GetNodeCount(), before + 2);
  EXPECT_EQ(Node::GetNodeAt(before), x.get());
  EXPECT_EQ(Node::GetNodeAt(before + 1), z.get());
  // The name is free again once its node is gone.
  auto y_again = Node::CreateNode("y", "enum");
  EXPECT_EQ(Node::GetNodeAt(before + 2), y_again.get());
}

TEST_F(NodeTest, UnknownNamesAndDomainsAreNull) {
  auto n = Node::CreateNode("known", "dom");
  EXPECT_EQ(Node::GetNode("unknown", "dom"), nullptr);
  EXPECT_EQ(Node::GetNode("known", "no-such-domain"), nullptr);
  EXPECT_EQ(n->node_name(), "known");  // chip 0 adds nothing
}

KORVAN_CHILD_ROLE(node_name_on_chip) {
  auto node = Node::CreateNode("planner", "");
  CHILD_CHECK(node->node_name() == "planner_S2");
  CHILD_CHECK(node->name() == "planner");
  return CHILD_RESULT();
}

TEST_F(NodeTest, NodeNameCarriesANonZeroChipIndex) {
  ChildProcess child("node_name_on_chip", {}, {"KORVAN_SOC_INDEX=2", "KORVAN_BUS_TRANSPORT=local"});
  ASSERT_TRUE(child.Wait(60s));
  EXPECT_EQ(child.exit_code(), 0) << child.output();
}

}  // namespace
