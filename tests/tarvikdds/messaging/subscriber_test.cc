#include "tarvikdds/messaging/dds_subscriber.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/fake_env.h"
#include "support/test_environment.h"
#include "tarvikdds/messaging/dds_node.h"
#include "test_proto/test_messages.pb.h"

namespace {

using korvan::test::CountedMessage;
using korvan::test::CounterOnlyMessage;
using korvan::test::CrcMessage;
using korvan::test::PlainMessage;
using korvan::test::StampedMessage;
using korvan_test::ChildProcess;
using korvan_test::LogCapture;
using korvan_test::UniqueName;
using korvan_test::WaitFor;
using tarvik::quessa::Node;
using tarvik::quessa::QoS;
using tarvik::quessa::Subscriber;
using namespace std::chrono_literals;

QoS KeepAll() {
  QoS qos;
  qos.history_type = 1;
  return qos;
}

// Collects what a typed callback receives.
template <typename T>
class Inbox {
 public:
  std::function<void(const std::shared_ptr<T>&)> Callback() {
    return [this](const std::shared_ptr<T>& msg) {
      std::lock_guard<std::mutex> lock(mutex_);
      messages_.push_back(msg);
    };
  }
  size_t size() {
    std::lock_guard<std::mutex> lock(mutex_);
    return messages_.size();
  }
  std::vector<std::shared_ptr<T>> messages() {
    std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::shared_ptr<T>> messages_;
};

class SubscriberTest : public ::testing::Test {
 protected:
  void SetUp() override {
    korvan_test::UseLocalBus();
    node_ = Node::CreateNode(UniqueName("sub_node"), "");
  }
  std::unique_ptr<Node> node_;
};

template <typename T>
std::shared_ptr<T> Counted(uint64_t counter, const std::string& publisher = "") {
  auto msg = std::make_shared<T>();
  msg->set_counter(counter);
  msg->set_sequence(counter);
  if constexpr (std::is_same_v<T, CountedMessage>)
    msg->set_publisher_id(publisher);
  return msg;
}

TEST_F(SubscriberTest, WithoutCallbackKeepsTheNewestDepthMessages) {
  korvan_test::FakeClockEnv clock;
  auto sub = node_->CreateSubscriber<PlainMessage>(UniqueName("collect"), QoS(), nullptr, 100);
  auto impl = sub->impl();
  for (int i = 1; i <= 3; ++i) {
    auto msg = std::make_shared<PlainMessage>();
    msg->set_sequence(i);
    impl->OnMessage(msg);
  }
  std::vector<std::shared_ptr<PlainMessage>> out;
  sub->ReadReceived(out);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0]->sequence(), 3u);

  // An empty read still watches for update gaps.
  LogCapture log(2);
  clock.Advance(300ms);
  sub->ReadReceived(out);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(log.Count("Update gap(ms): 300"), 1u);

  sub->SetDepth(3);
  for (int i = 1; i <= 5; ++i) {
    auto msg = std::make_shared<PlainMessage>();
    msg->set_sequence(i);
    impl->OnMessage(msg);
  }
  EXPECT_TRUE(sub->HasReceived());
  sub->ReadReceived(out);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[0]->sequence(), 3u);
  EXPECT_EQ(out[2]->sequence(), 5u);
  EXPECT_FALSE(sub->HasReceived());
}

TEST_F(SubscriberTest, CounterGapsAreReportedRepeatsRefused) {
  Inbox<CountedMessage> inbox;
  auto sub = node_->CreateSubscriber<CountedMessage>(UniqueName("seq"), QoS(), inbox.Callback());
  std::vector<std::pair<uint64_t, uint64_t>> reports;
  sub->impl()->SetSequenceErrorCallback([&](const std::shared_ptr<void>&, uint64_t last,
                                            uint64_t got) { reports.emplace_back(last, got); });
  LogCapture log(2);
  for (uint64_t c : {0, 1, 2})
    sub->impl()->OnMessage(Counted<CountedMessage>(c, "p1"));
  EXPECT_TRUE(reports.empty());
  sub->impl()->OnMessage(Counted<CountedMessage>(4, "p1"));  // gap: reported, delivered
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0], std::make_pair(uint64_t{2}, uint64_t{4}));
  EXPECT_EQ(log.Count("Message counter mismatch, expected: 3 actual: 4"), 1u);
  auto repeat = Counted<CountedMessage>(4, "p1");
  sub->impl()->OnMessage(repeat);  // repeat: reported, refused
  EXPECT_EQ(reports.size(), 2u);
  EXPECT_EQ(inbox.size(), 4u);
  EXPECT_FALSE(sub->impl()->validateMsgForRead(repeat));
  EXPECT_TRUE(sub->impl()->validateMsgForRead(repeat));

  // A second publisher identity starts anywhere and keeps its own counter.
  sub->impl()->OnMessage(Counted<CountedMessage>(0, "p2"));
  sub->impl()->OnMessage(Counted<CountedMessage>(1, "p2"));
  sub->impl()->OnMessage(Counted<CountedMessage>(5, "p1"));
  EXPECT_EQ(reports.size(), 2u);
  EXPECT_EQ(inbox.size(), 7u);
}

