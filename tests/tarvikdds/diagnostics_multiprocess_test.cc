// Performance samples and fault reports sent by a child process and received here, over DDS.
#include <chrono>
#include <cstdio>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/test_environment.h"
#include "tarvikdds/fault_reporter.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/messaging/perf_counter.h"
#include "test_proto/test_messages.pb.h"

namespace {

using korvan::test::FaultReport;
using korvan_test::ChildProcess;
using korvan_test::WaitFor;
using tarvik::quessa::Node;
using tarvik::quessa::QoS;
using tarvik::quessa::messages::internal::RawMessage;
using tarvik::quessa::messages::internal::SampleBatch;
using namespace std::chrono_literals;

constexpr char kPerfTopic[] = "internal/perf_monitor";
constexpr std::chrono::milliseconds kWait = 60s;

// Everything received on one topic.
template <typename T>
struct Received {
  std::mutex mutex;
  std::vector<std::shared_ptr<T>> messages;
  std::shared_ptr<tarvik::quessa::Subscriber<T>> subscriber;

  Received(Node& node, const std::string& topic) {
    QoS keep_all;
    keep_all.history_type = 1;
    subscriber = node.CreateSubscriber<T>(topic, keep_all, [this](const std::shared_ptr<T>& msg) {
      std::lock_guard<std::mutex> lock(mutex);
      messages.push_back(msg);
    });
  }
  ~Received() { subscriber.reset(); }
  std::vector<std::shared_ptr<T>> WaitFor(size_t n) {
    korvan_test::WaitFor(
        [&] {
          std::lock_guard<std::mutex> lock(mutex);
          return messages.size() >= n;
        },
        kWait);
    std::lock_guard<std::mutex> lock(mutex);
    return messages;
  }
};

// A publisher of the child's own that has matched the test's subscriber: publishers created
// after it in the child find that subscriber at once, so nothing sent early is lost.
template <typename T>
std::shared_ptr<tarvik::quessa::Publisher<T>> Probe(Node& node, const std::string& topic) {
  auto probe = node.CreatePublisher<T>(topic, QoS());
  CHILD_CHECK(WaitFor([&] { return probe->MatchedSubscribers() >= 1; }, kWait));
  return probe;
}

// args: go file, finish file. Runs with monitoring on.
KORVAN_CHILD_ROLE(perf_sampler) {
  auto node = Node::CreateNode("sampler", "");
  auto probe = Probe<SampleBatch>(*node, kPerfTopic);
  tarvik::quessa::PerfCounter::Init(3);
  printf("READY\n");
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(0), kWait.count()));
  for (int i = 0; i < 5; ++i)
    tarvik::quessa::PerfCounter::Sample("step" + std::to_string(i), 0.5 * i);
  tarvik::quessa::PerfCounter::Finalize();  // sends the last two
  CHILD_CHECK(korvan_test::WaitForFile(args.at(1), kWait.count()));
  return CHILD_RESULT();
}

TEST(DiagnosticsMultiProcessTest, PerformanceSamplesArriveInBatchesInOrder) {
  auto node = Node::CreateNode("perf_monitor", "");
  Received<SampleBatch> received(*node, kPerfTopic);
  const std::string go = korvan_test::ScratchPath("go");
  const std::string finish = korvan_test::ScratchPath("finish");
  ChildProcess sampler("perf_sampler", {go, finish}, {"KORVAN_MONITORING=1"});
  ASSERT_TRUE(sampler.WaitForOutput("READY", kWait)) << sampler.output();
  // The probe and the counter's publisher.
  ASSERT_TRUE(WaitFor([&] { return received.subscriber->MatchedPublishers() >= 2; }, kWait));
  korvan_test::TouchFile(go);

  const auto batches = received.WaitFor(2);
  ASSERT_EQ(batches.size(), 2u) << sampler.output();
  ASSERT_EQ(batches[0]->samples_size(), 3);
  ASSERT_EQ(batches[1]->samples_size(), 2);
  uint64_t previous = 1;
  for (int i = 0; i < 5; ++i) {
    const auto& sample = batches[i / 3]->samples(i % 3);
    EXPECT_EQ(sample.counter_name(), "step" + std::to_string(i));
    EXPECT_EQ(sample.counter_value(), 0.5 * i);
    EXPECT_GE(sample.timestamp(), previous);
    previous = sample.timestamp();
  }
  EXPECT_FALSE(batches[0]->has_publish_ts());
  korvan_test::TouchFile(finish);
  ASSERT_TRUE(sampler.Wait(kWait));
  EXPECT_EQ(sampler.exit_code(), 0) << sampler.output();
}

// args: topic, finish file. Leaves without Finalize: the publishers go with the process.
KORVAN_CHILD_ROLE(fault_sender) {
  auto node = Node::CreateNode("sender", "");
  auto probe = Probe<RawMessage>(*node, args.at(0));
  for (uint64_t i = 0; i < 2; ++i) {
    FaultReport report;
    report.set_code(500 + i);
    report.add_details("sensor " + std::to_string(i));
    tarvik::quessa::FaultReporter::Report(args.at(0), report);
    printf("ID %s\n", report.publisher_id().c_str());
  }
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(1), kWait.count()));
  return CHILD_RESULT();
}

TEST(DiagnosticsMultiProcessTest, FaultReportsArriveAsEnvelopesOfTheOriginalMessage) {
  auto node = Node::CreateNode("fault_monitor", "");
  const std::string topic = korvan_test::UniqueName("faults");
  Received<RawMessage> received(*node, topic);
  const std::string finish = korvan_test::ScratchPath("finish");
  ChildProcess sender("fault_sender", {topic, finish});

  const auto envelopes = received.WaitFor(2);
  ASSERT_EQ(envelopes.size(), 2u) << sender.output();
  std::vector<FaultReport> reports(2);
  for (uint64_t i = 0; i < 2; ++i) {
    ASSERT_TRUE(reports[i].ParseFromString(envelopes[i]->SerializeAsString()));
    EXPECT_EQ(reports[i].code(), 500 + i);
    ASSERT_EQ(reports[i].details_size(), 1);
    EXPECT_EQ(reports[i].details(0), "sensor " + std::to_string(i));
    EXPECT_EQ(reports[i].counter(), i);
    EXPECT_GT(reports[i].publish_ts(), 0u);
    EXPECT_GT(reports[i].publish_ptp_ts(), 0u);
  }
  EXPECT_FALSE(reports[0].publisher_id().empty());
  EXPECT_EQ(reports[1].publisher_id(), reports[0].publisher_id());
  EXPECT_TRUE(sender.WaitForOutput("ID " + reports[0].publisher_id() + "\n", kWait))
      << sender.output();
  korvan_test::TouchFile(finish);
  ASSERT_TRUE(sender.Wait(kWait));
  EXPECT_EQ(sender.exit_code(), 0) << sender.output();
}

}  // namespace
