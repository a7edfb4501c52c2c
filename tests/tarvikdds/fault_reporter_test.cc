// FaultReporter on the in-process bus; a subscriber of the raw envelope watches what goes out.
#include "tarvikdds/fault_reporter.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "infra/time.h"
#include "support/child_process.h"
#include "support/test_environment.h"
#include "tarvikdds/messaging/dds_node.h"
#include "test_proto/test_messages.pb.h"

namespace {

using korvan::test::FaultReport;
using korvan::test::MisnamedStamps;
using korvan_test::UniqueName;
using tarvik::korvan::Time;
using tarvik::quessa::FaultReporter;
using tarvik::quessa::Node;
using tarvik::quessa::messages::internal::RawMessage;
using namespace std::chrono_literals;

class FaultReporterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    korvan_test::UseLocalBus();
    node_ = Node::CreateNode(UniqueName("observer"), "");
  }
  void TearDown() override {
    FaultReporter::Finalize();
    subscribers_.clear();
  }

  // Subscribes to `topic`; Received<T>(topic) reads the envelopes back as T.
  void Watch(const std::string& topic) {
    tarvik::quessa::QoS keep_all;
    keep_all.history_type = 1;
    subscribers_.push_back(node_->CreateSubscriber<RawMessage>(
        topic, keep_all, [this, topic](const std::shared_ptr<RawMessage>& envelope) {
          std::lock_guard<std::mutex> lock(mutex_);
          received_[topic].push_back(envelope->SerializeAsString());
        }));
  }
  template <typename T>
  std::vector<T> Received(const std::string& topic, size_t n) {
    EXPECT_TRUE(korvan_test::WaitFor(
        [&] {
          std::lock_guard<std::mutex> lock(mutex_);
          return received_[topic].size() >= n;
        },
        10s));
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<T> out(received_[topic].size());
    for (size_t i = 0; i < out.size(); ++i)
      EXPECT_TRUE(out[i].ParseFromString(received_[topic][i]));
    return out;
  }

  std::unique_ptr<Node> node_;
  std::mutex mutex_;
  std::map<std::string, std::vector<std::string>> received_;
  std::vector<std::shared_ptr<tarvik::quessa::Subscriber<RawMessage>>> subscribers_;
};

FaultReport MakeReport(uint64_t code) {
  FaultReport report;
  report.set_code(code);
  report.set_text("fault " + std::to_string(code));
  report.add_details("first");
  return report;
}

std::chrono::milliseconds Duration(const std::function<void()>& call) {
  const auto start = std::chrono::steady_clock::now();
  call();
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               start);
}

TEST_F(FaultReporterTest, StampsTheHeaderAndSendsTheWholeReportInsideTheEnvelope) {
  FaultReporter::Init(nullptr);
  const std::string topic = UniqueName("faults");
  Watch(topic);
  std::vector<FaultReport> sent;
  for (uint64_t i = 0; i < 3; ++i) {
    FaultReport report = MakeReport(100 + i);
    const uint64_t utc_before = Time::Utc(Time::kNanosecond);
    const uint64_t ptp_before = Time::Ptp(Time::kNanosecond);
    const auto took = Duration([&] { FaultReporter::Report(topic, report); });
    // Only the first report of a topic waits for discovery.
    if (i == 0)
      EXPECT_GE(took, 1000ms);
    else
      EXPECT_LT(took, 500ms);
    // The caller's message keeps the stamps.
    EXPECT_EQ(report.counter(), i);
    EXPECT_GE(report.publish_ts(), utc_before);
    EXPECT_LE(report.publish_ts(), Time::Utc(Time::kNanosecond));
    EXPECT_GE(report.publish_ptp_ts(), ptp_before);
    EXPECT_LE(report.publish_ptp_ts(), Time::Ptp(Time::kNanosecond));
    EXPECT_FALSE(report.publisher_id().empty());
    sent.push_back(report);
  }
  EXPECT_EQ(sent[0].publisher_id(), sent[2].publisher_id());
  const auto received = Received<FaultReport>(topic, 3);
  ASSERT_EQ(received.size(), 3u);
  for (size_t i = 0; i < 3; ++i)
    EXPECT_EQ(received[i].DebugString(), sent[i].DebugString());
}

TEST_F(FaultReporterTest, CountersArePerTopicAndRestartAfterFinalize) {
  const std::string a = UniqueName("a");
  const std::string b = UniqueName("b");
  Watch(a);
  FaultReport a0 = MakeReport(1), a1 = MakeReport(2), b0 = MakeReport(3), a2 = MakeReport(4);
  FaultReporter::Report(a, a0);
  FaultReporter::Report(a, a1);
  FaultReporter::Report(b, b0);
  FaultReporter::Report(a, a2);
  EXPECT_EQ(a1.counter(), 1u);
  EXPECT_EQ(b0.counter(), 0u);
  EXPECT_EQ(a2.counter(), 2u);
  EXPECT_NE(a0.publisher_id(), b0.publisher_id());

  FaultReporter::Finalize();
  FaultReport again = MakeReport(5);
  // A fresh publisher: the wait again, a new identity, counting from 0.
  EXPECT_GE(Duration([&] { FaultReporter::Report(a, again); }), 1000ms);
  EXPECT_NE(again.publisher_id(), a0.publisher_id());
  std::vector<uint64_t> counters;
  for (const auto& report : Received<FaultReport>(a, 4))
    counters.push_back(report.counter());
  EXPECT_EQ(counters, (std::vector<uint64_t>{0, 1, 2, 0}));
}

TEST_F(FaultReporterTest, FieldsThatOnlyResembleHeaderFieldsAreLeftAlone) {
  // "counter" with an ordinary number, and the counter's number under another name.
  const std::string topic = UniqueName("misnamed");
  Watch(topic);
  MisnamedStamps msg;
  msg.set_counter(42);
  msg.set_sequence_no(7);
  const std::string before = msg.DebugString();
  FaultReporter::Report(topic, msg);
  FaultReporter::Report(topic, msg);
  EXPECT_EQ(msg.DebugString(), before);
  for (const auto& received : Received<MisnamedStamps>(topic, 2))
    EXPECT_EQ(received.DebugString(), before);
}

TEST_F(FaultReporterTest, ConcurrentReportersGetDistinctCounters) {
  const std::string topic = UniqueName("busy");
  std::vector<std::vector<uint64_t>> counters(4);
  std::vector<std::thread> threads;
  for (auto& mine : counters) {
    threads.emplace_back([&] {
      for (int i = 0; i < 25; ++i) {
        FaultReport report = MakeReport(0);
        FaultReporter::Report(topic, report);
        mine.push_back(report.counter());
      }
    });
  }
  std::vector<uint64_t> all;
  for (size_t t = 0; t < threads.size(); ++t) {
    threads[t].join();
    all.insert(all.end(), counters[t].begin(), counters[t].end());
  }
  std::sort(all.begin(), all.end());
  ASSERT_EQ(all.size(), 100u);
  for (size_t i = 0; i < all.size(); ++i)
    ASSERT_EQ(all[i], i);
}

}  // namespace