TEST_F(SubscriberTest, WithoutPublisherIdOneCounterForAll) {
  Inbox<CounterOnlyMessage> inbox;
  auto sub =
      node_->CreateSubscriber<CounterOnlyMessage>(UniqueName("seq1"), QoS(), inbox.Callback());
  for (uint64_t c : {0, 1, 1, 0, 2})
    sub->impl()->OnMessage(Counted<CounterOnlyMessage>(c));
  ASSERT_EQ(inbox.size(), 3u);
  EXPECT_EQ(inbox.messages()[2]->sequence(), 2u);
  EXPECT_EQ(sub->impl()->mismatch_count(), 2u);
}

TEST_F(SubscriberTest, CrcMismatchIsRejectedOnce) {
  Inbox<CrcMessage> inbox;
  auto sub = node_->CreateSubscriber<CrcMessage>(UniqueName("crc"), QoS(), inbox.Callback());
  std::vector<std::pair<uint32_t, uint32_t>> crc_reports;
  sub->impl()->SetCRCErrorCallback(
      [&](uint32_t carried, uint32_t computed) { crc_reports.emplace_back(carried, computed); });

  auto good = std::make_shared<CrcMessage>();
  good->set_text("payload");
  CrcMessage zeroed = *good;
  zeroed.set_crc(0);
  good->set_crc(sub->impl()->CalculateCRC(zeroed.SerializeAsString()));
  sub->impl()->OnMessage(good);
  ASSERT_EQ(inbox.size(), 1u);
  EXPECT_EQ(inbox.messages()[0]->crc(), good->crc());  // put back after the check

  auto bad = std::make_shared<CrcMessage>();
  bad->set_text("payload");
  bad->set_crc(good->crc() ^ 1);
  LogCapture log(2);
  sub->impl()->OnMessage(bad);
  EXPECT_EQ(inbox.size(), 1u);
  ASSERT_EQ(crc_reports.size(), 1u);
  EXPECT_EQ(crc_reports[0].first, good->crc() ^ 1);
  EXPECT_EQ(crc_reports[0].second, good->crc());
  EXPECT_EQ(log.Count(": CRC error, expected: "), 1u);
  EXPECT_FALSE(sub->impl()->validateMsgForRead(bad));
  EXPECT_TRUE(sub->impl()->validateMsgForRead(bad));
}

TEST_F(SubscriberTest, ManualInitSwitchesChecksOff) {
  Inbox<CounterOnlyMessage> inbox;
  auto sub =
      node_->CreateSubscriber<CounterOnlyMessage>(UniqueName("manual"), QoS(), inbox.Callback());
  sub->impl()->MannualInitParticipant();
  for (uint64_t c : {3, 3, 1})
    sub->impl()->OnMessage(Counted<CounterOnlyMessage>(c));
  EXPECT_EQ(inbox.size(), 3u);
}

TEST_F(SubscriberTest, PublishedMessagesArriveOnceWithTheirOwnCopy) {
  const std::string topic = UniqueName("copies");
  Inbox<StampedMessage> first;
  Inbox<StampedMessage> second;
  auto sub1 = node_->CreateSubscriber<StampedMessage>(topic, KeepAll(), first.Callback());
  auto sub2 = node_->CreateSubscriber<StampedMessage>(topic, KeepAll(), second.Callback());
  auto pub = node_->CreatePublisher<StampedMessage>(topic, KeepAll());
  EXPECT_EQ(pub->MatchedSubscribers(), 2);
  EXPECT_EQ(sub1->MatchedPublishers(), 1);
  auto msg = std::make_shared<StampedMessage>();
  for (int i = 0; i < 100; ++i) {
    msg->set_sequence(i);  // the same object each time: subscribers must have copies
    ASSERT_TRUE(pub->Publish(msg));
  }
  ASSERT_TRUE(WaitFor([&] { return first.size() == 100 && second.size() == 100; }, 10s));
  auto got = first.messages();
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(got[i]->sequence(), static_cast<uint64_t>(i));
    EXPECT_EQ(got[i]->counter(), static_cast<uint64_t>(i));
    EXPECT_NE(got[i].get(), second.messages()[i].get());
  }
  EXPECT_EQ(sub1->impl()->mismatch_count(), 0u);
}

