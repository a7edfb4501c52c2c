#include "tarvikdds/messaging/perf_counter.h"

#include <exception>
#include <unordered_map>

#include "infra/system_info.h"
#include "infra/time.h"
#include "tarvikdds/bus/korvan_message_traits.h"
#include "tarvikdds/detail/logging.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/messaging/dds_publisher.h"
#include "tarvikdds/messaging/dds_publisher_impl.h"

namespace tarvik {
namespace quessa {
namespace {

using korvan::Time;
using messages::internal::SampleBatch;

constexpr char kTopic[] = "internal/perf_monitor";
constexpr char kNodePrefix[] = "perf_counter_node_";

std::unique_ptr<Node> s_node;
std::shared_ptr<Publisher<SampleBatch>> s_pub;

// Start times of this thread's open measurements.
std::unordered_map<std::string, uint64_t>& BeginTimes() {
  thread_local std::unordered_map<std::string, uint64_t> begin_times;
  return begin_times;
}

}  // namespace

korvan::inf::Mutex PerfCounter::m_lock;
int32_t PerfCounter::m_batchSize = 100;
std::shared_ptr<SampleBatch> PerfCounter::m_samples = std::make_shared<SampleBatch>();

void PerfCounter::Init(unsigned int batchSize) {
  {
    // Applications call Init at their start while others may already be sampling.
    korvan::inf::MutexLock lock(&m_lock);
    m_batchSize = static_cast<int32_t>(batchSize);
    m_samples = std::make_shared<SampleBatch>();
    if (!s_node && tarvikdds::IsMonitoringEnabled()) {
      try {
        CreatePublisher();
      } catch (const std::exception& e) {
        KORVAN_LOG_ERROR << "Failed to create perf counter publisher: " << e.what();
      }
    }
  }
  KORVAN_LOG_INFO << "Init perf counter with batch size " << batchSize;
}

void PerfCounter::CreatePublisher() {
  // Node names are unique: the earlier node has to go before its successor can be named.
  s_pub.reset();
  s_node.reset();
  auto node = Node::CreateNode(kNodePrefix + tarvikdds::GetCurrentEXE(), "");
  auto operations = std::make_shared<korvan::bus::korvan_message_operations<SampleBatch>>();
  // Without a descriptor nothing is stamped: the batch's publish_ts stays unset.
  const QoS qos{0, 10, 1, 1};
  auto impl =
      std::make_shared<PublisherImpl>(kTopic, qos, operations, 0, node->name(), node->domain());
  s_pub = std::make_shared<Publisher<SampleBatch>>(operations, impl);
  s_node = std::move(node);
}

uint64_t PerfCounter::BeginSample(const std::string& name) {
  const uint64_t now = Time::Ptp(Time::kMicrosecond);
  if (!tarvikdds::IsMonitoringEnabled())
    return now;
  BeginTimes()[name] = now;
  return now;
}

uint64_t PerfCounter::EndSample(const std::string& name) {
  const uint64_t now = Time::Ptp(Time::kMicrosecond);
  if (!tarvikdds::IsMonitoringEnabled())
    return now;
  const uint64_t elapsed = now - BeginTimes()[name];
  Sample(name, static_cast<double>(elapsed));
  return now;
}

void PerfCounter::Sample(const std::string& name, double value) {
  if (!tarvikdds::IsMonitoringEnabled())
    return;
  korvan::inf::MutexLock lock(&m_lock);
  if (!m_samples)
    return;
  auto* sample = m_samples->add_samples();
  sample->set_counter_name(name);
  sample->set_counter_value(value);
  sample->set_timestamp(Time::Ptp(Time::kMicrosecond));
  if (m_samples->samples_size() >= m_batchSize)
    CommitSamplesLocked();
}

// Public and lock-free by contract: its callers keep samples from being added meanwhile.
void PerfCounter::CommitSamples() KORVAN_NO_THREAD_SAFETY_ANALYSIS {
  CommitSamplesLocked();
}

void PerfCounter::CommitSamplesLocked() {
  if (!tarvikdds::IsMonitoringEnabled())
    return;
  if (!s_node)
    CreatePublisher();
  // The publisher shares the batch; the next samples go into a new one.
  if (s_pub)
    s_pub->impl()->Publish(m_samples);
  m_samples = std::make_shared<SampleBatch>();
}

void PerfCounter::Finalize() {
  korvan::inf::MutexLock lock(&m_lock);
  if (m_samples && m_samples->samples_size() > 0)
    CommitSamplesLocked();
  m_samples.reset();
  s_pub.reset();
  s_node.reset();
  KORVAN_LOG_INFO << "Finalized perf counter";
}

}  // namespace quessa
}  // namespace tarvik
