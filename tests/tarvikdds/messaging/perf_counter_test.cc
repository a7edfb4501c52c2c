// PerfCounter on the in-process bus, watched by a subscriber of "internal/perf_monitor".
#include "tarvikdds/messaging/perf_counter.h"

#include <chrono>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "infra/system_info.h"
#include "infra/time.h"
#include "support/child_process.h"
#include "support/test_environment.h"
#include "tarvikdds/messaging/dds_node.h"

namespace {

using korvan_test::UniqueName;
using tarvik::korvan::Time;
using tarvik::quessa::Node;
using tarvik::quessa::PerfCounter;
using tarvik::quessa::QoS;
using tarvik::quessa::messages::internal::SampleBatch;
namespace tarvikdds = tarvik::quessa::tarvikdds;
using Names = std::vector<std::string>;
using namespace std::chrono_literals;

constexpr char kTopic[] = "internal/perf_monitor";

Names NamesOf(const SampleBatch& batch) {
  Names names;
  for (const auto& sample : batch.samples())
    names.push_back(sample.counter_name());
  return names;
}

// The value of a batch of one sample; -1 for any other batch.
double OnlyValue(const SampleBatch& batch) {
  return batch.samples_size() == 1 ? batch.samples(0).counter_value() : -1;
}

bool CounterNodeExists() {
  return Node::GetNode("perf_counter_node_" + tarvikdds::GetCurrentEXE(), "") != nullptr;
}

class PerfCounterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    korvan_test::UseLocalBus();
    tarvikdds::SetMonitoringEnabled(true);
    node_ = Node::CreateNode(UniqueName("monitor"), "");
    QoS keep_all;
    keep_all.history_type = 1;
    subscriber_ = node_->CreateSubscriber<SampleBatch>(
        kTopic, keep_all, [this](const std::shared_ptr<SampleBatch>& batch) {
          std::lock_guard<std::mutex> lock(mutex_);
          batches_.push_back(batch);
        });
  }
  void TearDown() override {
    PerfCounter::Finalize();
    subscriber_.reset();
  }

  // The batches received once there are `n`; after 10 s a failure, padded with empty ones.
  std::vector<std::shared_ptr<SampleBatch>> Batches(size_t n) {
    EXPECT_TRUE(korvan_test::WaitFor(
        [&] {
          std::lock_guard<std::mutex> lock(mutex_);
          return batches_.size() >= n;
        },
        10s));
    std::lock_guard<std::mutex> lock(mutex_);
    auto batches = batches_;
    if (batches.size() < n)
      batches.resize(n, std::make_shared<SampleBatch>());
    return batches;
  }
  // Sends a batch of our own and returns how many arrived before it: delivery keeps the
  // order of sending, so that is everything the counter has sent.
  size_t BatchesSentSoFar() {
    auto marker = std::make_shared<SampleBatch>();
    node_->CreatePublisher<SampleBatch>(kTopic, QoS())->Publish(marker);
    EXPECT_TRUE(korvan_test::WaitFor(
        [&] {
          std::lock_guard<std::mutex> lock(mutex_);
          return !batches_.empty() && batches_.back()->samples_size() == 0;
        },
        10s));
    std::lock_guard<std::mutex> lock(mutex_);
    return batches_.size() - 1;
  }

  std::unique_ptr<Node> node_;
  std::mutex mutex_;
  std::vector<std::shared_ptr<SampleBatch>> batches_;
  std::shared_ptr<tarvik::quessa::Subscriber<SampleBatch>> subscriber_;
};

TEST_F(PerfCounterTest, BatchesGoOutAtTheBatchSizeAndFinalizeSendsTheRest) {
  korvan_test::LogCapture log(4);
  PerfCounter::Init(3);
  EXPECT_TRUE(log.Contains("Init perf counter with batch size 3"));
  EXPECT_TRUE(CounterNodeExists());  // created by Init, not by the first batch
  const uint64_t before = Time::Ptp(Time::kMicrosecond);
  for (int i = 0; i < 5; ++i)
    PerfCounter::Sample(std::string(1, static_cast<char>('a' + i)), 1.5 + i);
  const uint64_t after = Time::Ptp(Time::kMicrosecond);
  PerfCounter::Finalize();
  EXPECT_TRUE(log.Contains("Finalized perf counter"));
  EXPECT_FALSE(CounterNodeExists());
  PerfCounter::Sample("lost", 0);  // after Finalize: recorded nowhere, and no failure
  PerfCounter::Finalize();         // nothing pending: nothing sent

  const auto batches = Batches(2);
  ASSERT_EQ(BatchesSentSoFar(), 2u);
  ASSERT_EQ(NamesOf(*batches[0]), (Names{"a", "b", "c"}));
  ASSERT_EQ(NamesOf(*batches[1]), (Names{"d", "e"}));
  uint64_t previous = before;
  for (int i = 0; i < 5; ++i) {
    const auto& sample = batches[i / 3]->samples(i % 3);
    EXPECT_EQ(sample.counter_value(), 1.5 + i);
    EXPECT_GE(sample.timestamp(), previous);
    EXPECT_LE(sample.timestamp(), after);
    previous = sample.timestamp();
  }
  EXPECT_FALSE(batches[0]->has_publish_ts());

  // Init starts over.
  PerfCounter::Init(1);
  PerfCounter::Sample("f", 6);
  EXPECT_EQ(NamesOf(*Batches(4)[3]), (Names{"f"}));
}

