#include "common/bench_common.h"

#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>

namespace korvan_bench {
namespace {

// A ping unanswered for this long is sent again: far beyond a 1 MiB round trip on a
// loaded machine, short enough that a ping lost before matching costs little.
constexpr auto kRetryAfter = std::chrono::seconds(1);

int64_t Nanoseconds(Clock::duration d) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(d).count();
}

}  // namespace

int64_t Percentile(const std::vector<int64_t>& sorted, double p) {
  if (sorted.empty())
    return 0;
  const double rank = std::ceil(p / 100.0 * static_cast<double>(sorted.size()));
  size_t index = rank < 1 ? 0 : static_cast<size_t>(rank) - 1;
  return sorted[std::min(index, sorted.size() - 1)];
}

Summary Summarise(std::vector<int64_t> samples) {
  Summary s;
  if (samples.empty())
    return s;
  std::sort(samples.begin(), samples.end());
  s.count = samples.size();
  s.min = samples.front();
  s.max = samples.back();
  s.median = Percentile(samples, 50);
  s.p90 = Percentile(samples, 90);
  s.p99 = Percentile(samples, 99);
  long double sum = 0;
  for (int64_t v : samples)
    sum += v;
  s.mean = static_cast<double>(sum / samples.size());
  return s;
}

bool WriteSamples(const std::string& path, const std::vector<int64_t>& samples) {
  std::FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr)
    return false;
  for (int64_t v : samples)
    std::fprintf(f, "%lld\n", static_cast<long long>(v));
  return std::fclose(f) == 0;
}

std::vector<int64_t> ReadSamples(const std::string& path) {
  std::vector<int64_t> samples;
  std::FILE* f = std::fopen(path.c_str(), "r");
  if (f == nullptr)
    return samples;
  char line[64];
  while (std::fgets(line, sizeof(line), f) != nullptr) {
    std::string text(line);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
      text.pop_back();
    int64_t v;
    if (ParseInt(text, &v))
      samples.push_back(v);
  }
  std::fclose(f);
  return samples;
}

