// Topics configured for inline delivery: in-process messages reach the callback on the
// publishing thread when the subscriber is idle, without losing order or deadlocking.
#include <atomic>
#include <map>
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
using korvan_test::WaitFor;
using tarvik::quessa::Node;
using tarvik::quessa::QoS;
using namespace std::chrono_literals;

QoS KeepAll() {
  QoS qos;
  qos.history_type = 1;
  return qos;
}

std::shared_ptr<PlainMessage> Numbered(uint64_t sequence, const std::string& text = "") {
  auto msg = std::make_shared<PlainMessage>();
  msg->set_sequence(sequence);
  msg->set_text(text);
  return msg;
}

class InlineDeliveryTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string topics;
    for (const char* name : {"inline/thread", "inline/order", "inline/echo", "inline/nested"}) {
      if (!topics.empty())
        topics += ",";
      topics += R"({"name": ")" + std::string(name) +
                R"(", "inline_delivery": true, "qos": {"history": 2}})";
    }
    const std::string path = korvan_test::WriteScratchFile(
        "inline.json", R"({"default_transport": "local", "topics": [)" + topics + "]}");
    ::setenv("KORVAN_BUS_CONFIG_PATH", path.c_str(), 1);
  }
  void SetUp() override { node_ = Node::CreateNode(korvan_test::UniqueName("inline"), ""); }
  std::unique_ptr<Node> node_;
};

TEST_F(InlineDeliveryTest, AnIdleSubscriberIsCalledOnThePublishingThread) {
  std::thread::id called_on;
  auto sub = node_->CreateSubscriber<PlainMessage>(
      "inline/thread", KeepAll(),
      [&](const std::shared_ptr<PlainMessage>&) { called_on = std::this_thread::get_id(); });
  auto pub = node_->CreatePublisher<PlainMessage>("inline/thread", KeepAll());
  ASSERT_TRUE(pub->Publish(Numbered(1)));
  EXPECT_EQ(called_on, std::this_thread::get_id());  // done by the time Publish returned
}

TEST_F(InlineDeliveryTest, ConcurrentPublishersKeepTheirOrderAndLoseNothing) {
  std::mutex mutex;
  std::map<std::string, std::vector<uint64_t>> seen;
  auto sub = node_->CreateSubscriber<PlainMessage>("inline/order", KeepAll(),
                                                   [&](const std::shared_ptr<PlainMessage>& msg) {
                                                     std::lock_guard<std::mutex> lock(mutex);
                                                     seen[msg->text()].push_back(msg->sequence());
                                                   });
  constexpr int kPublishers = 4;
  constexpr int kMessages = 2000;
  std::vector<std::thread> publishers;
  for (int p = 0; p < kPublishers; ++p) {
    publishers.emplace_back([&, p] {
      auto pub = node_->CreatePublisher<PlainMessage>("inline/order", KeepAll());
      for (int i = 0; i < kMessages; ++i)
        pub->Publish(Numbered(i, std::to_string(p)));
    });
  }
  for (auto& t : publishers)
    t.join();
  ASSERT_TRUE(WaitFor(
      [&] {
        std::lock_guard<std::mutex> lock(mutex);
        size_t total = 0;
        for (const auto& entry : seen)
          total += entry.second.size();
        return total == kPublishers * kMessages;
      },
      30s));
  std::lock_guard<std::mutex> lock(mutex);
  for (const auto& entry : seen) {
    for (size_t i = 0; i < entry.second.size(); ++i)
      ASSERT_EQ(entry.second[i], i) << entry.first;
  }
}

TEST_F(InlineDeliveryTest, PublishingFromInsideTheCallbackIsQueuedNotRecursed) {
  std::atomic<int> depth{0};
  std::atomic<int> deepest{0};
  std::atomic<uint64_t> last{0};
  std::shared_ptr<tarvik::quessa::Publisher<PlainMessage>> pub;
  auto sub = node_->CreateSubscriber<PlainMessage>("inline/echo", KeepAll(),
                                                   [&](const std::shared_ptr<PlainMessage>& msg) {
                                                     const int now = ++depth;
                                                     deepest = std::max(deepest.load(), now);
                                                     last = msg->sequence();
                                                     if (msg->sequence() < 100)
                                                       pub->Publish(Numbered(msg->sequence() + 1));
                                                     --depth;
                                                   });
  pub = node_->CreatePublisher<PlainMessage>("inline/echo", KeepAll());
  pub->Publish(Numbered(0));
  ASSERT_TRUE(WaitFor([&] { return last == 100; }, 30s));
  EXPECT_EQ(deepest, 1);
}

TEST_F(InlineDeliveryTest, ACallbackMayCreateAndDestroyEndpoints) {
  std::atomic<int> created{0};
  auto sub = node_->CreateSubscriber<PlainMessage>(
      "inline/nested", KeepAll(), [&](const std::shared_ptr<PlainMessage>&) {
        auto other = node_->CreateSubscriber<PlainMessage>("inline/elsewhere", QoS(), nullptr);
        auto pub = node_->CreatePublisher<PlainMessage>("inline/elsewhere", QoS());
        pub->Publish(Numbered(1));
        ++created;
      });
  auto pub = node_->CreatePublisher<PlainMessage>("inline/nested", KeepAll());
  for (int i = 0; i < 5; ++i)
    pub->Publish(Numbered(i));
  EXPECT_TRUE(WaitFor([&] { return created == 5; }, 30s));
}

}  // namespace