TEST_F(SubscriberTest, SlowCallbackStallsOnlyItsOwnTopic) {
  std::mutex gate;
  std::unique_lock<std::mutex> closed(gate);  // held: the slow callback blocks on it
  std::atomic<int> slow_calls{0};
  auto slow = node_->CreateSubscriber<PlainMessage>(UniqueName("slow"), KeepAll(),
                                                    [&](const std::shared_ptr<PlainMessage>&) {
                                                      ++slow_calls;
                                                      std::lock_guard<std::mutex> wait(gate);
                                                    });
  Inbox<PlainMessage> fast_inbox;
  const std::string fast_topic = UniqueName("fast");
  auto fast = node_->CreateSubscriber<PlainMessage>(fast_topic, KeepAll(), fast_inbox.Callback());
  auto slow_pub = node_->CreatePublisher<PlainMessage>(slow->impl()->topic(), KeepAll());
  auto fast_pub = node_->CreatePublisher<PlainMessage>(fast_topic, KeepAll());
  slow_pub->Publish(std::make_shared<PlainMessage>());
  ASSERT_TRUE(WaitFor([&] { return slow_calls == 1; }, 10s));
  for (int i = 0; i < 50; ++i)
    fast_pub->Publish(std::make_shared<PlainMessage>());
  EXPECT_TRUE(WaitFor([&] { return fast_inbox.size() == 50; }, 10s));
  closed.unlock();
}

TEST_F(SubscriberTest, DestructionWaitsForARunningCallback) {
  const std::string topic = UniqueName("waits");
  std::mutex gate;
  std::unique_lock<std::mutex> closed(gate);
  std::atomic<bool> entered{false};
  std::atomic<bool> callback_done{false};
  auto sub = node_->CreateSubscriber<PlainMessage>(topic, KeepAll(),
                                                   [&](const std::shared_ptr<PlainMessage>&) {
                                                     entered = true;
                                                     std::lock_guard<std::mutex> wait(gate);
                                                     callback_done = true;
                                                   });
  auto pub = node_->CreatePublisher<PlainMessage>(topic, KeepAll());
  pub->Publish(std::make_shared<PlainMessage>());
  ASSERT_TRUE(WaitFor([&] { return entered.load(); }, 10s));
  std::atomic<bool> done_when_destroyed{false};
  std::thread destroyer([&] {
    sub.reset();
    done_when_destroyed = callback_done.load();
  });
  closed.unlock();
  destroyer.join();
  EXPECT_TRUE(done_when_destroyed);
  EXPECT_EQ(pub->MatchedSubscribers(), 0);
}

TEST_F(SubscriberTest, TypeWithoutStampsIsAlwaysDelivered) {
  Inbox<PlainMessage> inbox;
  LogCapture log(3);
  auto sub = node_->CreateSubscriber<PlainMessage>(UniqueName("plain"), QoS(), inbox.Callback());
  for (int i = 0; i < 3; ++i)
    sub->impl()->OnMessage(std::make_shared<PlainMessage>());
  EXPECT_EQ(inbox.size(), 3u);
  EXPECT_TRUE(log.Lines().empty());
}

KORVAN_CHILD_ROLE(configured_topic_skips_counter_check) {
  auto node = Node::CreateNode("configured", "");
  Inbox<CounterOnlyMessage> inbox;
  auto sub =
      node->CreateSubscriber<CounterOnlyMessage>("configured/topic", QoS(), inbox.Callback());
  for (uint64_t c : {5, 5, 1})
    sub->impl()->OnMessage(Counted<CounterOnlyMessage>(c));
  CHILD_CHECK(inbox.size() == 3);
  CHILD_CHECK(sub->impl()->mismatch_count() == 0);
  return CHILD_RESULT();
}

TEST_F(SubscriberTest, ConfiguredTopicSkipsTheCounterCheck) {
  std::string config = korvan_test::WriteScratchFile(
      "configured.json",
      R"({"default_transport": "local", "topics": [{"name": "configured/topic"}]})");
  ChildProcess child("configured_topic_skips_counter_check", {},
                     {"KORVAN_BUS_CONFIG_PATH=" + config});
  ASSERT_TRUE(child.Wait(60s));
  EXPECT_EQ(child.exit_code(), 0) << child.output();
}

}  // namespace
