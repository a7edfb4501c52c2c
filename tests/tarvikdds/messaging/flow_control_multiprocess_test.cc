// Flow control between processes, over DDS: a slow keep-all subscriber holds its publisher
// back instead of growing without bound, every sample a subscriber misses is counted, and
// the survivors of a killed subscriber or publisher carry on. The test process is the
// subscriber (or, when a subscriber is killed, the publisher); the other end is a child.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/test_environment.h"
#include "tarvikdds/messaging/dds_node.h"
#include "test_proto/test_messages.pb.h"

namespace {

using korvan::test::PlainMessage;
using korvan_test::ChildProcess;
using korvan_test::UniqueName;
using korvan_test::WaitFor;
using tarvik::quessa::Node;
using tarvik::quessa::QoS;
using namespace std::chrono_literals;

constexpr int kWaitMs = 60000;
// More than any bound the bus applies, and little enough that a run without one stays cheap.
constexpr uint64_t kFloodCap = 50000;

QoS KeepAll() {
  QoS qos;
  qos.history_type = 1;
  return qos;
}

QoS KeepLast(uint32_t depth) {
  QoS qos;
  qos.history_depth = depth;
  return qos;
}

std::shared_ptr<PlainMessage> Numbered(uint64_t sequence) {
  auto msg = std::make_shared<PlainMessage>();
  msg->set_sequence(sequence);
  msg->set_payload(std::string(1024, 'p'));
  return msg;
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

long ResidentKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0)
      return std::stol(line.substr(6));
  }
  return -1;
}

// Records sequences; blocks in the first callback until Open().
class GatedInbox {
 public:
  std::function<void(const std::shared_ptr<PlainMessage>&)> Callback() {
    return [this](const std::shared_ptr<PlainMessage>& msg) {
      std::unique_lock<std::mutex> lock(mutex_);
      sequences_.push_back(msg->sequence());
      changed_.wait(lock, [this] { return open_; });
    };
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
  size_t size() {
    std::lock_guard<std::mutex> lock(mutex_);
    return sequences_.size();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
  std::vector<uint64_t> sequences_;
};

bool StrictlyIncreasing(const std::vector<uint64_t>& sequences) {
  for (size_t i = 1; i < sequences.size(); ++i) {
    if (sequences[i] <= sequences[i - 1])
      return false;
  }
  return true;
}

// Matching is made from both ends: samples written before the subscriber has matched the
// publisher are not owed to it. So the publishing children wait for the go file, which the
// test makes once its subscriber has matched them.

// args: topic, go file, drain file, stop file. Keep-all: publishes until Publish fails (or
// kFloodCap), then, once the drain file exists, one more message.
KORVAN_CHILD_ROLE(flooding_publisher) {
  auto node = Node::CreateNode("flooder", "");
  auto pub = node->CreatePublisher<PlainMessage>(args.at(0), KeepAll());
  CHILD_CHECK(WaitFor([&] { return pub->MatchedSubscribers() >= 1; }, 60s));
  printf("READY\n");
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(1), kWaitMs));
  uint64_t sequence = 0;
  const auto start = std::chrono::steady_clock::now();
  for (; sequence < kFloodCap; ++sequence) {
    const auto before = std::chrono::steady_clock::now();
    if (!pub->Publish(Numbered(sequence))) {
      printf("BLOCKED_AFTER %llu WAITED %.3f ELAPSED %.3f\n",
             static_cast<unsigned long long>(sequence), SecondsSince(before), SecondsSince(start));
      break;
    }
  }
  if (sequence == kFloodCap)
    printf("NEVER_BLOCKED %llu\n", static_cast<unsigned long long>(sequence));
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(2), kWaitMs));
  ++sequence;
  CHILD_CHECK(WaitFor([&] { return pub->Publish(Numbered(sequence)); }, 60s));
  printf("TOTAL %llu\n", static_cast<unsigned long long>(sequence + 1));
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(3), kWaitMs));
  return CHILD_RESULT();
}

