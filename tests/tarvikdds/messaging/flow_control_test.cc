// Flow control in one process: what a subscriber holds is bounded, a reliable keep-all
// subscriber that is full holds its publisher back (up to the one-second blocking time, then
// Publish fails), and every sample a subscriber loses is counted in DroppedSamples().
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/test_environment.h"
#include "tarvikdds/messaging/dds_node.h"
#include "test_proto/test_messages.pb.h"

namespace {

using korvan::test::PlainMessage;
using korvan_test::UniqueName;
using korvan_test::WaitFor;
using tarvik::quessa::Node;
using tarvik::quessa::QoS;
using namespace std::chrono_literals;

// A callback that blocks on its first message until Open(), recording every sequence.
class Gate {
 public:
  std::function<void(const std::shared_ptr<PlainMessage>&)> Callback() {
    return [this](const std::shared_ptr<PlainMessage>& msg) {
      std::unique_lock<std::mutex> lock(mutex_);
      sequences_.push_back(msg->sequence());
      entered_ = true;
      changed_.notify_all();
      changed_.wait(lock, [this] { return open_; });
    };
  }
  bool WaitEntered() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, 60s, [this] { return entered_; });
  }
  void Open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  std::vector<uint64_t> sequences() {
    std::lock_guard<std::mutex> lock(mutex_);
    return sequences_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool entered_ = false;
  bool open_ = false;
  std::vector<uint64_t> sequences_;
};

std::shared_ptr<PlainMessage> Numbered(uint64_t sequence) {
  auto msg = std::make_shared<PlainMessage>();
  msg->set_sequence(sequence);
  return msg;
}