int64_t ProcessCpuNs() {
  timespec ts{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int64_t PeakRssKib() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

void PutSeq(void* payload, uint64_t seq) {
  std::memcpy(payload, &seq, sizeof(seq));
}

uint64_t GetSeq(const void* payload, size_t size) {
  if (payload == nullptr || size < sizeof(uint64_t))
    return kStopSeq - 1;
  uint64_t seq;
  std::memcpy(&seq, payload, sizeof(seq));
  return seq;
}

bool ParseInt(const std::string& text, int64_t* value) {
  if (text.empty())
    return false;
  errno = 0;
  char* end = nullptr;
  long long v = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0')
    return false;
  *value = v;
  return true;
}

bool ParseDouble(const std::string& text, double* value) {
  if (text.empty())
    return false;
  errno = 0;
  char* end = nullptr;
  double v = std::strtod(text.c_str(), &end);
  if (errno != 0 || *end != '\0' || !std::isfinite(v))
    return false;
  *value = v;
  return true;
}

std::vector<std::string> SplitList(const std::string& list) {
  std::vector<std::string> items;
  std::stringstream in(list);
  std::string item;
  while (std::getline(in, item, ',')) {
    if (!item.empty())
      items.push_back(item);
  }
  return items;
}

bool Options::Parse(int argc, char** argv, int first, std::string* error) {
  for (int i = first; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg.size() < 3 || arg.compare(0, 2, "--") != 0) {
      *error = "unexpected argument '" + arg + "'";
      return false;
    }
    std::string key = arg.substr(2);
    std::string value;
    const size_t eq = key.find('=');
    if (eq != std::string::npos) {
      value = key.substr(eq + 1);
      key.resize(eq);
    } else if (i + 1 < argc && std::strncmp(argv[i + 1], "--", 2) != 0) {
      value = argv[++i];
    }
    values_[key] = value;
  }
  return true;
}

std::string Options::String(const std::string& key, const std::string& fallback) const {
  auto it = values_.find(key);
  return it == values_.end() ? fallback : it->second;
}

int64_t Options::Int(const std::string& key, int64_t fallback) const {
  int64_t v;
  auto it = values_.find(key);
  return it != values_.end() && ParseInt(it->second, &v) ? v : fallback;
}

double Options::Double(const std::string& key, double fallback) const {
  double v;
  auto it = values_.find(key);
  return it != values_.end() && ParseDouble(it->second, &v) ? v : fallback;
}

PingDriver::PingDriver(size_t warmup, size_t count, Send send)
    : warmup_(warmup), count_(count), send_(std::move(send)) {
  samples_.reserve(count);
}

bool PingDriver::Run(Clock::duration limit) {
  const Clock::time_point deadline = Clock::now() + limit;
  std::unique_lock<std::mutex> lock(mutex_);
  if (count_ == 0)
    return true;
  if (warmup_ == 0)
    cpu_start_ = ProcessCpuNs();
  sent_at_ = Clock::now();
  send_(0);
  size_t seen = progress_;
  while (!done_) {
    done_cv_.wait_for(lock, kRetryAfter);
    if (done_)
      break;
    if (Clock::now() > deadline)
      return false;
    if (progress_ == seen) {
      ++retries_;
      send_(outstanding_);  // the measured time still runs from the first send
    }
    seen = progress_;
  }
  return true;
}

void PingDriver::OnReply(uint64_t seq) {
  const Clock::time_point now = Clock::now();
  std::lock_guard<std::mutex> lock(mutex_);
  if (done_ || seq != outstanding_)
    return;  // a late answer to a ping that was sent twice
  ++progress_;
  if (seq >= warmup_)
    samples_.push_back(Nanoseconds(now - sent_at_));
  const uint64_t next = seq + 1;
  if (next == warmup_ + count_) {
    cpu_end_ = ProcessCpuNs();
    done_ = true;
    done_cv_.notify_all();
    return;
  }
  if (next == warmup_)
    cpu_start_ = ProcessCpuNs();
  outstanding_ = next;
  if (loop_sends_) {
    done_cv_.notify_all();
    return;
  }
  sent_at_ = Clock::now();
  send_(next);
}

bool PingDriver::RunFromLoop(Clock::duration limit) {
  const Clock::time_point deadline = Clock::now() + limit;
  std::unique_lock<std::mutex> lock(mutex_);
  loop_sends_ = true;
  if (count_ == 0)
    return true;
  if (warmup_ == 0)
    cpu_start_ = ProcessCpuNs();
  while (!done_) {
    const uint64_t seq = outstanding_;
    sent_at_ = Clock::now();
    lock.unlock();  // the reply may come on this very thread, inside send_
    send_(seq);
    lock.lock();
    while (!done_ && outstanding_ == seq) {
      if (done_cv_.wait_for(lock, kRetryAfter) == std::cv_status::timeout) {
        if (Clock::now() > deadline)
          return false;
        ++retries_;
        break;  // send the same ping again
      }
    }
  }
  return true;
}

std::vector<int64_t> PingDriver::samples() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return samples_;
}

int64_t PingDriver::cpu_ns() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return done_ ? cpu_end_ - cpu_start_ : 0;
}

size_t PingDriver::retries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return retries_;
}

bool PongCounter::OnPing(uint64_t seq) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (seq == kStopSeq) {
    if (!stopped_) {
      cpu_end_ = ProcessCpuNs();
      stopped_ = true;
      stop_cv_.notify_all();
    }
    return false;
  }
  if (seq >= kSettleSeq)
    return !stopped_;  // settling the path, not part of the run
  if (!started_ && seq >= warmup_) {
    started_ = true;
    cpu_start_ = ProcessCpuNs();
  }
  if (started_)
    ++replies_;
  return !stopped_;
}

bool PongCounter::WaitForStop(Clock::duration limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  return stop_cv_.wait_for(lock, limit, [this] { return stopped_; });
}

uint64_t PongCounter::replies() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return replies_;
}