TEST(FlowControlMultiProcessTest, SlowKeepAllSubscriberHoldsItsPublisherBack) {
  // The network path's flow control; the children inherit the setting.
  korvan_test::ScopedEnv network_only("KORVAN_SHARED_MEMORY", "0");
  const std::string topic = UniqueName("flood");
  const std::string go = korvan_test::ScratchPath("go");
  const std::string drain = korvan_test::ScratchPath("drain");
  const std::string stop = korvan_test::ScratchPath("stop");
  auto node = Node::CreateNode("slow", "");
  GatedInbox inbox;
  auto sub = node->CreateSubscriber<PlainMessage>(topic, KeepAll(), inbox.Callback());
  const long rss_before = ResidentKiB(::getpid());
  ChildProcess publisher("flooding_publisher", {topic, go, drain, stop});
  ASSERT_TRUE(publisher.WaitForOutput("READY", 60s)) << publisher.output();
  ASSERT_TRUE(WaitFor([&] { return sub->MatchedPublishers() >= 1; }, 60s));
  korvan_test::TouchFile(go);
  ASSERT_TRUE(WaitFor(
      [&] {
        const std::string out = publisher.output();
        return out.find("BLOCKED_AFTER") != std::string::npos ||
               out.find("NEVER_BLOCKED") != std::string::npos;
      },
      120s))
      << publisher.output();
  const long rss_held = ResidentKiB(::getpid());
  const std::string flooded = publisher.output();
  const size_t verdict = std::min(flooded.find("BLOCKED_AFTER"), flooded.find("NEVER_BLOCKED"));
  std::printf("[ measured ] publisher: %s", flooded.substr(verdict).c_str());
  std::printf("[ measured ] subscriber resident memory grew by %ld KiB while held\n",
              rss_held - rss_before);
  ASSERT_NE(flooded.find("BLOCKED_AFTER"), std::string::npos)
      << "the publisher was never held back";

  inbox.Open();
  korvan_test::TouchFile(drain);
  ASSERT_TRUE(publisher.WaitForOutput("TOTAL", 60s)) << publisher.output();
  const std::string out = publisher.output();
  const uint64_t total = std::stoull(out.substr(out.find("TOTAL ") + 6));
  // Nothing is lost silently: what did not arrive is counted.
  EXPECT_TRUE(WaitFor([&] { return inbox.size() + sub->DroppedSamples() >= total; }, 60s))
      << inbox.size() << " received, " << sub->DroppedSamples() << " dropped of " << total;
  const auto sequences = inbox.sequences();
  EXPECT_EQ(sequences.size() + sub->DroppedSamples(), total);
  EXPECT_EQ(sub->DroppedSamples(), 1u) << "only the write that failed is missing";
  EXPECT_TRUE(StrictlyIncreasing(sequences));
  EXPECT_EQ(sequences.front(), 0u);
  EXPECT_EQ(sequences.back(), total - 1);
  korvan_test::TouchFile(stop);
  ASSERT_TRUE(publisher.Wait(60s));
  EXPECT_EQ(publisher.exit_code(), 0) << publisher.output();
}

// args: topic, count, first file, go file, stop file. Keep-last 5: publishes message 0 once
// the first file exists, and the rest of `count` messages, as fast as it can, once the go
// file exists.
KORVAN_CHILD_ROLE(keep_last_publisher) {
  auto node = Node::CreateNode("bursty", "");
  auto pub = node->CreatePublisher<PlainMessage>(args.at(0), KeepLast(5));
  CHILD_CHECK(WaitFor([&] { return pub->MatchedSubscribers() >= 1; }, 60s));
  printf("READY\n");
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(2), kWaitMs));
  CHILD_CHECK(pub->Publish(Numbered(0)));
  CHILD_CHECK(korvan_test::WaitForFile(args.at(3), kWaitMs));
  const uint64_t count = std::stoull(args.at(1));
  for (uint64_t i = 1; i < count; ++i)
    CHILD_CHECK(pub->Publish(Numbered(i)));
  printf("SENT\n");
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(4), kWaitMs));
  return CHILD_RESULT();
}

TEST(FlowControlMultiProcessTest, KeepLastOverwritesInAnotherProcessAreCounted) {
  const std::string topic = UniqueName("bursts");
  const std::string first = korvan_test::ScratchPath("first");
  const std::string go = korvan_test::ScratchPath("go");
  const std::string stop = korvan_test::ScratchPath("stop");
  auto node = Node::CreateNode("slow", "");
  GatedInbox inbox;
  auto sub = node->CreateSubscriber<PlainMessage>(topic, KeepLast(5), inbox.Callback());
  ChildProcess publisher("keep_last_publisher", {topic, "2000", first, go, stop});
  ASSERT_TRUE(publisher.WaitForOutput("READY", 60s)) << publisher.output();
  ASSERT_TRUE(WaitFor([&] { return sub->MatchedPublishers() >= 1; }, 60s));
  // A subscriber counts from the first message of a publisher that reaches it (message 0,
  // held in the callback), whatever happens to the burst after it.
  korvan_test::TouchFile(first);
  ASSERT_TRUE(WaitFor([&] { return inbox.size() >= 1; }, 60s)) << publisher.output();
  korvan_test::TouchFile(go);
  ASSERT_TRUE(publisher.WaitForOutput("SENT", 60s)) << publisher.output();
  inbox.Open();
  EXPECT_TRUE(WaitFor([&] { return inbox.size() + sub->DroppedSamples() >= 2000; }, 60s))
      << inbox.size() << " received, " << sub->DroppedSamples() << " dropped";
  const auto sequences = inbox.sequences();
  std::printf("[ measured ] keep-last 5: %zu of 2000 delivered, %llu counted as dropped\n",
              sequences.size(), static_cast<unsigned long long>(sub->DroppedSamples()));
  EXPECT_EQ(sequences.size() + sub->DroppedSamples(), 2000u);
  EXPECT_GT(sub->DroppedSamples(), 0u);
  EXPECT_TRUE(StrictlyIncreasing(sequences));
  EXPECT_EQ(sequences.front(), 0u);
  EXPECT_EQ(sequences.back(), 1999u);
  korvan_test::TouchFile(stop);
  ASSERT_TRUE(publisher.Wait(60s));
}

