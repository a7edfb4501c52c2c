// The baseline: the same round trips and streams as korvan_bench_lib, written directly on
// Cyclone DDS's C API with the bus's envelope type, Cyclone configuration and QoS. Receiving
// has the bus's shape by default: a data-available listener wakes one thread per reader, which
// takes the samples (loaned) and handles them.
//
//   korvan_bench_raw ping|pong|pub|sub [--size N] [--warmup N] [--count N] [--seconds S]
//                    [--warmup-seconds S] [--topic-prefix P] [--history all|N]
//                    [--wake thread|waitset|inline] [--samples-out FILE] [--limit S]
//                    [--shm]
// --shm switches on Cyclone's own shared-memory mode (iceoryx; needs a running iox-roudi):
// what a DDS user would turn on for processes on one host.
#include <dds/dds.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/bench_common.h"
#include "core/qos_rules.h"
#include "dds/cyclone_config.h"
#include "korvan_wire.h"

namespace korvan_bench {
namespace {

constexpr size_t kTakeBatch = 32;  // as the bus takes
constexpr auto kMatchLimit = std::chrono::seconds(30);

// The type name the library puts into the envelope for the unstamped message.
constexpr char kTypeName[] = "korvan.bench.PlainPayload";

struct Qos {
  bool keep_all = false;
  int32_t depth = 10;
};

// The bus's QoS for a topic without configuration: reliable (1 s blocking), volatile, keep-last
// depth or keep-all (a reader holding at most the bus's default max_samples); readers ignore
// writers of their own participant.
dds_qos_t* MakeQos(const Qos& q, bool reader) {
  dds_qos_t* qos = dds_create_qos();
  dds_qset_reliability(qos, DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
  if (q.keep_all) {
    dds_qset_history(qos, DDS_HISTORY_KEEP_ALL, 0);
    if (reader) {
      dds_qset_resource_limits(qos, static_cast<int32_t>(tarvik::korvan::bus::kDefaultMaxSamples),
                               DDS_LENGTH_UNLIMITED, DDS_LENGTH_UNLIMITED);
    }
  } else {
    dds_qset_history(qos, DDS_HISTORY_KEEP_LAST, q.depth);
  }
  dds_qset_durability(qos, DDS_DURABILITY_VOLATILE);
  if (reader)
    dds_qset_ignorelocal(qos, DDS_IGNORELOCAL_PARTICIPANT);
  return qos;
}

class Domain {
 public:
  ~Domain() {
    if (domain_ > 0)
      dds_delete(domain_);
  }

  bool Open(bool shared_memory) {
    tarvik::korvan::bus::CycloneSettings settings =
        tarvik::korvan::bus::MakeCycloneSettings(tarvik::korvan::bus::LumisConfig());
    if (shared_memory) {
      const std::string end = "</Domain></CycloneDDS>";
      settings.xml.insert(settings.xml.rfind(end),
                          "<SharedMemory><Enable>true</Enable><LogLevel>warn</LogLevel>"
                          "</SharedMemory>");
    }
    domain_ = dds_create_domain(settings.domain_id, settings.xml.c_str());
    if (domain_ < 0) {
      std::fprintf(stderr, "cannot create domain: %s\n", dds_strretcode(domain_));
      return false;
    }
    participant_ = dds_create_participant(settings.domain_id, nullptr, nullptr);
    if (participant_ < 0) {
      std::fprintf(stderr, "cannot create participant: %s\n", dds_strretcode(participant_));
      return false;
    }
    return true;
  }

  dds_entity_t Topic(const std::string& name) {
    return dds_create_topic(participant_, &korvan_wire_Envelope_desc, name.c_str(), nullptr,
                            nullptr);
  }
  dds_entity_t participant() const { return participant_; }

 private:
  dds_entity_t domain_ = 0;
  dds_entity_t participant_ = 0;
};

class Writer {
 public:
  Writer(Domain& domain, const std::string& topic, const Qos& q) {
    dds_qos_t* qos = MakeQos(q, false);
    writer_ = dds_create_writer(domain.participant(), domain.Topic(topic), qos, nullptr);
    dds_delete_qos(qos);
  }
  bool ok() const { return writer_ > 0; }
  int Matched() const {
    dds_publication_matched_status_t status{};
    dds_get_publication_matched_status(writer_, &status);
    return static_cast<int>(status.current_count);
  }
  bool Write(const korvan_wire_Envelope& envelope) {
    return dds_write(writer_, &envelope) == DDS_RETCODE_OK;
  }
  // So that the stop message arrives before the process goes.
  void Drain() { dds_wait_for_acks(writer_, DDS_SECS(5)); }

 private:
  dds_entity_t writer_ = 0;
};

// How a reader gets to its samples.
enum class Wake {
  kThread,   // the listener wakes a thread of the reader's own, which takes: the bus's shape
  kWaitset,  // a thread blocked on a waitset takes
  kInline,   // the listener takes and handles on Cyclone's receive thread: no hand-over at all
};

class Reader {
 public:
  using Handle = std::function<void(const korvan_wire_Envelope&)>;

  Reader(Domain& domain, const std::string& topic, const Qos& q, Wake wake, Handle handle)
      : handle_(std::move(handle)) {
    dds_qos_t* qos = MakeQos(q, true);
    dds_listener_t* listener = nullptr;
    if (wake != Wake::kWaitset) {
      listener = dds_create_listener(this);
      dds_lset_data_available(
          listener, wake == Wake::kThread ? &Reader::OnDataAvailable : &Reader::TakeInListener);
    }
    reader_ = dds_create_reader(domain.participant(), domain.Topic(topic), qos, listener);
    if (listener != nullptr)
      dds_delete_listener(listener);
    dds_delete_qos(qos);
    if (wake == Wake::kWaitset) {
      waitset_ = dds_create_waitset(domain.participant());
      dds_waitset_attach(waitset_, dds_create_readcondition(reader_, DDS_ANY_STATE), 0);
      guard_ = dds_create_guardcondition(domain.participant());
      dds_waitset_attach(waitset_, guard_, 0);
      thread_ = std::thread([this] { RunWaitset(); });
    } else if (wake == Wake::kThread) {
      thread_ = std::thread([this] { Run(); });
    }
  }

  ~Reader() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    wake_.notify_one();
    if (guard_ > 0)
      dds_set_guardcondition(guard_, true);
    if (thread_.joinable())
      thread_.join();
    if (waitset_ > 0)
      dds_delete(waitset_);
    if (reader_ > 0)
      dds_delete(reader_);  // waits for a listener call in progress
  }

  bool ok() const { return reader_ > 0; }
  int Matched() const {
    dds_subscription_matched_status_t status{};
    dds_get_subscription_matched_status(reader_, &status);
    return static_cast<int>(status.current_count);
  }

 private:
  static void OnDataAvailable(dds_entity_t, void* arg) {
    auto* self = static_cast<Reader*>(arg);
    {
      std::lock_guard<std::mutex> lock(self->mutex_);
      self->readable_ = true;
    }
    self->wake_.notify_one();
  }

  static void TakeInListener(dds_entity_t, void* arg) { static_cast<Reader*>(arg)->TakeAll(); }

  void Run() {
    for (;;) {
      {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait(lock, [this] { return stop_ || readable_; });
        if (stop_)
          return;
        readable_ = false;
      }
      TakeAll();
    }
  }

  void RunWaitset() {
    for (;;) {
      dds_waitset_wait(waitset_, nullptr, 0, DDS_INFINITY);
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stop_)
          return;
      }
      TakeAll();
    }
  }

