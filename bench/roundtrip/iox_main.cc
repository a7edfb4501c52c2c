// The zero-copy floor: the same round trips and streams on iceoryx's own publisher and
// subscriber (through the iox-roudi daemon the harness starts). A ping or message is a chunk
// loaned from shared memory with the sequence number written into it, nothing else: no
// serialisation and no copy of the payload, so what remains is allocation, hand-over and
// wake-up.
//
//   korvan_bench_iox ping|pong|pub|sub [--size N] [--warmup N] [--count N] [--seconds S]
//                    [--warmup-seconds S] [--topic-prefix P] [--samples-out FILE] [--limit S]
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>

#include "common/bench_common.h"
#include "iceoryx_posh/popo/untyped_publisher.hpp"
#include "iceoryx_posh/popo/untyped_subscriber.hpp"
#include "iceoryx_posh/popo/wait_set.hpp"
#include "iceoryx_posh/runtime/posh_runtime.hpp"

namespace korvan_bench {
namespace {

constexpr auto kMatchLimit = std::chrono::seconds(30);
constexpr auto kDrainTime = std::chrono::milliseconds(200);

iox::capro::ServiceDescription Service(const std::string& prefix, const std::string& end) {
  // Names of at most 100 characters; the prefix is unique per run already.
  std::string instance = prefix;
  for (char& c : instance) {
    if (c == '/')
      c = '_';
  }
  return {iox::capro::IdString_t(iox::cxx::TruncateToCapacity, "korvan_bench"),
          iox::capro::IdString_t(iox::cxx::TruncateToCapacity, instance),
          iox::capro::IdString_t(iox::cxx::TruncateToCapacity, end)};
}

iox::popo::PublisherOptions PublisherQos(bool keep_all) {
  iox::popo::PublisherOptions options;
  if (keep_all)
    options.subscriberTooSlowPolicy = iox::popo::ConsumerTooSlowPolicy::WAIT_FOR_CONSUMER;
  return options;
}

iox::popo::SubscriberOptions SubscriberQos(bool keep_all) {
  iox::popo::SubscriberOptions options;
  options.queueCapacity = 10;
  if (keep_all)
    options.queueFullPolicy = iox::popo::QueueFullPolicy::BLOCK_PRODUCER;
  return options;
}

bool Send(iox::popo::UntypedPublisher& publisher, size_t size, uint64_t seq) {
  bool sent = false;
  publisher.loan(static_cast<uint32_t>(std::max(size, kMinPayload)))
      .and_then([&](void* payload) {
        PutSeq(payload, seq);
        publisher.publish(payload);
        sent = true;
      })
      .or_else([](auto&) {});
  return sent;
}

// Takes everything waiting and hands each sequence number and size to `fn`.
template <typename Fn>
void TakeAll(iox::popo::UntypedSubscriber& subscriber, size_t size, Fn fn) {
  for (;;) {
    bool got = false;
    subscriber.take()
        .and_then([&](const void* payload) {
          got = true;
          const uint64_t seq = GetSeq(payload, std::max(size, kMinPayload));
          subscriber.release(payload);
          fn(seq);
        })
        .or_else([](auto&) {});
    if (!got)
      return;
  }
}

void InitRuntime(const char* role) {
  const std::string name = std::string("korvan_bench_") + role + "_" + std::to_string(getpid());
  iox::runtime::PoshRuntime::initRuntime(
      iox::RuntimeName_t(iox::cxx::TruncateToCapacity, name.c_str()));
}

int RunPing(const Options& options) {
  const std::string prefix = options.String("topic-prefix", "bench/");
  const size_t size = static_cast<size_t>(options.Int("size", 64));
  InitRuntime("ping");
  iox::popo::UntypedPublisher publisher(Service(prefix, "ping"), PublisherQos(false));
  iox::popo::UntypedSubscriber subscriber(Service(prefix, "pong"), SubscriberQos(false));
  iox::popo::WaitSet<> waitset;
  waitset.attachState(subscriber, iox::popo::SubscriberState::HAS_DATA).or_else([](auto) {
    std::abort();
  });
  PingDriver driver(static_cast<size_t>(options.Int("warmup", 1000)),
                    static_cast<size_t>(options.Int("count", 10000)),
                    [&](uint64_t seq) { return Send(publisher, size, seq); });
  if (!WaitUntil(
          [&] {
            return publisher.hasSubscribers() &&
                   subscriber.getSubscriptionState() == iox::SubscribeState::SUBSCRIBED;
          },
          kMatchLimit)) {
    std::fprintf(stderr, "ping: no pong matched\n");
    return 3;
  }
  std::atomic<bool> stop{false};
  std::thread receiver([&] {
    while (!stop.load()) {
      waitset.timedWait(iox::units::Duration::fromMilliseconds(100));
      TakeAll(subscriber, size, [&](uint64_t seq) { driver.OnReply(seq); });
    }
  });
  const bool done = driver.Run(std::chrono::seconds(options.Int("limit", 300)));
  stop.store(true);
  receiver.join();
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
  Send(publisher, size, kStopSeq);
  std::this_thread::sleep_for(kDrainTime);
  return done ? 0 : 4;
}

int RunPong(const Options& options) {
  const std::string prefix = options.String("topic-prefix", "bench/");
  const size_t size = static_cast<size_t>(options.Int("size", 64));
  InitRuntime("pong");
  iox::popo::UntypedPublisher publisher(Service(prefix, "pong"), PublisherQos(false));
  iox::popo::UntypedSubscriber subscriber(Service(prefix, "ping"), SubscriberQos(false));
  iox::popo::WaitSet<> waitset;
  waitset.attachState(subscriber, iox::popo::SubscriberState::HAS_DATA).or_else([](auto) {
    std::abort();
  });
  PongCounter counter(static_cast<size_t>(options.Int("warmup", 1000)));
  const auto limit = Clock::now() + std::chrono::seconds(options.Int("limit", 300));
  bool stopped = false;
  while (!stopped && Clock::now() < limit) {
    waitset.timedWait(iox::units::Duration::fromMilliseconds(100));
    TakeAll(subscriber, size, [&](uint64_t seq) {
      if (counter.OnPing(seq)) {
        Send(publisher, size, seq);
      } else {
        stopped = true;
      }
    });
  }
  ResultLine()
      .Add("role", "pong")
      .Add("ok", static_cast<int64_t>(stopped))
      .Add("replies", counter.replies())
      .Add("cpu_ns", counter.cpu_ns())
      .Add("peak_rss_kib", PeakRssKib())
      .Print();
  return stopped ? 0 : 4;
}

int RunPub(const Options& options) {
  const std::string prefix = options.String("topic-prefix", "bench/");
  const size_t size = static_cast<size_t>(options.Int("size", 64));
  InitRuntime("pub");
  iox::popo::UntypedPublisher publisher(Service(prefix, "stream"), PublisherQos(true));
  if (!WaitUntil([&] { return publisher.hasSubscribers(); }, kMatchLimit)) {
    std::fprintf(stderr, "pub: no sub matched\n");
    return 3;
  }
  const SourceResult r =
      RunSource(std::chrono::duration_cast<Clock::duration>(
                    std::chrono::duration<double>(options.Double("warmup-seconds", 0.5))),
                std::chrono::duration_cast<Clock::duration>(
                    std::chrono::duration<double>(options.Double("seconds", 2.0))),
                [&](uint64_t seq) { return Send(publisher, size, seq); });
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

int RunSub(const Options& options) {
  const std::string prefix = options.String("topic-prefix", "bench/");
  const size_t size = static_cast<size_t>(options.Int("size", 64));
  InitRuntime("sub");
  iox::popo::UntypedSubscriber subscriber(Service(prefix, "stream"), SubscriberQos(true));
  iox::popo::WaitSet<> waitset;
  waitset.attachState(subscriber, iox::popo::SubscriberState::HAS_DATA).or_else([](auto) {
    std::abort();
  });
  ThroughputSink sink(std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(options.Double("warmup-seconds", 0.5))));
  std::atomic<bool> stop{false};
  std::thread receiver([&] {
    while (!stop.load()) {
      waitset.timedWait(iox::units::Duration::fromMilliseconds(100));
      TakeAll(subscriber, size, [&](uint64_t seq) { sink.OnMessage(seq, size); });
    }
  });
  const bool stopped = sink.WaitForStop(std::chrono::seconds(options.Int("limit", 120)));
  stop.store(true);
  receiver.join();
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
    std::fprintf(stderr, "usage: %s ping|pong|pub|sub ...\n", argv[0]);
    return 1;
  }
  Options options;
  std::string error;
  if (!options.Parse(argc, argv, 2, &error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  const std::string role = argv[1];
  if (role == "ping")
    return RunPing(options);
  if (role == "pong")
    return RunPong(options);
  if (role == "pub")
    return RunPub(options);
  if (role == "sub")
    return RunSub(options);
  std::fprintf(stderr, "unknown role '%s'\n", role.c_str());
  return 1;
}
