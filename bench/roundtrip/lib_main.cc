// The library side of the comparison: round trips and streams through Publisher/Subscriber,
// with a message type that declares all five stamp fields or with one that declares none.
// "inproc" runs both ends in one process, over the library's in-process path; with
// "--delivery inline" its two topics are configured for inline delivery (the callback runs on
// the publishing thread) instead of the default hand-over to a delivery thread.
//
//   korvan_bench_lib ping|pong|pub|sub|inproc --type stamped|plain [--size N] [--warmup N]
//                    [--count N] [--seconds S] [--warmup-seconds S] [--topic-prefix P]
//                    [--history all|N] [--samples-out FILE] [--limit S]
//                    [--delivery queued|inline] [--settle-seconds S] [--min-matched N]
// --settle-seconds: before the run, ping until a round trip went through shared memory both
// ways (at most S seconds), so that the run does not start on DDS while the path switches.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "bench_proto/bench_messages.pb.h"
#include "common/bench_common.h"
#include "korvan/bus/delivery_context.h"
#include "tarvikdds/messaging/dds_node.h"

namespace korvan_bench {
namespace {

using tarvik::quessa::Node;
using tarvik::quessa::QoS;

constexpr auto kMatchLimit = std::chrono::seconds(30);
// The library has no call that waits for acknowledgements; this lets a reliable stop message
// reach the other side before the writer goes.
constexpr auto kDrainTime = std::chrono::milliseconds(200);

QoS ParseQos(const Options& options, const char* fallback) {
  QoS qos;  // the library's defaults: keep-last 10, volatile, reliable
  const std::string history = options.String("history", fallback);
  if (history == "all") {
    qos.history_type = 1;
  } else {
    int64_t depth = 10;
    ParseInt(history, &depth);
    qos.history_depth = static_cast<uint32_t>(depth);
  }
  return qos;
}

template <typename T>
std::shared_ptr<T> MakeMessage(size_t size) {
  auto msg = std::make_shared<T>();
  msg->mutable_payload()->assign(std::max(size, kMinPayload), 'x');
  return msg;
}

template <typename T>
uint64_t SeqOf(const T& msg) {
  return GetSeq(msg.payload().data(), msg.payload().size());
}

template <typename T>
void SetSeq(T* msg, uint64_t seq) {
  PutSeq(&(*msg->mutable_payload())[0], seq);
}

std::string UniqueName(const char* role) {
  return std::string("bench_") + role + "_" + std::to_string(getpid());
}

// The sending end; with `in_process` the replying end lives in this process too.
template <typename T>
int RunPing(const Options& options, bool in_process) {
  const std::string prefix = options.String("topic-prefix", "bench/");
  const QoS qos = ParseQos(options, "10");
  std::unique_ptr<Node> node = Node::CreateNode(UniqueName("ping"), "");
  auto publisher = node->template CreatePublisher<T>(prefix + "ping", qos);
  auto msg = MakeMessage<T>(static_cast<size_t>(options.Int("size", 64)));
  PingDriver driver(static_cast<size_t>(options.Int("warmup", 1000)),
                    static_cast<size_t>(options.Int("count", 10000)), [&](uint64_t seq) {
                      SetSeq(msg.get(), seq);
                      return publisher->Publish(msg);
                    });
  std::atomic<bool> settled{false};
  auto subscriber = node->template CreateSubscriber<T>(
      prefix + "pong", qos, [&](const std::shared_ptr<T>& reply) {
        const uint64_t seq = SeqOf(*reply);
        if (seq >= kSettleSeq && seq != kStopSeq) {
          const auto* delivery = tarvik::korvan::bus::CurrentDelivery();
          if ((seq & kSettledBit) != 0 && delivery != nullptr && delivery->shared_memory)
            settled = true;
          return;
        }
        driver.OnReply(seq);
      });

  // The replying end, when in this process: a node of its own, as another component would be.
  std::unique_ptr<Node> pong_node;
  std::shared_ptr<tarvik::quessa::Publisher<T>> pong_publisher;
  std::shared_ptr<tarvik::quessa::Subscriber<T>> pong_subscriber;
  if (in_process) {
    pong_node = Node::CreateNode(UniqueName("pong"), "");
    pong_publisher = pong_node->template CreatePublisher<T>(prefix + "pong", qos);
    pong_subscriber = pong_node->template CreateSubscriber<T>(
        prefix + "ping", qos,
        [&](const std::shared_ptr<T>& ping) { pong_publisher->Publish(ping); });
  }

  // --min-matched: other readers of the ping topic (a viewer) must be there before measuring.
  const int min_matched = static_cast<int>(options.Int("min-matched", 1));
  if (!WaitUntil(
          [&] {
            return publisher->MatchedSubscribers() >= min_matched &&
                   subscriber->MatchedPublishers() > 0;
          },
          kMatchLimit)) {
    std::fprintf(stderr, "ping: no pong matched\n");
    return 3;
  }
  if (options.Has("settle-seconds")) {
    const auto until =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(
                           std::chrono::duration<double>(options.Double("settle-seconds", 10)));
    for (uint64_t seq = kSettleSeq; !settled && Clock::now() < until; ++seq) {
      SetSeq(msg.get(), seq);
      publisher->Publish(msg);
      WaitUntil([&] { return settled.load(); }, std::chrono::milliseconds(20));
    }
    if (!settled)
      std::fprintf(stderr, "ping: the path did not settle on shared memory\n");
  }
  // Inline, the reply arrives inside Publish on this thread: drive the pings from a loop.
  const bool inline_delivery = options.String("delivery", "queued") == "inline";
  const auto limit = std::chrono::seconds(options.Int("limit", 300));
  const bool done = inline_delivery ? driver.RunFromLoop(limit) : driver.Run(limit);

  const std::vector<int64_t> samples = driver.samples();
  if (options.Has("samples-out"))
    WriteSamples(options.String("samples-out", ""), samples);
  ResultLine()
      .Add("role", in_process ? "inproc" : "ping")
      .Add("ok", static_cast<int64_t>(done))
      .Add("latency_ns", Summarise(samples))
      .Add("cpu_ns", driver.cpu_ns())
      .Add("retries", static_cast<int64_t>(driver.retries()))
      .Add("peak_rss_kib", PeakRssKib())
      .Print();
  if (!in_process) {
    SetSeq(msg.get(), kStopSeq);
    publisher->Publish(msg);
    std::this_thread::sleep_for(kDrainTime);
  }
  // Delivery stops before what the callbacks use goes.
  pong_subscriber.reset();
  subscriber.reset();
  return done ? 0 : 4;
}

template <typename T>
int RunPong(const Options& options) {
  const std::string prefix = options.String("topic-prefix", "bench/");
  const QoS qos = ParseQos(options, "10");
  std::unique_ptr<Node> node = Node::CreateNode(UniqueName("pong"), "");
  auto publisher = node->template CreatePublisher<T>(prefix + "pong", qos);
  PongCounter counter(static_cast<size_t>(options.Int("warmup", 1000)));
  // Replies with the message it was handed (stamped again by Publish), without a copy.
  auto subscriber =
      node->template CreateSubscriber<T>(prefix + "ping", qos, [&](const std::shared_ptr<T>& ping) {
        const uint64_t seq = SeqOf(*ping);
        if (seq >= kSettleSeq && seq != kStopSeq) {
          const auto* delivery = tarvik::korvan::bus::CurrentDelivery();
          if (delivery != nullptr && delivery->shared_memory)
            SetSeq(ping.get(), seq | kSettledBit);
        }
        if (counter.OnPing(seq))
          publisher->Publish(ping);
      });
  const bool stopped = counter.WaitForStop(std::chrono::seconds(options.Int("limit", 300)));
  ResultLine()
      .Add("role", "pong")
      .Add("ok", static_cast<int64_t>(stopped))
      .Add("replies", counter.replies())
      .Add("cpu_ns", counter.cpu_ns())
      .Add("peak_rss_kib", PeakRssKib())
      .Print();
  subscriber.reset();
  return stopped ? 0 : 4;
}

template <typename T>
int RunPub(const Options& options) {
  const std::string prefix = options.String("topic-prefix", "bench/");
  std::unique_ptr<Node> node = Node::CreateNode(UniqueName("pub"), "");
  auto publisher = node->template CreatePublisher<T>(prefix + "stream", ParseQos(options, "all"));
  auto msg = MakeMessage<T>(static_cast<size_t>(options.Int("size", 64)));
  if (!WaitUntil([&] { return publisher->MatchedSubscribers() > 0; }, kMatchLimit)) {
    std::fprintf(stderr, "pub: no sub matched\n");
    return 3;
  }
  const SourceResult r =
      RunSource(std::chrono::duration_cast<Clock::duration>(
                    std::chrono::duration<double>(options.Double("warmup-seconds", 0.5))),
                std::chrono::duration_cast<Clock::duration>(
                    std::chrono::duration<double>(options.Double("seconds", 2.0))),
                [&](uint64_t seq) {
                  SetSeq(msg.get(), seq);
                  return publisher->Publish(msg);
                });
  ResultLine()
      .Add("role", "pub")
      .Add("ok", static_cast<int64_t>(1))
      .Add("sent", r.sent)
      .Add("failed", r.failed)
      .Add("seconds", r.seconds)
      .Add("cpu_ns", r.cpu_ns)
      .Add("peak_rss_kib", PeakRssKib())
      .Print();
  std::this_thread::sleep_for(kDrainTime);
  return 0;
}

template <typename T>
int RunSub(const Options& options) {
  const std::string prefix = options.String("topic-prefix", "bench/");
  std::unique_ptr<Node> node = Node::CreateNode(UniqueName("sub"), "");
  ThroughputSink sink(std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(options.Double("warmup-seconds", 0.5))));
  auto subscriber = node->template CreateSubscriber<T>(
      prefix + "stream", ParseQos(options, "all"),
      [&](const std::shared_ptr<T>& m) { sink.OnMessage(SeqOf(*m), m->payload().size()); });
  const bool stopped = sink.WaitForStop(std::chrono::seconds(options.Int("limit", 120)));
  subscriber.reset();
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

// Writes a bus configuration that marks the ping and pong topics for inline delivery and
// points the runtime at it (before the first node starts it).
void ConfigureInlineDelivery(const Options& options) {
  const std::string prefix = options.String("topic-prefix", "bench/");
  const QoS qos = ParseQos(options, "10");
  const std::string history = qos.history_type == 0
                                  ? R"("history": 1, "depth": )" + std::to_string(qos.history_depth)
                                  : R"("history": 2)";
  std::string topics;
  for (const char* end : {"ping", "pong"}) {
    if (!topics.empty())
      topics += ",";
    topics +=
        R"({"name": ")" + prefix + end + R"(", "inline_delivery": true, "qos": {)" + history + "}}";
  }
  const char* tmp = std::getenv("TMPDIR");
  static const std::string path = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") +
                                  "/korvan_bench_inline_" + std::to_string(getpid()) + ".json";
  std::ofstream(path) << R"({"topics": [)" << topics << "]}";
  setenv("KORVAN_BUS_CONFIG_PATH", path.c_str(), 1);
  std::atexit([] { unlink(path.c_str()); });
}

template <typename T>
int Run(const std::string& role, const Options& options) {
  if (options.String("delivery", "queued") == "inline")
    ConfigureInlineDelivery(options);

  if (role == "ping")
    return RunPing<T>(options, false);
  if (role == "inproc")
    return RunPing<T>(options, true);
  if (role == "pong")
    return RunPong<T>(options);
  if (role == "pub")
    return RunPub<T>(options);
  if (role == "sub")
    return RunSub<T>(options);
  std::fprintf(stderr, "unknown role '%s'\n", role.c_str());
  return 1;
}

}  // namespace
}  // namespace korvan_bench

int main(int argc, char** argv) {
  using namespace korvan_bench;
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s ping|pong|pub|sub|inproc --type stamped|plain ...\n", argv[0]);
    return 1;
  }
  Options options;
  std::string error;
  if (!options.Parse(argc, argv, 2, &error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  const std::string type = options.String("type", "stamped");
  if (type == "stamped")
    return Run<korvan::bench::StampedPayload>(argv[1], options);
  if (type == "plain")
    return Run<korvan::bench::PlainPayload>(argv[1], options);
  std::fprintf(stderr, "unknown type '%s'\n", type.c_str());
  return 1;
}
