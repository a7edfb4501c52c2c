// Raw subscriptions hand over the bytes as they came: from another process the publisher's own
// wire bytes (its CRC still holds over them), in-process the deterministic serialisation.
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include "bag_test_util.h"
#include "korvan/bus/type_description.h"
#include "korvan/tools/raw_subscriber.h"
#include "korvan/tools/wire_stamps.h"
#include "support/child_process.h"
#include "support/test_environment.h"
#include "tarvikdds/messaging/dds_node.h"
#include "test_proto/test_messages.pb.h"

namespace {

using korvan::test::StampedMessage;
using korvan_bag_test::ExpectPublishersBytes;
using korvan_bag_test::kWait;
using tarvik::korvan::tools::RawReceived;
using tarvik::korvan::tools::RawSubscriber;
using tarvik::quessa::Node;
using tarvik::quessa::QoS;

struct Collected {
  std::mutex mutex;
  std::vector<std::pair<std::string, RawReceived>> items;
  RawSubscriber::OnBytes Callback() {
    return [this](std::string&& bytes, const RawReceived& info) {
      std::lock_guard<std::mutex> lock(mutex);
      items.emplace_back(std::move(bytes), info);
    };
  }
  size_t size() {
    std::lock_guard<std::mutex> lock(mutex);
    return items.size();
  }
};

TEST(RawSubscriberTest, InProcessMessagesArriveSerialised) {
  korvan_test::UseLocalBus();
  auto node = Node::CreateNode("raw_local", "");
  const std::string topic = korvan_test::UniqueName("raw/local");
  Collected collected;
  RawSubscriber raw(*node, topic, "korvan.test.StampedMessage", QoS(), collected.Callback());
  ASSERT_TRUE(raw.ok());
  auto publisher = node->CreatePublisher<StampedMessage>(topic, QoS());
  for (int i = 0; i < 3; ++i) {
    auto m = std::make_shared<StampedMessage>();
    m->set_sequence(i);
    m->set_text("local");
    (*m->mutable_labels())["b"] = 2;
    (*m->mutable_labels())["a"] = 1;
    ASSERT_TRUE(publisher->Publish(m));
  }
  ASSERT_TRUE(korvan_test::WaitFor([&] { return collected.size() >= 3; }, kWait));
  std::lock_guard<std::mutex> lock(collected.mutex);
  for (size_t i = 0; i < 3; ++i) {
    const auto& [bytes, info] = collected.items[i];
    EXPECT_FALSE(info.from_wire);
    EXPECT_GT(info.receive_time_ns, 0u);
    ExpectPublishersBytes(bytes);
    StampedMessage parsed;
    ASSERT_TRUE(parsed.ParseFromString(bytes));
    EXPECT_EQ(parsed.sequence(), i);
    EXPECT_TRUE(parsed.has_counter());
  }
}

TEST(RawSubscriberTest, BytesFromAnotherProcessAreThePublishersWireBytes) {
  auto node = Node::CreateNode("raw_remote", "");
  const std::string topic = korvan_test::UniqueName("raw/remote");
  const std::string finish = korvan_test::ScratchPath("finish");
  Collected collected;
  QoS keep_all;
  keep_all.history_type = 1;
  RawSubscriber raw(*node, topic, "korvan.test.StampedMessage", keep_all, collected.Callback());
  const std::string go = korvan_test::ScratchPath("go");
  korvan_test::ChildProcess child("publisher", {topic, "stamped", "20", "500", finish, go});
  ASSERT_TRUE(korvan_test::WaitFor([&] { return raw.MatchedPublishers() >= 1; }, kWait));
  korvan_test::TouchFile(go);
  ASSERT_TRUE(korvan_test::WaitFor([&] { return collected.size() >= 20; }, kWait))
      << child.output();
  korvan_test::TouchFile(finish);
  ASSERT_TRUE(child.Wait(kWait));
  EXPECT_EQ(child.exit_code(), 0) << child.output();

  const uint64_t hash = tarvik::korvan::bus::DescribeType(StampedMessage::descriptor()).type_hash;
  const auto layout = tarvik::korvan::tools::StampLayout::Of(StampedMessage::descriptor());
  std::lock_guard<std::mutex> lock(collected.mutex);
  ASSERT_EQ(collected.items.size(), 20u);
  for (size_t i = 0; i < collected.items.size(); ++i) {
    const auto& [bytes, info] = collected.items[i];
    EXPECT_TRUE(info.from_wire);
    EXPECT_EQ(info.type_hash, hash);
    ExpectPublishersBytes(bytes);
    StampedMessage parsed;
    ASSERT_TRUE(parsed.ParseFromString(bytes));
    EXPECT_EQ(parsed.sequence(), i);
    EXPECT_LE(parsed.publish_ts(), info.receive_time_ns);
    tarvik::korvan::tools::WireStamps stamps;
    ASSERT_TRUE(tarvik::korvan::tools::ReadWireStamps(bytes.data(), bytes.size(), layout, &stamps));
    EXPECT_EQ(stamps.counter, parsed.counter());
    EXPECT_EQ(stamps.publish_ts, parsed.publish_ts());
    EXPECT_EQ(stamps.publisher_id, parsed.publisher_id());
  }
}

}  // namespace
