// korvan_bench_bag: how `korvan bag` keeps up. Prints tables, asserts nothing.
//
//  - Recording: this process publishes a stamped payload (64 B, 1 MiB) as fast as a reliable
//    keep-all writer takes it, for a few seconds, to one subscriber process: first a plain
//    counting subscriber (what the bus delivers), then `korvan bag record` with each
//    compression. For each: messages/s sent, messages lost (sent but not received or not in
//    the file), the recorder's CPU per message (from /proc, while recording), and the MB/s it
//    wrote to its file.
//  - Playback: a recording of 64 B at 1 kHz and of 1 MiB at 50 Hz is played by `korvan bag
//    play` to a subscriber here; the timing error is how far each arrival is from its recorded
//    time, the constant offset between the two (its median) taken away (median and p99 of the
//    absolute error), and the player's own lateness against its schedule.
//  - What reading a message's stamps costs the recorder: its walk over the wire bytes against
//    a parse of the whole message.
//
// Usage: korvan_bench_bag [--korvan PATH] [--seconds S] [--domain D] [--quick]
//        korvan_bench_bag --sink TOPIC   (the counting subscriber, started by the bench)
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_proto/bench_messages.pb.h"
#include "common/bench_common.h"
#include "korvan/mcap/reader.h"
#include "korvan/tools/wire_stamps.h"
#include "tarvikdds/messaging/dds_node.h"

