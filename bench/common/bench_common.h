// What the round-trip and throughput programs share, whichever middleware they drive: the
// statistics, the process figures, the sequence number carried in the payload, the
// command-line options, and the ping, pong, source and sink logic. Raw Cyclone DDS and the
// library run the very same logic, so the two differ only in the middleware under it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace korvan_bench {

using Clock = std::chrono::steady_clock;

// Latency figures in nanoseconds. Percentiles are nearest-rank: the smallest sample such that
// at least p % of the samples are at most it.
struct Summary {
  size_t count = 0;
  int64_t min = 0;
  int64_t median = 0;
  int64_t p90 = 0;
  int64_t p99 = 0;
  int64_t max = 0;
  double mean = 0;
};

// Nearest-rank percentile of ascending `sorted` (p in 0..100); 0 for no samples.
int64_t Percentile(const std::vector<int64_t>& sorted, double p);
Summary Summarise(std::vector<int64_t> samples);

// One sample per line, so the harness can pool the round trips of several processes.
bool WriteSamples(const std::string& path, const std::vector<int64_t>& samples);
// The samples of a file written by WriteSamples; lines that are not numbers are skipped.
std::vector<int64_t> ReadSamples(const std::string& path);

// CPU time of the whole process (all threads, user and system), nanoseconds.
int64_t ProcessCpuNs();
// Largest resident set of the process so far, KiB.
int64_t PeakRssKib();

// Every payload starts with a sequence number, so replies match pings and gaps show.
constexpr uint64_t kStopSeq = ~uint64_t{0};
// Pings from here on settle the path before a run (answered, never counted); the reply of one
// that reached the other end through shared memory carries kSettledBit.
constexpr uint64_t kSettleSeq = uint64_t{1} << 62;
constexpr uint64_t kSettledBit = uint64_t{1} << 61;
constexpr size_t kMinPayload = sizeof(uint64_t);
void PutSeq(void* payload, uint64_t seq);
uint64_t GetSeq(const void* payload, size_t size);  // kStopSeq - 1 when too short

// "--key value" pairs and "--flag" switches after the role.
class Options {
 public:
  // False (and `error` set) for a malformed command line.
  bool Parse(int argc, char** argv, int first, std::string* error);
  bool Has(const std::string& key) const { return values_.count(key) != 0; }
  std::string String(const std::string& key, const std::string& fallback) const;
  int64_t Int(const std::string& key, int64_t fallback) const;
  double Double(const std::string& key, double fallback) const;

 private:
  std::map<std::string, std::string> values_;
};

// Parses a whole decimal integer; false for anything else.
bool ParseInt(const std::string& text, int64_t* value);
bool ParseDouble(const std::string& text, double* value);
// The non-empty items of a comma-separated list.
std::vector<std::string> SplitList(const std::string& list);

// The sending end of a latency run. One ping is in flight at a time: the reply to ping n,
// handed to OnReply on the receiving thread, sends ping n+1 from that thread, as an
// application replying from its callback would. A ping without a reply (lost before the
// other side matched) is sent again.
class PingDriver {
 public:
  using Send = std::function<bool(uint64_t seq)>;

  PingDriver(size_t warmup, size_t count, Send send);

  // Sends the first ping and returns once `count` measured round trips are done; false when
  // `limit` passes first.
  bool Run(Clock::duration limit);
  // The same, sending every ping from this thread once the previous reply is in: for replies
  // that arrive on the sending thread itself (inline delivery), where OnReply must not send.
  bool RunFromLoop(Clock::duration limit);
  void OnReply(uint64_t seq);

  // Round trips in nanoseconds, after the warm-up.
  std::vector<int64_t> samples() const;
  int64_t cpu_ns() const;  // process CPU over the measured round trips
  size_t retries() const;

 private:
  const size_t warmup_;
  const size_t count_;
  const Send send_;
  mutable std::mutex mutex_;
  std::condition_variable done_cv_;
  uint64_t outstanding_ = 0;
  Clock::time_point sent_at_;
  size_t progress_ = 0;
  size_t retries_ = 0;
  bool done_ = false;
  bool loop_sends_ = false;

  int64_t cpu_start_ = 0;
  int64_t cpu_end_ = 0;
  std::vector<int64_t> samples_;
};

// The replying end of a latency run: says which pings to answer and measures the process CPU
// from the first measured ping to the stop message.
class PongCounter {
 public:
  explicit PongCounter(size_t warmup) : warmup_(warmup) {}

  // True when `seq` wants a reply; false for the stop message.
  bool OnPing(uint64_t seq);
  bool WaitForStop(Clock::duration limit);

  uint64_t replies() const;  // measured pings answered
  int64_t cpu_ns() const;

 private:
  const size_t warmup_;
  mutable std::mutex mutex_;
  std::condition_variable stop_cv_;
  bool started_ = false;
  bool stopped_ = false;
  uint64_t replies_ = 0;
  int64_t cpu_start_ = 0;
  int64_t cpu_end_ = 0;
};

// The receiving end of a throughput run: counts what arrives from `warmup` after the first
// message until the stop message, and the sequence gaps.
class ThroughputSink {
 public:
  explicit ThroughputSink(Clock::duration warmup) : warmup_(warmup) {}

  void OnMessage(uint64_t seq, size_t payload_bytes);
  bool WaitForStop(Clock::duration limit);

  struct Result {
    uint64_t messages = 0;  // in the window
    uint64_t bytes = 0;
    double seconds = 0;
    int64_t cpu_ns = 0;
    uint64_t received = 0;  // all, warm-up included
    uint64_t lost = 0;      // sequence numbers never seen
  };
  Result result() const;

 private:
  const Clock::duration warmup_;
  mutable std::mutex mutex_;
  std::condition_variable stop_cv_;
  bool any_ = false;
  bool open_ = false;
  bool stopped_ = false;
  Clock::time_point first_;
  Clock::time_point window_start_;
  Clock::time_point window_end_;
  uint64_t expected_ = 0;
  Result result_;
  int64_t cpu_start_ = 0;
};

// The sending end of a throughput run: sends as fast as `send` returns for `warmup` and then
// `measure`, then the stop message.
struct SourceResult {
  uint64_t sent = 0;  // in the measured part
  uint64_t failed = 0;
  double seconds = 0;
  int64_t cpu_ns = 0;
};
SourceResult RunSource(Clock::duration warmup, Clock::duration measure,
                       const std::function<bool(uint64_t seq)>& send);

// Polls `ready` every millisecond until it holds or `limit` passes.
bool WaitUntil(const std::function<bool()>& ready, Clock::duration limit);

// One JSON object on one line of standard output: what a benchmark process reports.
class ResultLine {
 public:
  ResultLine& Add(const std::string& key, const std::string& value);
  ResultLine& Add(const std::string& key, const char* value) {
    return Add(key, std::string(value));
  }
  ResultLine& Add(const std::string& key, int64_t value);
  ResultLine& Add(const std::string& key, uint64_t value) {
    return Add(key, static_cast<int64_t>(value));
  }
  ResultLine& Add(const std::string& key, double value);
  ResultLine& Add(const std::string& key, const Summary& summary);
  std::string Text() const;
  void Print() const;  // and flushes

 private:
  std::vector<std::pair<std::string, std::string>> fields_;  // key, JSON value
};

std::string JsonQuote(const std::string& text);

}  // namespace korvan_bench