  void TakeAll() {
    for (;;) {
      void* samples[kTakeBatch] = {nullptr};
      dds_sample_info_t infos[kTakeBatch];
      dds_return_t n = dds_take(reader_, samples, infos, kTakeBatch, kTakeBatch);
      if (n <= 0)
        break;
      for (dds_return_t i = 0; i < n; ++i) {
        if (infos[i].valid_data)
          handle_(*static_cast<const korvan_wire_Envelope*>(samples[i]));
      }
      dds_return_loan(reader_, samples, n);
      if (static_cast<size_t>(n) < kTakeBatch)
        break;
    }
  }

  const Handle handle_;
  dds_entity_t reader_ = 0;
  dds_entity_t waitset_ = 0;
  dds_entity_t guard_ = 0;  // wakes the waitset for the end
  std::mutex mutex_;
  std::condition_variable wake_;
  bool readable_ = false;
  bool stop_ = false;
  std::thread thread_;
};

uint64_t SeqOf(const korvan_wire_Envelope& envelope) {
  return GetSeq(envelope.payload._buffer, envelope.payload._length);
}

// An envelope over `payload` as the bus fills it for a plain topic.
korvan_wire_Envelope MakeEnvelope(std::vector<uint8_t>& payload) {
  korvan_wire_Envelope envelope{};
  envelope.type_name = const_cast<char*>(kTypeName);
  envelope.origin = const_cast<char*>("");
  envelope.payload._maximum = static_cast<uint32_t>(payload.size());
  envelope.payload._length = static_cast<uint32_t>(payload.size());
  envelope.payload._buffer = payload.data();
  envelope.payload._release = false;
  return envelope;
}