// args: topic. Keep-all; its callback never returns.
KORVAN_CHILD_ROLE(stuck_subscriber) {
  auto node = Node::CreateNode("stuck", "");
  auto sub = node->CreateSubscriber<PlainMessage>(
      args.at(0), KeepAll(),
      [](const std::shared_ptr<PlainMessage>&) { std::this_thread::sleep_for(1h); });
  CHILD_CHECK(WaitFor([&] { return sub->MatchedPublishers() >= 1; }, 60s));
  printf("READY\n");
  fflush(stdout);
  std::this_thread::sleep_for(1h);
  return 0;
}

TEST(FlowControlDeathTest, KillingAFullSubscriberReleasesItsPublisher) {
  const std::string topic = UniqueName("held");
  auto node = Node::CreateNode("holder", "");
  auto pub = node->CreatePublisher<PlainMessage>(topic, KeepAll());
  ChildProcess subscriber("stuck_subscriber", {topic});
  ASSERT_TRUE(subscriber.WaitForOutput("READY", 60s)) << subscriber.output();
  uint64_t sequence = 0;
  while (sequence < kFloodCap && pub->Publish(Numbered(sequence)))
    ++sequence;
  ASSERT_LT(sequence, kFloodCap) << "the publisher was never held back";

  subscriber.Kill(SIGKILL);
  ASSERT_TRUE(subscriber.Wait(10s));
  const auto killed = std::chrono::steady_clock::now();
  // Held back, a write waits up to a second (Cyclone lets a few through now and then, as its
  // history's watermark adapts). Released, every write goes at once.
  int unhindered = 0;
  EXPECT_TRUE(WaitFor(
      [&] {
        const auto before = std::chrono::steady_clock::now();
        const bool sent = pub->Publish(Numbered(++sequence));
        unhindered = sent && std::chrono::steady_clock::now() - before < 100ms ? unhindered + 1 : 0;
        return unhindered >= 200;
      },
      60s));
  const double took = SecondsSince(killed);
  std::printf(
      "[ measured ] the publisher wrote freely again %.2f s after its full subscriber "
      "was killed\n",
      took);
  EXPECT_LT(took, 20.0);
  EXPECT_TRUE(WaitFor([&] { return pub->MatchedSubscribers() == 0; }, 60s));
  std::printf("[ measured ] the publisher saw its killed subscriber leave after %.2f s\n",
              SecondsSince(killed));
}

// args: topic, stop file. Publishes every millisecond until the stop file exists.
KORVAN_CHILD_ROLE(steady_publisher) {
  auto node = Node::CreateNode("steady", "");
  auto pub = node->CreatePublisher<PlainMessage>(args.at(0), KeepAll());
  CHILD_CHECK(WaitFor([&] { return pub->MatchedSubscribers() >= 1; }, 60s));
  printf("READY\n");
  fflush(stdout);
  for (uint64_t i = 0; ::access(args.at(1).c_str(), F_OK) != 0; ++i) {
    CHILD_CHECK(pub->Publish(Numbered(i)));
    std::this_thread::sleep_for(1ms);
  }
  return CHILD_RESULT();
}

TEST(FlowControlDeathTest, KillingAPublisherLeavesItsSubscriberWorking) {
  const std::string topic = UniqueName("steady");
  const std::string stop = korvan_test::ScratchPath("stop");
  auto node = Node::CreateNode("listener", "");
  std::atomic<uint64_t> received{0};
  auto sub = node->CreateSubscriber<PlainMessage>(
      topic, KeepAll(), [&](const std::shared_ptr<PlainMessage>&) { ++received; });
  {
    ChildProcess doomed("steady_publisher", {topic, stop});
    ASSERT_TRUE(doomed.WaitForOutput("READY", 60s)) << doomed.output();
    ASSERT_TRUE(WaitFor([&] { return received.load() >= 100; }, 60s));
    doomed.Kill(SIGKILL);
    ASSERT_TRUE(doomed.Wait(10s));
  }
  const auto killed = std::chrono::steady_clock::now();
  EXPECT_TRUE(WaitFor([&] { return sub->MatchedPublishers() == 0; }, 60s));
  std::printf("[ measured ] the subscriber saw its killed publisher leave after %.2f s\n",
              SecondsSince(killed));

  ChildProcess successor("steady_publisher", {topic, stop});
  ASSERT_TRUE(successor.WaitForOutput("READY", 60s)) << successor.output();
  const uint64_t before = received.load();
  EXPECT_TRUE(WaitFor([&] { return received.load() >= before + 100; }, 60s));
  korvan_test::TouchFile(stop);
  ASSERT_TRUE(successor.Wait(60s));
  EXPECT_EQ(successor.exit_code(), 0) << successor.output();
  EXPECT_EQ(sub->DroppedSamples(), 0u);
}

}  // namespace