namespace {

using korvan::bench::StampedPayload;
using korvan_bench::Clock;
using tarvik::quessa::Node;
using tarvik::quessa::QoS;
namespace mcap = tarvik::korvan::mcap;

volatile std::sig_atomic_t g_stop = 0;

std::string Scratch(const std::string& name) {
  const char* tmp = std::getenv("TMPDIR");
  return std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/korvan_bench_bag_" +
         std::to_string(getpid()) + "_" + name;
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// A child process with its output in a file.
struct Child {
  pid_t pid = -1;
  std::string log;

  static Child Start(const std::vector<std::string>& argv, const std::string& log) {
    Child child;
    child.log = log;
    child.pid = fork();
    if (child.pid == 0) {
      const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(fd, STDOUT_FILENO);
      dup2(fd, STDERR_FILENO);
      const int null = open("/dev/null", O_RDONLY);
      dup2(null, STDIN_FILENO);
      std::vector<char*> args;
      for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
      args.push_back(nullptr);
      execv(args[0], args.data());
      _exit(127);
    }
    return child;
  }
  std::string output() const { return ReadAll(log); }
  bool WaitForOutput(const std::string& text, std::chrono::seconds limit) const {
    const auto end = Clock::now() + limit;
    while (Clock::now() < end) {
      if (output().find(text) != std::string::npos)
        return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }
  // CPU time so far (user + system), from /proc.
  int64_t CpuNs() const {
    std::string stat = ReadAll("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = stat.rfind(')');
    if (close == std::string::npos)
      return 0;
    std::istringstream fields(stat.substr(close + 2));
    std::string field;
    long long utime = 0;
    long long stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
      if (i == 14)
        utime = std::atoll(field.c_str());
      if (i == 15)
        stime = std::atoll(field.c_str());
    }
    return (utime + stime) * (1000000000LL / sysconf(_SC_CLK_TCK));
  }
  int Stop() {
    kill(pid, SIGINT);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
};

// The last "<n> msgs" figure of a recorder's status, or "received <n>" of the sink.
long LastCount(const std::string& output, const std::string& marker, bool number_after) {
  const size_t at = output.rfind(marker);
  if (at == std::string::npos)
    return -1;
  if (number_after)
    return std::atol(output.c_str() + at + marker.size());
  size_t begin = at;
  while (begin > 0 && std::isdigit(static_cast<unsigned char>(output[begin - 1])))
    --begin;
  return begin == at ? -1 : std::atol(output.c_str() + begin);
}

struct SendResult {
  uint64_t sent = 0;
  double seconds = 0;
};

// Publishes flat out (or at `rate` Hz when > 0) for `seconds` once a subscriber matched.
SendResult Send(Node& node, const std::string& topic, size_t size, double seconds,
                double rate = 0) {
  QoS keep_all;
  keep_all.history_type = 1;
  auto publisher = node.CreatePublisher<StampedPayload>(topic, keep_all);
  const auto match_end = Clock::now() + std::chrono::seconds(30);
  while (publisher->MatchedSubscribers() < 1 && Clock::now() < match_end)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  auto message = std::make_shared<StampedPayload>();
  // A 16-symbol alphabet at random: about half compressible, like many sensor payloads.
  std::mt19937 random(1);
  std::string payload(size, '\0');
  for (char& c : payload)
    c = static_cast<char>('A' + random() % 16);
  SendResult result;
  const auto start = Clock::now();
  const auto end =
      start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  const auto period = rate > 0 ? std::chrono::nanoseconds(static_cast<int64_t>(1e9 / rate))
                               : std::chrono::nanoseconds(0);
  auto next = start;
  while (Clock::now() < end) {
    korvan_bench::PutSeq(payload.data(), result.sent);
    message->set_payload(payload);
    if (publisher->Publish(message))
      ++result.sent;
    if (rate > 0) {
      next += period;
      std::this_thread::sleep_until(next);
    }
  }
  result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the last acknowledgements
  return result;
}

// Waits until `count()` stops growing for `quiet` or reaches `target`.
void WaitSettled(const std::function<long()>& count, long target, std::chrono::seconds quiet) {
  long last = -2;
  auto changed = Clock::now();
  const auto limit = Clock::now() + std::chrono::seconds(120);
  while (Clock::now() < limit) {
    const long now = count();
    if (now >= target)
      return;
    if (now != last) {
      last = now;
      changed = Clock::now();
    } else if (Clock::now() - changed >= quiet) {
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

struct FileFacts {
  uint64_t messages = 0;
  uint64_t gaps = 0;        // counter gaps
  uint64_t bytes = 0;       // the file
  uint64_t data_bytes = 0;  // the messages in it
  std::vector<uint64_t> log_times;
};

FileFacts ReadFacts(const std::string& path) {
  FileFacts facts;
  mcap::Status status;
  auto source = mcap::FileSource::Open(path, &status);
  if (!source)
    return facts;
  facts.bytes = source->size();
  mcap::IndexedReader reader(*source);
  mcap::Message message;
  bool first = true;
  uint32_t last = 0;
  while (reader.Next(&message)) {
    ++facts.messages;
    facts.data_bytes += message.data.size();
    if (!first && message.sequence > last + 1)
      facts.gaps += message.sequence - last - 1;
    last = message.sequence;
    first = false;
    facts.log_times.push_back(message.log_time);
  }
  return facts;
}

std::string SizeName(size_t size) {
  return size >= 1024 * 1024 ? std::to_string(size / (1024 * 1024)) + " MiB"
                             : std::to_string(size) + " B";
}

int RunSink(const std::string& topic) {
  signal(SIGINT, [](int) { g_stop = 1; });
  auto node = Node::CreateNode("bag_bench_sink", "");
  QoS keep_all;
  keep_all.history_type = 1;
  std::atomic<uint64_t> received{0};
  auto subscriber = node->CreateSubscriber<StampedPayload>(
      topic, keep_all, [&](const std::shared_ptr<StampedPayload>&) { ++received; });
  std::printf("ready\n");
  std::fflush(stdout);
  uint64_t printed = 0;
  while (!g_stop) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    if (received.load() != printed) {
      printed = received.load();
      std::printf("received %" PRIu64 "\n", printed);
      std::fflush(stdout);
    }
  }
  std::printf("received %" PRIu64 "\n", received.load());
  return 0;
}

// Nanoseconds per call of `fn`, over about a quarter second.
double NsPerCall(const std::function<void()>& fn) {
  size_t calls = 0;
  const auto start = Clock::now();
  auto now = start;
  while (now - start < std::chrono::milliseconds(250)) {
    for (int i = 0; i < 16; ++i)
      fn();
    calls += 16;
    now = Clock::now();
  }
  return std::chrono::duration<double, std::nano>(now - start).count() / static_cast<double>(calls);
}

void PrintStampCost() {
  std::printf(
      "\n## Reading the stamps of a received message\n\n| payload | walk over the tags | parse "
      "(compiled type) |\n|---|---:|---:|\n");
  const auto layout = tarvik::korvan::tools::StampLayout::Of(StampedPayload::descriptor());
  for (size_t size : {size_t{64}, size_t{1} << 20}) {
    StampedPayload message;
    message.set_payload(std::string(size, 'p'));
    message.set_publish_ts(1700000000000000000ull);
    message.set_counter(123456);
    message.set_publisher_id("0b7e0c1a-1111-4c2d-9e3f-222233334444");
    message.set_crc(77);
    message.set_publish_ptp_ts(1700000000000000000ull);
    const std::string bytes = message.SerializeAsString();
    uint64_t sink = 0;
    const double walk = NsPerCall([&] {
      tarvik::korvan::tools::WireStamps stamps;
      tarvik::korvan::tools::ReadWireStamps(bytes.data(), bytes.size(), layout, &stamps);
      sink += stamps.counter;
    });
    const double parse = NsPerCall([&] {
      StampedPayload parsed;
      parsed.ParseFromString(bytes);
      sink += parsed.counter();
    });
    std::printf("| %s | %.0f ns | %.0f ns |\n", SizeName(size).c_str(), walk, parse);
    if (sink == 42)
      std::printf(" ");
  }
  std::fflush(stdout);
}

struct Row {
  std::string who;
  std::string pace;  // "flat out" or the rate asked for
  size_t size = 0;
  SendResult sent;
  long received = 0;
  double cpu_us_per_message = 0;
  double written_mb_per_s = 0;
  double ratio = 0;
};

std::string Fixed(double value, int digits) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.*f", digits, value);
  return text;
}

void PrintRows(const std::vector<Row>& rows) {
  std::printf(
      "\n| payload | subscriber | publisher | sent msg/s | sent | received | lost | recorder CPU "
      "µs/msg | written MB/s | file / messages |\n|---|---|---|---:|---:|---:|---:|---:|---:|---:|"
      "\n");
  for (const Row& r : rows) {
    const bool sink = r.who == "plain subscriber";
    std::printf("| %s | %s | %s | %.0f | %" PRIu64 " | %ld | %" PRId64 " | %s | %s | %s |\n",
                SizeName(r.size).c_str(), r.who.c_str(), r.pace.c_str(),
                static_cast<double>(r.sent.sent) / r.sent.seconds, r.sent.sent, r.received,
                static_cast<int64_t>(r.sent.sent) - r.received,
                sink ? "-" : Fixed(r.cpu_us_per_message, 2).c_str(),
                sink ? "-" : Fixed(r.written_mb_per_s, 1).c_str(),
                sink ? "-" : Fixed(r.ratio, 3).c_str());
  }
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  korvan_bench::Options options;
  std::string error;
  if (!options.Parse(argc, argv, 1, &error)) {
    std::fprintf(stderr, "korvan_bench_bag: %s\n", error.c_str());
    return 2;
  }
  setenv("KORVAN_DOMAIN_ID", std::to_string(options.Int("domain", 201)).c_str(), 0);
  // As bench/run runs every process: 1 MiB buffers stay in the heap (see the README). The
  // tool sets the same for itself.
  mallopt(M_MMAP_THRESHOLD, 256 << 20);
  mallopt(M_TRIM_THRESHOLD, 256 << 20);
  setenv("TREVAM_LOG_LEVEL", "2", 0);
  if (options.Has("sink"))
    return RunSink(options.String("sink", ""));

  char self[4096] = {0};
  const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  const std::string self_path(self, n > 0 ? static_cast<size_t>(n) : 0);
  const std::string build_dir = self_path.substr(0, self_path.rfind("/bench/"));
  const std::string korvan = options.String("korvan", build_dir + "/tools/korvan/korvan");
  if (access(korvan.c_str(), X_OK) != 0) {
    std::fprintf(stderr, "korvan_bench_bag: no korvan tool at %s (--korvan PATH)\n",
                 korvan.c_str());
    return 2;
  }
  const bool quick = options.Has("quick");
  const double seconds = options.Double("seconds", quick ? 1.5 : 3.0);
  auto node = Node::CreateNode("bag_bench", "");
  std::vector<Row> rows;
  int run = 0;

  for (size_t size : {size_t{64}, size_t{1} << 20}) {
    // What the bus delivers to a plain subscriber process, flat out.
    double bus_rate = 0;
    {
      const std::string topic = "bag_bench/sink" + std::to_string(run++);
      Child sink = Child::Start({self_path, "--sink", topic}, Scratch("sink.log"));
      sink.WaitForOutput("ready", std::chrono::seconds(30));
      Row row{"plain subscriber", "flat out", size, Send(*node, topic, size, seconds)};
      WaitSettled([&] { return LastCount(sink.output(), "received ", true); },
                  static_cast<long>(row.sent.sent), std::chrono::seconds(3));
      sink.Stop();
      row.received = LastCount(sink.output(), "received ", true);
      bus_rate = static_cast<double>(row.sent.sent) / row.sent.seconds;
      rows.push_back(row);
    }
    // The recorder at that rate, and flat out.
    for (const double rate : {bus_rate, 0.0}) {
      for (const char* compression : {"zstd", "lz4", "none"}) {
        const std::string topic = "bag_bench/rec" + std::to_string(run++);
        const std::string file = Scratch(std::string(compression) + ".mcap");
        Child recorder =
            Child::Start({korvan, "bag", "record", topic, "-o", file, "--compression", compression},
                         Scratch("recorder.log"));
        recorder.WaitForOutput("recording " + topic, std::chrono::seconds(30));
        const int64_t cpu_before = recorder.CpuNs();
        char pace[32];
        std::snprintf(pace, sizeof(pace), "%.0f/s", rate);
        Row row{std::string("recorder, ") + compression, rate > 0 ? pace : "flat out", size,
                Send(*node, topic, size, seconds, rate)};
        WaitSettled([&] { return LastCount(recorder.output(), " msgs,", false); },
                    static_cast<long>(row.sent.sent), std::chrono::seconds(3));
        const int64_t cpu = recorder.CpuNs() - cpu_before;
        recorder.Stop();
        const FileFacts facts = ReadFacts(file);
        row.received = static_cast<long>(facts.messages);
        row.cpu_us_per_message = facts.messages > 0 ? static_cast<double>(cpu) / 1e3 /
                                                          static_cast<double>(facts.messages)
                                                    : 0;
        row.written_mb_per_s = static_cast<double>(facts.bytes) / 1e6 / row.sent.seconds;
        row.ratio = facts.data_bytes > 0
                        ? static_cast<double>(facts.bytes) / static_cast<double>(facts.data_bytes)
                        : 0;
        rows.push_back(row);
        unlink(file.c_str());
        std::fprintf(stderr,
                     "%s %s %s: sent %" PRIu64 ", recorded %" PRIu64 " (gaps %" PRIu64 ")\n",
                     SizeName(size).c_str(), compression, row.pace.c_str(), row.sent.sent,
                     facts.messages, facts.gaps);
      }
    }
  }
  std::printf(
      "## Recording (%.1f s per row, reliable keep-all publisher; the recorder at the rate the "
      "plain subscriber took, then flat out)\n",
      seconds);
  PrintRows(rows);

  // Playback timing.
  std::printf(
      "\n## Playback timing\n\n| payload | rate | messages | arrival error median | "
      "arrival error p99 | player lateness (its report) |\n|---|---:|---:|---:|---:|---|\n");
  for (const auto& [size, rate] :
       {std::make_pair(size_t{64}, 1000.0), std::make_pair(size_t{1} << 20, 50.0)}) {
    const std::string topic = "bag_bench/play" + std::to_string(run++);
    const std::string file = Scratch("play.mcap");
    Child recorder =
        Child::Start({korvan, "bag", "record", topic, "-o", file}, Scratch("recorder.log"));
    recorder.WaitForOutput("recording " + topic, std::chrono::seconds(30));
    const SendResult sent = Send(*node, topic, size, seconds, rate);
    WaitSettled([&] { return LastCount(recorder.output(), " msgs,", false); },
                static_cast<long>(sent.sent), std::chrono::seconds(3));
    recorder.Stop();
    const FileFacts facts = ReadFacts(file);

    std::mutex mutex;
    std::vector<int64_t> arrivals;
    QoS keep_all;
    keep_all.history_type = 1;
    auto subscriber = node->CreateSubscriber<StampedPayload>(
        topic, keep_all, [&](const std::shared_ptr<StampedPayload>&) {
          std::lock_guard<std::mutex> lock(mutex);
          arrivals.push_back(
              std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
                  .count());
        });
    Child player = Child::Start({korvan, "bag", "play", file}, Scratch("player.log"));
    int status = 0;
    waitpid(player.pid, &status, 0);
    subscriber.reset();
    // Arrival minus recorded time is a constant (the clocks' offset and the transfer) plus
    // the error: taken against its median, so no single message sets the reference.
    std::vector<int64_t> skew;
    for (size_t i = 0; i < arrivals.size() && i < facts.log_times.size(); ++i)
      skew.push_back(arrivals[i] - static_cast<int64_t>(facts.log_times[i] - facts.log_times[0]));
    std::vector<int64_t> sorted = skew;
    std::sort(sorted.begin(), sorted.end());
    const int64_t typical = sorted.empty() ? 0 : sorted[sorted.size() / 2];
    std::vector<int64_t> errors;
    for (int64_t k : skew)
      errors.push_back(std::llabs(k - typical));
    const korvan_bench::Summary summary = korvan_bench::Summarise(errors);
    const std::string report = player.output();
    const size_t at = report.find("timing error");
    std::string own = at == std::string::npos ? "-" : report.substr(at + 13);
    own = own.substr(0, own.find('\n'));
    std::printf("| %s | %.0f Hz | %zu of %" PRIu64 " | %.3f ms | %.3f ms | %s |\n",
                SizeName(size).c_str(), rate, arrivals.size(), facts.messages,
                static_cast<double>(summary.median) / 1e6, static_cast<double>(summary.p99) / 1e6,
                own.c_str());
    std::fflush(stdout);
    unlink(file.c_str());
  }
  PrintStampCost();
  for (const char* log : {"sink.log", "recorder.log", "player.log"})
    unlink(Scratch(log).c_str());
  return 0;
}
