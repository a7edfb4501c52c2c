// Micro-benchmarks of the library's per-message work: stamping and CRC on the sending side,
// parseMessage on both receiving paths (wire bytes and in-process object), and the
// subscriber's checks. The bus runs with the local transport, so no network is involved.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>

#include "bench_proto/bench_messages.pb.h"
#include "infra/time.h"
#include "tarvikdds/application/init.h"
#include "tarvikdds/bus/korvan_message_traits.h"
#include "tarvikdds/messaging/dds_participant.h"
#include "tarvikdds/messaging/dds_publisher_impl.h"
#include "tarvikdds/messaging/dds_subscriber_impl.h"

namespace {

using korvan::bench::PlainPayload;
using korvan::bench::StampedPayload;
using tarvik::korvan::Time;
using tarvik::korvan::bus::MakeStampingOperations;
using tarvik::quessa::Participant;
using tarvik::quessa::PublisherImpl;
using tarvik::quessa::QoS;
using tarvik::quessa::SubscriberImpl;

void PayloadSizes(benchmark::internal::Benchmark* b) {
  for (int64_t size : {64, 4096, 65536, 1048576})
    b->Arg(size);
}

template <typename T>
std::shared_ptr<T> MakeMessage(size_t size) {
  auto msg = std::make_shared<T>();
  msg->mutable_payload()->assign(size, 'x');
  return msg;
}

// Every endpoint gets a topic of its own: a publisher here must never feed a subscriber here.
std::string Topic(const char* what, int64_t size) {
  static int serial = 0;
  return std::string("micro/") + what + "/" + std::to_string(size) + "/" + std::to_string(++serial);
}

void BM_Crc(benchmark::State& state) {
  Participant participant("micro/crc");
  const std::string bytes(static_cast<size_t>(state.range(0)), 'x');
  for (auto _ : state)
    benchmark::DoNotOptimize(participant.CalculateCRC(bytes));
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Crc)->Apply(PayloadSizes);

// The serialisation stamping needs for the CRC (deterministic, through the operations).
void BM_SerializeStamped(benchmark::State& state) {
  auto ops = MakeStampingOperations<StampedPayload>();
  std::shared_ptr<void> msg = MakeMessage<StampedPayload>(static_cast<size_t>(state.range(0)));
  auto bytes = std::make_shared<std::string>();
  for (auto _ : state) {
    ops->SerializeToString(msg, bytes);
    benchmark::DoNotOptimize(bytes->data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_SerializeStamped)->Apply(PayloadSizes);

// The same into a new string each time, as Publish and the subscriber's CRC check do: the
// difference to the above is the cost of growing a fresh buffer.
void BM_SerializeStampedNewString(benchmark::State& state) {
  auto ops = MakeStampingOperations<StampedPayload>();
  std::shared_ptr<void> msg = MakeMessage<StampedPayload>(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    auto bytes = std::make_shared<std::string>();
    ops->SerializeToString(msg, bytes);
    benchmark::DoNotOptimize(bytes->data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_SerializeStampedNewString)->Apply(PayloadSizes);

// The four stamps other than the CRC, written by reflection as Publish writes them.
void BM_StampFieldsWithoutCrc(benchmark::State& state) {
  auto ops = MakeStampingOperations<StampedPayload>();
  std::shared_ptr<void> msg = MakeMessage<StampedPayload>(64);
  const std::string id = "0123456789abcdef0123456789abcdef0123";
  uint64_t counter = 0;
  for (auto _ : state) {
    ops->SetPublisherTsVal(msg, Time::Utc(Time::kNanosecond));
    ops->SetPublishPtpTs(msg, Time::Ptp(Time::kNanosecond));
    ops->SetCounterVal(msg, counter++);
    ops->SetPublisherIdStr(msg, id);
  }
}
BENCHMARK(BM_StampFieldsWithoutCrc);

// Publish with no subscriber: the stamps, the CRC and the hand-over to the bus.
template <typename T>
void BM_Publish(benchmark::State& state) {
  const int64_t size = state.range(0);
  PublisherImpl publisher(Topic("publish", size), QoS{}, T::descriptor(),
                          MakeStampingOperations<T>(), 0, "micro", "");
  auto msg = MakeMessage<T>(static_cast<size_t>(size));
  for (auto _ : state)
    benchmark::DoNotOptimize(publisher.Publish(msg));
}
BENCHMARK_TEMPLATE(BM_Publish, StampedPayload)->Apply(PayloadSizes);
BENCHMARK_TEMPLATE(BM_Publish, PlainPayload)->Apply(PayloadSizes);

// What the bus does with every sample from another process: a new message, parsed from bytes.
template <typename T>
void BM_ParseMessageWire(benchmark::State& state) {
  auto ops = MakeStampingOperations<T>();
  const std::string bytes =
      MakeMessage<T>(static_cast<size_t>(state.range(0)))->SerializeAsString();
  for (auto _ : state) {
    std::shared_ptr<void> msg;
    ops->NewMessage(msg, "");
    benchmark::DoNotOptimize(
        ops->parseMessage(msg, bytes.data(), static_cast<int>(bytes.size()), false, false));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK_TEMPLATE(BM_ParseMessageWire, StampedPayload)->Apply(PayloadSizes);
BENCHMARK_TEMPLATE(BM_ParseMessageWire, PlainPayload)->Apply(PayloadSizes);

// ... and with every sample from this process: a new message, copied from the object.
template <typename T>
void BM_ParseMessageObject(benchmark::State& state) {
  auto ops = MakeStampingOperations<T>();
  auto source = MakeMessage<T>(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    std::shared_ptr<void> msg;
    ops->NewMessage(msg, "");
    benchmark::DoNotOptimize(ops->parseMessage(msg, source.get(), 0, true, false));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK_TEMPLATE(BM_ParseMessageObject, StampedPayload)->Apply(PayloadSizes);
BENCHMARK_TEMPLATE(BM_ParseMessageObject, PlainPayload)->Apply(PayloadSizes);

// The subscriber's checks on one delivered message (CRC, counter per publisher, transmit
// delay, update gap) and an empty callback. Each message is stamped afresh by a publisher
// first, outside the timed part, so counters rise and CRCs hold.
template <typename T>
void BM_SubscriberOnMessage(benchmark::State& state) {
  const int64_t size = state.range(0);
  auto ops = MakeStampingOperations<T>();
  PublisherImpl publisher(Topic("stamper", size), QoS{}, T::descriptor(), ops, 0, "micro", "");
  SubscriberImpl subscriber(
      Topic("checker", size), [](const std::shared_ptr<void>&) {}, QoS{}, T::descriptor(), ops, 0,
      "micro", "");
  std::shared_ptr<void> msg = MakeMessage<T>(static_cast<size_t>(size));
  for (auto _ : state) {
    publisher.Publish(msg);
    const auto start = std::chrono::steady_clock::now();
    subscriber.OnMessage(msg);
    const auto end = std::chrono::steady_clock::now();
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
  }
  state.counters["rejected"] = static_cast<double>(subscriber.RejectedCount());
}
BENCHMARK_TEMPLATE(BM_SubscriberOnMessage, StampedPayload)->Apply(PayloadSizes)->UseManualTime();
BENCHMARK_TEMPLATE(BM_SubscriberOnMessage, PlainPayload)->Apply(PayloadSizes)->UseManualTime();

// The counter check alone: one publisher's counters, one after the other.
void BM_SubscriberCounterCheck(benchmark::State& state) {
  auto ops = MakeStampingOperations<StampedPayload>();
  SubscriberImpl subscriber(
      Topic("counter", 0), [](const std::shared_ptr<void>&) {}, QoS{}, StampedPayload::descriptor(),
      ops, 0, "micro", "");
  std::shared_ptr<void> msg = MakeMessage<StampedPayload>(64);
  const std::string id = "0123456789abcdef0123456789abcdef0123";
  uint64_t counter = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(subscriber.ValidateSeq(counter++, id, msg));
}
BENCHMARK(BM_SubscriberCounterCheck);

}  // namespace

int main(int argc, char** argv) {
  // The local transport and a domain of the benchmarks' own: nothing leaves the process.
  setenv("KORVAN_BUS_TRANSPORT", "local", 1);
  setenv("KORVAN_DOMAIN_ID", "201", 0);
  unsetenv("KORVAN_BUS_CONFIG_PATH");
  if (!tarvik::quessa::tarvikdds::Init("korvan_bench_micro"))
    return 2;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
