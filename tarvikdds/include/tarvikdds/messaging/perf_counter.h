// PerfCounter: records named numeric samples (durations from BeginSample/EndSample pairs, or
// any value) and publishes them in batches of SampleBatch on "internal/perf_monitor", for an
// outside monitor. Everything is static and process-wide.
//
// Every operation except Init and Finalize does nothing (beyond reading the clock) while the
// platform reports monitoring as disabled; the switch is asked on every call. Times are PTP
// microseconds. A batch goes out as soon as it holds the batch size (100 until Init), and what
// is left goes out at Finalize. The publisher and its node are created by Init or, failing
// that, by the first batch.
//
// Sample, Init and Finalize may be called from any thread. A measurement must begin and end
// on the same thread; threads time the same name independently.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "infra/mutex.h"
#include "tarvikdds/proto/perf_monitor.pb.h"

namespace tarvik {
namespace quessa {

class PerfCounter {
 public:
  PerfCounter() = delete;

  // Sets the batch size and drops unsent samples; creates the publisher when monitoring is on
  // and there is none yet. A size above 2^31 - 1 counts as negative: every sample goes alone.
  static void Init(unsigned int batchSize);
  // Creates the node and the publisher, replacing earlier ones. Meant for start-up.
  static void CreatePublisher();

  // Starts a measurement of `name` on this thread; returns the current PTP time.
  static uint64_t BeginSample(const std::string& name);
  // Records the time since this thread's BeginSample(name) (since 0 if it never began it);
  // returns the current PTP time.
  static uint64_t EndSample(const std::string& name);
  // Adds a sample to the current batch and sends the batch when it is full. Records nothing
  // after Finalize until the next Init.
  static void Sample(const std::string& name, double value);
  // Sends the current batch, even an empty one, and starts a new one. Takes no lock: callers
  // other than Sample and Finalize must keep samples from being added meanwhile.
  static void CommitSamples();
  // Sends what is left, then drops the batch, the publisher and the node.
  static void Finalize();

 private:
  static void CommitSamplesLocked() KORVAN_REQUIRES(m_lock);

  static korvan::inf::Mutex m_lock;
  static int32_t m_batchSize KORVAN_GUARDED_BY(m_lock);
  static std::shared_ptr<messages::internal::SampleBatch> m_samples KORVAN_GUARDED_BY(m_lock);
};

}  // namespace quessa
}  // namespace tarvik