QoS KeepAll() {
  QoS qos;
  qos.history_type = 1;
  return qos;
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class FlowControlTest : public ::testing::Test {
 protected:
  // Every test configures its topics; `entries` is the JSON of the "topics" array.
  void Start(const std::string& entries) {
    korvan_test::UseLocalBus();
    const std::string path =
        korvan_test::WriteScratchFile("flow.json", "{\"topics\": [" + entries + "]}");
    ::setenv("KORVAN_BUS_CONFIG_PATH", path.c_str(), 1);
    node_ = Node::CreateNode(UniqueName("flow"), "");
  }
  std::unique_ptr<Node> node_;
};

TEST_F(FlowControlTest, FullKeepAllSubscriberHoldsThePublisherBackThenPublishFails) {
  const std::string topic = UniqueName("flow/all");
  Start("{\"name\": \"" + topic + "\", \"qos\": {\"history\": 2, \"maxSamples\": 5}}");
  Gate gate;
  auto sub = node_->CreateSubscriber<PlainMessage>(topic, KeepAll(), gate.Callback());
  auto pub = node_->CreatePublisher<PlainMessage>(topic, KeepAll());
  ASSERT_TRUE(pub->Publish(Numbered(0)));
  ASSERT_TRUE(gate.WaitEntered());
  for (uint64_t i = 1; i <= 5; ++i)
    ASSERT_TRUE(pub->Publish(Numbered(i))) << i;  // the five the subscriber holds

  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(pub->Publish(Numbered(6)));
  const double blocked = SecondsSince(start);
  std::printf("[ measured ] Publish to a full subscriber failed after %.3f s\n", blocked);
  EXPECT_GE(blocked, 0.9);  // it waited out the blocking time
  EXPECT_EQ(sub->DroppedSamples(), 1u);

  // Room made while a publisher waits lets it through.
  std::atomic<bool> accepted{false};
  std::thread waiting([&] { accepted = pub->Publish(Numbered(7)); });
  std::this_thread::sleep_for(100ms);
  gate.Open();
  waiting.join();
  EXPECT_TRUE(accepted);
  ASSERT_TRUE(WaitFor([&] { return gate.sequences().size() >= 7; }, 60s));
  EXPECT_EQ(gate.sequences(), (std::vector<uint64_t>{0, 1, 2, 3, 4, 5, 7}));
  EXPECT_EQ(sub->DroppedSamples(), 1u);
}

TEST_F(FlowControlTest, KeepAllSubscriberHoldsAThousandByDefault) {
  const std::string topic = UniqueName("flow/default");
  Start("");
  Gate gate;
  auto sub = node_->CreateSubscriber<PlainMessage>(topic, KeepAll(), gate.Callback());
  auto pub = node_->CreatePublisher<PlainMessage>(topic, KeepAll());
  ASSERT_TRUE(pub->Publish(Numbered(0)));
  ASSERT_TRUE(gate.WaitEntered());
  uint64_t accepted = 1;
  while (accepted < 5000 && pub->Publish(Numbered(accepted)))
    ++accepted;
  EXPECT_EQ(accepted, 1001u);  // one in the callback, a thousand waiting
  gate.Open();
  ASSERT_TRUE(WaitFor([&] { return gate.sequences().size() >= 1001; }, 60s));
  EXPECT_EQ(sub->DroppedSamples(), 1u);
}

TEST_F(FlowControlTest, KeepLastOverwritesAreCounted) {
  const std::string topic = UniqueName("flow/last");
  Start("");
  QoS keep_last;
  keep_last.history_depth = 3;
  Gate gate;
  auto sub = node_->CreateSubscriber<PlainMessage>(topic, keep_last, gate.Callback());
  auto pub = node_->CreatePublisher<PlainMessage>(topic, keep_last);
  ASSERT_TRUE(pub->Publish(Numbered(0)));
  ASSERT_TRUE(gate.WaitEntered());
  for (uint64_t i = 1; i < 20; ++i)
    EXPECT_TRUE(pub->Publish(Numbered(i)));  // keep-last never holds a publisher back
  EXPECT_EQ(sub->DroppedSamples(), 16u);
  gate.Open();
  ASSERT_TRUE(WaitFor([&] { return gate.sequences().size() >= 4; }, 60s));
  EXPECT_EQ(gate.sequences(), (std::vector<uint64_t>{0, 17, 18, 19}));
}

TEST_F(FlowControlTest, FullBestEffortSubscriberDropsAndCountsWithoutBlocking) {
  const std::string topic = UniqueName("flow/best");
  Start("{\"name\": \"" + topic +
        "\", \"qos\": {\"history\": 2, \"reliability\": 2, \"maxSamples\": 4}}");
  Gate gate;
  auto sub = node_->CreateSubscriber<PlainMessage>(topic, KeepAll(), gate.Callback());
  auto pub = node_->CreatePublisher<PlainMessage>(topic, KeepAll());
  ASSERT_TRUE(pub->Publish(Numbered(0)));
  ASSERT_TRUE(gate.WaitEntered());
  const auto start = std::chrono::steady_clock::now();
  for (uint64_t i = 1; i < 20; ++i)
    EXPECT_TRUE(pub->Publish(Numbered(i)));
  EXPECT_LT(SecondsSince(start), 0.9) << "a best-effort subscriber never holds a publisher";
  EXPECT_EQ(sub->DroppedSamples(), 15u);
  gate.Open();
  ASSERT_TRUE(WaitFor([&] { return gate.sequences().size() >= 5; }, 60s));
  EXPECT_EQ(gate.sequences(), (std::vector<uint64_t>{0, 1, 2, 3, 4}));
}

// A callback that publishes onto its own full topic cannot wait for itself to make room.
TEST_F(FlowControlTest, PublishingIntoOwnFullTopicFailsAtOnce) {
  const std::string topic = UniqueName("flow/self");
  Start("{\"name\": \"" + topic + "\", \"qos\": {\"history\": 2, \"maxSamples\": 2}}");
  std::shared_ptr<tarvik::quessa::Publisher<PlainMessage>> pub;
  std::atomic<int> refused{0};
  std::atomic<int> calls{0};
  std::atomic<double> slowest{0};
  auto sub = node_->CreateSubscriber<PlainMessage>(
      topic, KeepAll(), [&](const std::shared_ptr<PlainMessage>& msg) {
        ++calls;
        if (msg->sequence() != 0)
          return;
        for (uint64_t i = 1; i <= 4; ++i) {
          const auto start = std::chrono::steady_clock::now();
          if (!pub->Publish(Numbered(i)))
            ++refused;
          slowest = std::max(slowest.load(), SecondsSince(start));
        }
      });
  pub = node_->CreatePublisher<PlainMessage>(topic, KeepAll());
  ASSERT_TRUE(pub->Publish(Numbered(0)));
  ASSERT_TRUE(WaitFor([&] { return calls.load() >= 3; }, 60s));
  EXPECT_EQ(refused.load(), 2);
  EXPECT_LT(slowest.load(), 0.9);
  EXPECT_EQ(sub->DroppedSamples(), 2u);
}

}  // namespace
