#include "tarvikdds/messaging/dds_publisher.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

#include "infra/time.h"
#include "support/child_process.h"
#include "support/test_environment.h"
#include "tarvikdds/bus/stamp_fields.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/proto/app_messages.pb.h"
#include "tarvikdds/proto/perf_monitor.pb.h"
#include "test_proto/test_messages.pb.h"

namespace {

using korvan::test::PlainMessage;
using korvan::test::StampedMessage;
using korvan_test::ChildProcess;
using korvan_test::UniqueName;
using tarvik::quessa::Node;
using tarvik::quessa::QoS;
using namespace std::chrono_literals;

class PublisherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    korvan_test::UseLocalBus();
    node_ = Node::CreateNode(UniqueName("pub_node"), "");
  }
  std::unique_ptr<Node> node_;
};

uint32_t Crc32(const std::string& bytes) {
  tarvik::quessa::Participant p("crc");
  return p.CalculateCRC(bytes);
}

TEST_F(PublisherTest, StampsEveryDeclaredField) {
  auto pub = node_->CreatePublisher<StampedMessage>(UniqueName("stamped"), QoS());
  std::vector<uint64_t> counters;
  for (int i = 0; i < 3; ++i) {
    auto msg = std::make_shared<StampedMessage>();
    msg->set_sequence(i);
    (*msg->mutable_labels())["k"] = i;
    const uint64_t before = tarvik::korvan::Time::Utc(tarvik::korvan::Time::kNanosecond);
    EXPECT_TRUE(pub->Publish(msg));
    counters.push_back(msg->counter());
    EXPECT_GE(msg->publish_ts(), before);
    EXPECT_GE(msg->publish_ptp_ts(), before);
    EXPECT_EQ(msg->publisher_id(), pub->impl()->participant_id());
    // The CRC covers the serialised message with its own field at 0.
    StampedMessage zeroed = *msg;
    zeroed.set_crc(0);
    std::string bytes;
    ASSERT_TRUE(tarvik::korvan::bus::SerializeDeterministic(zeroed, &bytes));
    EXPECT_EQ(msg->crc(), Crc32(bytes));
  }
  EXPECT_EQ(counters, (std::vector<uint64_t>{0, 1, 2}));
}

TEST_F(PublisherTest, TypeWithoutStampsIsLeftAsItIs) {
  auto pub = node_->CreatePublisher<PlainMessage>(UniqueName("plain"), QoS());
  auto msg = std::make_shared<PlainMessage>();
  msg->set_text("unchanged");
  const std::string before = msg->SerializeAsString();
  EXPECT_TRUE(pub->Publish(msg));
  EXPECT_EQ(msg->SerializeAsString(), before);
}

TEST_F(PublisherTest, LibraryEnvelopesAreNeverStampedWhicheverPublisherCarriesThem) {
  using tarvik::quessa::messages::internal::SampleBatch;
  const std::string topic = UniqueName("batches");
  std::mutex mutex;
  std::condition_variable arrived;
  std::shared_ptr<SampleBatch> received;
  auto sub = node_->CreateSubscriber<SampleBatch>(topic, QoS(),
                                                  [&](const std::shared_ptr<SampleBatch>& batch) {
                                                    std::lock_guard<std::mutex> lock(mutex);
                                                    received = batch;
                                                    arrived.notify_all();
                                                  });
  auto pub = node_->CreatePublisher<SampleBatch>(topic, QoS());
  auto batch = std::make_shared<SampleBatch>();
  ASSERT_TRUE(pub->Publish(batch));
  EXPECT_FALSE(batch->has_publish_ts());
  std::unique_lock<std::mutex> lock(mutex);
  ASSERT_TRUE(arrived.wait_for(lock, 10s, [&] { return received != nullptr; }));
  EXPECT_FALSE(received->has_publish_ts());
}

TEST_F(PublisherTest, IncompleteMessagesAreNotSent) {
  using tarvik::quessa::messages::internal::AppSignal;
  auto pub = node_->CreatePublisher<AppSignal>(UniqueName("signal"), QoS());
  auto incomplete = std::make_shared<AppSignal>();
  incomplete->set_frame(1);  // timestamp missing
  korvan_test::LogCapture log(2);
  EXPECT_FALSE(pub->Publish(incomplete));
  EXPECT_EQ(log.Count("lacks required fields"), 1u);
  incomplete->set_timestamp(2);
  EXPECT_TRUE(pub->Publish(incomplete));
}

TEST_F(PublisherTest, CreationLogLines) {
  korvan_test::LogCapture log(4);
  const std::string topic = UniqueName("logged");
  QoS qos;
  qos.history_type = 1;
  qos.history_depth = 7;
  qos.durability = 2;
  qos.reliability = 3;
  auto pub = node_->CreatePublisher<StampedMessage>(topic, qos);
  EXPECT_EQ(log.Count("[timeline] Creating Publisher for topic " + topic +
                      " with counter: 1, publisher_id: 1, crc: 1, publish_ts: 1, "
                      "publish_ptp_ts: 1"),
            1u);
  // The print order of the QoS is history type, depth, reliability, durability.
  EXPECT_EQ(log.Count("Created Publisher for topic :" + topic + " with QoS(1,7,3,2)"), 1u);
}

KORVAN_CHILD_ROLE(publish_without_bus) {
  auto node = Node::CreateNode("lonely", "");
  auto pub = node->CreatePublisher<PlainMessage>("nowhere", QoS());
  CHILD_CHECK(!pub->Publish(std::make_shared<PlainMessage>()));
  CHILD_CHECK(pub->MatchedSubscribers() == 0);
  return CHILD_RESULT();
}

TEST_F(PublisherTest, WithoutABusPublishFails) {
  ChildProcess child("publish_without_bus", {}, {"KORVAN_BUS_CONFIG_PATH=/nonexistent/bus.json"});
  ASSERT_TRUE(child.Wait(60s));
  EXPECT_EQ(child.exit_code(), 0) << child.output();
  EXPECT_NE(child.output().find("the bus is not initialised"), std::string::npos);
}

}  // namespace