TEST_F(PerfCounterTest, WithoutInitTheHundredthSampleCreatesThePublisherAndSends) {
  for (int i = 0; i < 99; ++i)
    PerfCounter::Sample(std::to_string(i), i);
  EXPECT_FALSE(CounterNodeExists());
  PerfCounter::Sample("99", 99);
  EXPECT_TRUE(CounterNodeExists());
  const SampleBatch& batch = *Batches(1)[0];
  ASSERT_EQ(batch.samples_size(), 100);
  for (int i = 0; i < 100; ++i)
    EXPECT_EQ(batch.samples(i).counter_name(), std::to_string(i));
}

TEST_F(PerfCounterTest, SizeZeroAndSizesBeyondTheSignedRangeSendEverySampleAlone) {
  PerfCounter::Init(0);
  PerfCounter::Sample("a", 1);
  PerfCounter::Sample("b", 2);
  PerfCounter::Init(2147483648u);
  PerfCounter::Sample("c", 3);
  std::vector<Names> names;
  for (const auto& batch : Batches(3))
    names.push_back(NamesOf(*batch));
  EXPECT_EQ(names, (std::vector<Names>{{"a"}, {"b"}, {"c"}}));
}

TEST_F(PerfCounterTest, MeasurementsBelongToTheThreadThatBeganThem) {
  PerfCounter::Init(1);
  const uint64_t begin = PerfCounter::BeginSample("step");
  std::this_thread::sleep_for(2ms);  // a measurable duration, not synchronisation
  uint64_t other_end = 0;
  // That thread never began "step": it measures from 0.
  std::thread([&] { other_end = PerfCounter::EndSample("step"); }).join();
  const uint64_t end = PerfCounter::EndSample("step");
  EXPECT_GE(end - begin, 2000u);
  const auto batches = Batches(2);
  EXPECT_EQ(OnlyValue(*batches[0]), static_cast<double>(other_end));
  EXPECT_EQ(OnlyValue(*batches[1]), static_cast<double>(end - begin));
}

TEST_F(PerfCounterTest, DisabledMonitoringSendsNothingButStillTellsTheTime) {
  tarvikdds::SetMonitoringEnabled(false);
  PerfCounter::Init(1);
  EXPECT_FALSE(CounterNodeExists());
  const uint64_t before = Time::Ptp(Time::kMicrosecond);
  const uint64_t begin = PerfCounter::BeginSample("x");
  const uint64_t end = PerfCounter::EndSample("x");
  const uint64_t after = Time::Ptp(Time::kMicrosecond);
  EXPECT_GE(begin, before);
  EXPECT_LE(end, after);
  PerfCounter::Sample("y", 1);
  PerfCounter::CommitSamples();
  PerfCounter::Finalize();
  EXPECT_EQ(BatchesSentSoFar(), 0u);

  // The begin while disabled was not kept: once enabled, "x" is measured from 0.
  tarvikdds::SetMonitoringEnabled(true);
  PerfCounter::Init(1);
  const uint64_t now = PerfCounter::EndSample("x");
  EXPECT_EQ(OnlyValue(*Batches(2)[1]), static_cast<double>(now));
}

TEST_F(PerfCounterTest, CreationFailuresAreLoggedByInitAndThrownFromTheLazyCommit) {
  // Takes the counter's node name, so creating its node fails.
  auto squatter = Node::CreateNode("perf_counter_node_" + tarvikdds::GetCurrentEXE(), "");
  korvan_test::LogCapture log(2);
  PerfCounter::Init(2);
  EXPECT_EQ(log.SeverityOf("Failed to create perf counter publisher: "), google::GLOG_ERROR);
  PerfCounter::Sample("a", 1);
  EXPECT_THROW(PerfCounter::Sample("b", 2), std::runtime_error);
  squatter.reset();
  // The exception released the lock and the samples were kept.
  PerfCounter::Sample("c", 3);
  EXPECT_EQ(NamesOf(*Batches(1)[0]), (Names{"a", "b", "c"}));
}

}  // namespace