int64_t PongCounter::cpu_ns() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return started_ && stopped_ ? cpu_end_ - cpu_start_ : 0;
}

void ThroughputSink::OnMessage(uint64_t seq, size_t payload_bytes) {
  const Clock::time_point now = Clock::now();
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopped_)
    return;
  if (seq == kStopSeq) {
    stopped_ = true;
    window_end_ = now;
    if (open_) {
      result_.cpu_ns = ProcessCpuNs() - cpu_start_;
      result_.seconds = std::chrono::duration<double>(window_end_ - window_start_).count();
    }
    stop_cv_.notify_all();
    return;
  }
  ++result_.received;
  if (!any_) {
    any_ = true;
    first_ = now;
  } else if (seq > expected_) {
    result_.lost += seq - expected_;
  }
  if (seq >= expected_)
    expected_ = seq + 1;
  if (!open_ && now - first_ >= warmup_) {
    open_ = true;
    window_start_ = now;
    cpu_start_ = ProcessCpuNs();
    return;  // the window counts what arrives after its start
  }
  if (open_) {
    ++result_.messages;
    result_.bytes += payload_bytes;
  }
}

bool ThroughputSink::WaitForStop(Clock::duration limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  return stop_cv_.wait_for(lock, limit, [this] { return stopped_; });
}

ThroughputSink::Result ThroughputSink::result() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return result_;
}

SourceResult RunSource(Clock::duration warmup, Clock::duration measure,
                       const std::function<bool(uint64_t seq)>& send) {
  SourceResult result;
  uint64_t seq = 0;
  const Clock::time_point start = Clock::now();
  while (Clock::now() - start < warmup) {
    if (!send(seq++))
      ++result.failed;
  }
  const int64_t cpu_start = ProcessCpuNs();
  const Clock::time_point measured = Clock::now();
  Clock::time_point now = measured;
  while (now - measured < measure) {
    if (send(seq++)) {
      ++result.sent;
    } else {
      ++result.failed;
    }
    now = Clock::now();
  }
  result.cpu_ns = ProcessCpuNs() - cpu_start;
  result.seconds = std::chrono::duration<double>(now - measured).count();
  // A reliable writer may refuse while its history is full: keep trying to say stop.
  for (int i = 0; i < 100 && !send(kStopSeq); ++i) {
  }
  return result;
}

bool WaitUntil(const std::function<bool()>& ready, Clock::duration limit) {
  const Clock::time_point deadline = Clock::now() + limit;
  while (!ready()) {
    if (Clock::now() > deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

std::string JsonQuote(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof(buf), "\\u%04x", c);
          out += buf;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

ResultLine& ResultLine::Add(const std::string& key, const std::string& value) {
  fields_.emplace_back(key, JsonQuote(value));
  return *this;
}

ResultLine& ResultLine::Add(const std::string& key, int64_t value) {
  fields_.emplace_back(key, std::to_string(value));
  return *this;
}

ResultLine& ResultLine::Add(const std::string& key, double value) {
  char buf[64];
  std::snprintf(buf, sizeof(buf), "%.17g", std::isfinite(value) ? value : 0.0);
  fields_.emplace_back(key, buf);
  return *this;
}

ResultLine& ResultLine::Add(const std::string& key, const Summary& s) {
  ResultLine inner;
  inner.Add("count", static_cast<int64_t>(s.count))
      .Add("min", s.min)
      .Add("median", s.median)
      .Add("p90", s.p90)
      .Add("p99", s.p99)
      .Add("max", s.max)
      .Add("mean", s.mean);
  fields_.emplace_back(key, inner.Text());
  return *this;
}

std::string ResultLine::Text() const {
  std::string out = "{";
  for (size_t i = 0; i < fields_.size(); ++i) {
    if (i > 0)
      out += ",";
    out += JsonQuote(fields_[i].first) + ":" + fields_[i].second;
  }
  return out + "}";
}

void ResultLine::Print() const {
  std::printf("%s\n", Text().c_str());
  std::fflush(stdout);
}

}  // namespace korvan_bench