Qos ParseHistory(const Options& options, const char* fallback) {
  Qos q;
  const std::string history = options.String("history", fallback);
  if (history == "all") {
    q.keep_all = true;
  } else {
    int64_t depth = 10;
    ParseInt(history, &depth);
    q.depth = static_cast<int32_t>(depth);
  }
  return q;
}

// --wake thread (default), waitset or inline.
Wake WakeOf(const Options& options) {
  const std::string wake = options.String("wake", "thread");
  return wake == "waitset" ? Wake::kWaitset : wake == "inline" ? Wake::kInline : Wake::kThread;
}

int RunPing(Domain& domain, const Options& options) {
  const size_t size = static_cast<size_t>(options.Int("size", 64));
  const std::string prefix = options.String("topic-prefix", "bench/");
  const Qos q = ParseHistory(options, "10");
  std::vector<uint8_t> payload(std::max(size, kMinPayload), 'x');
  korvan_wire_Envelope envelope = MakeEnvelope(payload);
  Writer writer(domain, prefix + "ping", q);
  PingDriver driver(static_cast<size_t>(options.Int("warmup", 1000)),
                    static_cast<size_t>(options.Int("count", 10000)), [&](uint64_t seq) {
                      PutSeq(payload.data(), seq);
                      return writer.Write(envelope);
                    });
  Reader reader(domain, prefix + "pong", q, WakeOf(options),
                [&](const korvan_wire_Envelope& e) { driver.OnReply(SeqOf(e)); });
  if (!writer.ok() || !reader.ok())
    return 2;
  if (!WaitUntil([&] { return writer.Matched() > 0 && reader.Matched() > 0; }, kMatchLimit)) {
    std::fprintf(stderr, "ping: no pong matched\n");
    return 3;
  }
  const bool done = driver.Run(std::chrono::seconds(options.Int("limit", 300)));
  PutSeq(payload.data(), kStopSeq);
  writer.Write(envelope);
  writer.Drain();
  const std::vector<int64_t> samples = driver.samples();
  if (options.Has("samples-out"))
    WriteSamples(options.String("samples-out", ""), samples);
  ResultLine()
      .Add("role", "ping")
      .Add("ok", static_cast<int64_t>(done))
      .Add("latency_ns", Summarise(samples))
      .Add("cpu_ns", driver.cpu_ns())
      .Add("retries", static_cast<int64_t>(driver.retries()))
      .Add("peak_rss_kib", PeakRssKib())
      .Print();
  return done ? 0 : 4;
}

int RunPong(Domain& domain, const Options& options) {
  const std::string prefix = options.String("topic-prefix", "bench/");
  const Qos q = ParseHistory(options, "10");
  Writer writer(domain, prefix + "pong", q);
  PongCounter counter(static_cast<size_t>(options.Int("warmup", 1000)));
  // Replies with the sample it holds on loan, as the library replies with the object it got.
  Reader reader(domain, prefix + "ping", q, WakeOf(options), [&](const korvan_wire_Envelope& e) {
    if (counter.OnPing(SeqOf(e)))
      writer.Write(e);
  });
  if (!writer.ok() || !reader.ok())
    return 2;
  const bool stopped = counter.WaitForStop(std::chrono::seconds(options.Int("limit", 300)));
  ResultLine()
      .Add("role", "pong")
      .Add("ok", static_cast<int64_t>(stopped))
      .Add("replies", counter.replies())
      .Add("cpu_ns", counter.cpu_ns())
      .Add("peak_rss_kib", PeakRssKib())
      .Print();
  return stopped ? 0 : 4;
}

int RunPub(Domain& domain, const Options& options) {
  const size_t size = static_cast<size_t>(options.Int("size", 64));
  const std::string prefix = options.String("topic-prefix", "bench/");
  std::vector<uint8_t> payload(std::max(size, kMinPayload), 'x');
  korvan_wire_Envelope envelope = MakeEnvelope(payload);
  Writer writer(domain, prefix + "stream", ParseHistory(options, "all"));
  if (!writer.ok())
    return 2;
  if (!WaitUntil([&] { return writer.Matched() > 0; }, kMatchLimit)) {
    std::fprintf(stderr, "pub: no sub matched\n");
    return 3;
  }
  const SourceResult r =
      RunSource(std::chrono::duration_cast<Clock::duration>(
                    std::chrono::duration<double>(options.Double("warmup-seconds", 0.5))),
                std::chrono::duration_cast<Clock::duration>(
                    std::chrono::duration<double>(options.Double("seconds", 2.0))),
                [&](uint64_t seq) {
                  PutSeq(payload.data(), seq);
                  return writer.Write(envelope);
                });
  writer.Drain();
  ResultLine()
      .Add("role", "pub")
      .Add("ok", static_cast<int64_t>(1))
      .Add("sent", r.sent)
      .Add("failed", r.failed)
      .Add("seconds", r.seconds)
      .Add("cpu_ns", r.cpu_ns)
      .Add("peak_rss_kib", PeakRssKib())
      .Print();
  return 0;
}

int RunSub(Domain& domain, const Options& options) {
  const std::string prefix = options.String("topic-prefix", "bench/");
  ThroughputSink sink(std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(options.Double("warmup-seconds", 0.5))));
  Reader reader(
      domain, prefix + "stream", ParseHistory(options, "all"), WakeOf(options),
      [&](const korvan_wire_Envelope& e) { sink.OnMessage(SeqOf(e), e.payload._length); });
  if (!reader.ok())
    return 2;
  const bool stopped = sink.WaitForStop(std::chrono::seconds(options.Int("limit", 120)));
  const ThroughputSink::Result r = sink.result();
  ResultLine()
      .Add("role", "sub")
      .Add("ok", static_cast<int64_t>(stopped && r.seconds > 0))
      .Add("messages", r.messages)
      .Add("bytes", r.bytes)
      .Add("seconds", r.seconds)
      .Add("cpu_ns", r.cpu_ns)
      .Add("received", r.received)
      .Add("lost", r.lost)
      .Add("peak_rss_kib", PeakRssKib())
      .Print();
  return stopped ? 0 : 4;
}

}  // namespace
}  // namespace korvan_bench

int main(int argc, char** argv) {
  using namespace korvan_bench;
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s ping|pong|pub|sub [--key value]...\n", argv[0]);
    return 1;
  }
  Options options;
  std::string error;
  if (!options.Parse(argc, argv, 2, &error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  const std::string role = argv[1];
  Domain domain;
  if (!domain.Open(options.Has("shm")))
    return 2;
  if (role == "ping")
    return RunPing(domain, options);
  if (role == "pong")
    return RunPong(domain, options);
  if (role == "pub")
    return RunPub(domain, options);
  if (role == "sub")
    return RunSub(domain, options);
  std::fprintf(stderr, "unknown role '%s'\n", role.c_str());
  return 1;
}
