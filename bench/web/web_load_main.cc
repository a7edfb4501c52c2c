// korvan_bench_web: what `korvan web` with its viewers costs the bus. The bus's own round trip
// between two processes (korvan_bench_lib ping/pong) is measured while a load of 10,000
// messages/s flows between two other processes, once with nothing else running and once with
// `korvan web` serving 20 clients, in alternating order, and the two are compared.
//
//   korvan_bench_web run --korvan <korvan binary> [options]     the whole comparison
//   korvan_bench_web load --topic T [--rate R] [--size S]       paced publisher until SIGTERM
//   korvan_bench_web sink --topic T                             counting subscriber until SIGTERM
//   korvan_bench_web clients --port P ...                       see web_clients.h
//
// Options of `run` (defaults in brackets): --rounds [5] --count [10000] round trips per run,
// --warmup [2000], --size [64] ping payload, --rate [10000] and --load-size [256] of the load,
// --clients [20], --configs [baseline,foxglove-load,foxglove-all,pages], --pinnings
// [pinned,unpinned], --domain [202], --out [bench/results], --logs [next to the binary].
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

#include "bench_proto/bench_messages.pb.h"
#include "common/bench_common.h"
#include "harness/child_process.h"
#include "tarvikdds/messaging/dds_node.h"
#include "web/web_clients.h"

namespace korvan_bench {
namespace {

using korvan::bench::StampedPayload;
using tarvik::quessa::Node;
using tarvik::quessa::QoS;

std::atomic<bool> g_stop{false};

void OnTerm(int) {
  g_stop = true;
}

void StopOnSignals() {
  struct sigaction action {};
  action.sa_handler = OnTerm;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
}

void Say(const char* line) {
  std::printf("%s\n", line);
  std::fflush(stdout);
}

// Publishes `rate` messages a second in millisecond ticks, until SIGTERM.
int RunLoad(const Options& options) {
  StopOnSignals();
  const std::string topic = options.String("topic", "bench/web/load");
  const double rate = options.Double("rate", 10000);
  auto node = Node::CreateNode("bench_load_" + std::to_string(getpid()), "");
  auto publisher = node->CreatePublisher<StampedPayload>(topic, QoS());
  auto message = std::make_shared<StampedPayload>();
  message->mutable_payload()->assign(static_cast<size_t>(options.Int("size", 256)), 'l');
  if (!WaitUntil([&] { return publisher->MatchedSubscribers() > 0 || g_stop; },
                 std::chrono::seconds(30))) {
    std::fprintf(stderr, "load: no sink matched\n");
    return 3;
  }
  Say("publishing");
  const auto start = Clock::now();
  const int64_t cpu_start = ProcessCpuNs();
  auto next = start;
  uint64_t sent = 0;
  double due = 0;
  while (!g_stop) {
    next += std::chrono::milliseconds(1);
    due += rate / 1000.0;
    for (; static_cast<double>(sent) < due; ++sent)
      publisher->Publish(message);
    std::this_thread::sleep_until(next);
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  ResultLine()
      .Add("role", "load")
      .Add("ok", static_cast<int64_t>(1))
      .Add("sent", sent)
      .Add("seconds", seconds)
      .Add("rate", static_cast<double>(sent) / seconds)
      .Add("cpu_ns", ProcessCpuNs() - cpu_start)
      .Print();
  return 0;
}

// An ordinary subscriber of the load, so that the load crosses the bus.
int RunSink(const Options& options) {
  StopOnSignals();
  std::atomic<uint64_t> received{0};
  std::atomic<int64_t> first_ns{0};
  auto node = Node::CreateNode("bench_sink_" + std::to_string(getpid()), "");
  auto subscriber =
      node->CreateSubscriber<StampedPayload>(options.String("topic", "bench/web/load"), QoS(),
                                             [&](const std::shared_ptr<StampedPayload>&) {
                                               if (received++ == 0)
                                                 first_ns = Clock::now().time_since_epoch().count();
                                             });
  Say("subscribed");
  while (!g_stop)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  subscriber.reset();
  const double seconds =
      first_ns == 0 ? 0
                    : static_cast<double>(Clock::now().time_since_epoch().count() - first_ns) / 1e9;
  ResultLine()
      .Add("role", "sink")
      .Add("ok", static_cast<int64_t>(received > 0))
      .Add("received", received.load())
      .Add("rate", seconds > 0 ? static_cast<double>(received) / seconds : 0.0)
      .Print();
  return 0;
}

// ---------------------------------------------------------------------------------------------
// The comparison

std::string SelfDirectory() {
  char path[PATH_MAX] = {0};
  const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
  const std::string self(path, n > 0 ? static_cast<size_t>(n) : 0);
  return self.substr(0, self.rfind('/'));
}

bool WaitForText(const std::string& path, const std::string& text, Clock::duration limit) {
  return WaitUntil([&] { return ReadFile(path).find(text) != std::string::npos; }, limit);
}

double NumberIn(const std::string& line, const std::string& key) {
  std::smatch match;
  if (!std::regex_search(line, match, std::regex("\"" + key + "\":(-?[0-9.eE+]+)")))
    return 0;
  return std::stod(match[1]);
}

struct Setup {
  std::string self;
  std::string lib;
  std::string korvan;
  std::string logs;
  int64_t count = 10000;
  int64_t warmup = 2000;
  int64_t size = 64;
  double rate = 10000;
  int64_t load_size = 256;
  int64_t clients = 20;
  int64_t domain = 202;
};

// What one run measured.
struct Run {
  bool ok = false;
  std::string error;
  std::vector<int64_t> samples;
  double load_rate = 0;
  double sink_rate = 0;
  double client_rate = 0;  // messages per second per client
  double web_cpu = 0;      // share of one CPU
  uint64_t sent = 0;       // by the server, to all clients
  uint64_t dropped = 0;
};

// A process of the run, on CPU 0 with the measured pair, on CPU 1 away from it, or anywhere.
struct Proc {
  ChildProcess process;
  std::string out, err;
  Clock::time_point started;
};

enum class Place { kMeasured, kAside, kAnywhere };

class Runner {
 public:
  Runner(const Setup& setup, bool pinned, const std::string& tag)
      : setup_(setup), pinned_(pinned), tag_(tag) {}

  Proc* Start(const std::string& name, std::vector<std::string> argv, Place place) {
    auto proc = std::make_unique<Proc>();
    ChildProcess::Command command;
    if (pinned_ && place == Place::kAside)
      argv.insert(argv.begin(), {"taskset", "-c", "1"});
    command.argv = std::move(argv);
    command.pinned = pinned_ && place == Place::kMeasured;
    command.env = {"KORVAN_DOMAIN_ID=" + std::to_string(setup_.domain), "TREVAM_LOG_LEVEL=2"};
    proc->out = setup_.logs + "/" + tag_ + "-" + name + ".out";
    proc->err = setup_.logs + "/" + tag_ + "-" + name + ".err";
    command.out_path = proc->out;
    command.err_path = proc->err;
    proc->started = Clock::now();
    if (!proc->process.Start(command))
      return nullptr;
    procs_.push_back(std::move(proc));
    return procs_.back().get();
  }

  // Ends every process still running, last started first.
  void StopAll() {
    for (auto it = procs_.rbegin(); it != procs_.rend(); ++it) {
      (*it)->process.Terminate();
      (*it)->process.Wait(std::chrono::seconds(10));
    }
  }

 private:
  const Setup& setup_;
  const bool pinned_;
  const std::string tag_;
  std::vector<std::unique_ptr<Proc>> procs_;
};

Run RunOnce(const Setup& s, const std::string& config, bool pinned, int round) {
  Run run;
  const std::string tag = config + (pinned ? "-pinned-" : "-unpinned-") + std::to_string(round);
  std::string prefix = "bench/web/" + std::to_string(getpid()) + "_" + tag + "/";
  std::replace(prefix.begin(), prefix.end(), '-', '_');
  const std::string load_topic = prefix + "load";
  const std::string samples = s.logs + "/" + tag + "-samples.txt";
  Runner runner(s, pinned, tag);
  auto fail = [&](const std::string& why) {
    runner.StopAll();
    run.error = tag + ": " + why;
    return run;
  };

  Proc* sink = runner.Start("sink", {s.self, "sink", "--topic", load_topic}, Place::kAside);
  if (sink == nullptr || !WaitForText(sink->out, "subscribed", std::chrono::seconds(30)))
    return fail("the sink did not start");
  Proc* load = runner.Start("load",
                            {s.self, "load", "--topic", load_topic, "--rate",
                             std::to_string(s.rate), "--size", std::to_string(s.load_size)},
                            Place::kAside);
  if (load == nullptr || !WaitForText(load->out, "publishing", std::chrono::seconds(30)))
    return fail("the load did not start");
  const std::vector<std::string> ping_args = {"--type",         "stamped",
                                              "--size",         std::to_string(s.size),
                                              "--warmup",       std::to_string(s.warmup),
                                              "--topic-prefix", prefix};
  std::vector<std::string> pong_argv = {s.lib, "pong"};
  pong_argv.insert(pong_argv.end(), ping_args.begin(), ping_args.end());
  Proc* pong = runner.Start("pong", pong_argv, Place::kMeasured);
  if (pong == nullptr)
    return fail("pong did not start");

  // The ping waits until every reader of its topic has matched: the pong's, and korvan web's
  // when it reads the topic, so that no measured round trip runs without it.
  int readers = 1;
  Proc* web = nullptr;
  Proc* clients = nullptr;
  if (config != "baseline") {
    web = runner.Start("web", {s.korvan, "web", "--port", "0"}, Place::kAside);
    if (web == nullptr || !WaitForText(web->out, "Ctrl-C stops.", std::chrono::seconds(30)))
      return fail("korvan web did not start");
    std::smatch match;
    const std::string out = ReadFile(web->out);
    if (!std::regex_search(out, match, std::regex("listening on port (\\d+)")))
      return fail("korvan web gave no port");
    std::vector<std::string> argv = {s.self, "clients", "--port", match[1]};
    const std::string n = std::to_string(s.clients);
    if (config == "pages") {
      argv.insert(argv.end(), {"--pages", n, "--select", load_topic});
      readers = 2;  // every topic is read for the statistics
    } else if (config == "foxglove-all") {
      argv.insert(argv.end(), {"--foxglove", n, "--topics",
                               load_topic + "," + prefix + "ping," + prefix + "pong"});
      readers = 2;
    } else {
      argv.insert(argv.end(), {"--foxglove", n, "--topics", load_topic});
    }
    clients = runner.Start("clients", argv, Place::kAside);
    if (clients == nullptr || !WaitForText(clients->out, "ready", std::chrono::seconds(60)))
      return fail("the clients did not get ready");
    std::this_thread::sleep_for(std::chrono::seconds(1));  // matches settle
  }

  std::vector<std::string> ping_argv = {s.lib, "ping"};
  ping_argv.insert(ping_argv.end(), ping_args.begin(), ping_args.end());
  ping_argv.insert(ping_argv.end(), {"--count", std::to_string(s.count), "--samples-out", samples,
                                     "--min-matched", std::to_string(readers)});
  Proc* ping = runner.Start("ping", ping_argv, Place::kMeasured);
  if (ping == nullptr)
    return fail("ping did not start");
  const ChildProcess::Exit ping_exit = ping->process.Wait(std::chrono::seconds(180));
  if (!ping_exit.finished || ping_exit.status != 0)
    return fail("ping failed: " + ReadFile(ping->err));
  pong->process.Wait(std::chrono::seconds(10));

  // The others end now; their result lines say what they did meanwhile.
  ChildProcess::Exit web_exit;
  Clock::time_point web_ended;
  if (clients != nullptr) {
    // The server lists its clients' counts as it stops: it goes first.
    web->process.Terminate();
    web_exit = web->process.Wait(std::chrono::seconds(10));
    web_ended = Clock::now();
    clients->process.Terminate();
    clients->process.Wait(std::chrono::seconds(10));
  }
  load->process.Terminate();
  load->process.Wait(std::chrono::seconds(10));
  sink->process.Terminate();
  sink->process.Wait(std::chrono::seconds(10));
  runner.StopAll();

  run.samples = ReadSamples(samples);
  run.load_rate = NumberIn(LastResultLine(load->out), "rate");
  run.sink_rate = NumberIn(LastResultLine(sink->out), "rate");
  if (clients != nullptr) {
    const std::string line = LastResultLine(clients->out);
    const double seconds = NumberIn(line, "seconds");
    if (seconds > 0)
      run.client_rate = NumberIn(line, "messages") / seconds / static_cast<double>(s.clients);
    const double wall = std::chrono::duration<double>(web_ended - web->started).count();
    run.web_cpu = wall > 0 ? static_cast<double>(web_exit.cpu_ns) / 1e9 / wall : 0;
    std::istringstream err(ReadFile(web->err));
    std::string line_text;
    std::regex counts(": (\\d+) sent, (\\d+) dropped");
    while (std::getline(err, line_text)) {
      std::smatch m;
      if (std::regex_search(line_text, m, counts)) {
        run.sent += std::stoull(m[1]);
        run.dropped += std::stoull(m[2]);
      }
    }
  }
  run.ok = !run.samples.empty();
  if (!run.ok)
    run.error = tag + ": no samples";
  return run;
}

std::string Us(int64_t ns) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.1f", static_cast<double>(ns) / 1000.0);
  return text;
}

std::string Fixed(double value, int digits) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.*f", digits, value);
  return text;
}

std::string Describe(const std::string& config, int64_t clients) {
  const std::string n = std::to_string(clients);
  if (config == "baseline")
    return "load only, no korvan web";
  if (config == "foxglove-load")
    return "korvan web, " + n + " Foxglove clients streaming the load topic";
  if (config == "foxglove-all")
    return "korvan web, " + n + " Foxglove clients streaming load, ping and pong";
  if (config == "pages")
    return "korvan web, " + n + " pages (statistics of every topic, the load topic selected)";
  return config;
}

int RunComparison(const Options& options) {
  Setup s;
  s.self = SelfDirectory() + "/korvan_bench_web";
  s.lib = options.String("lib", SelfDirectory() + "/korvan_bench_lib");
  s.korvan = options.String("korvan", "");
  s.logs = options.String("logs", SelfDirectory() + "/logs");
  s.count = options.Int("count", s.count);
  s.warmup = options.Int("warmup", s.warmup);
  s.size = options.Int("size", s.size);
  s.rate = options.Double("rate", s.rate);
  s.load_size = options.Int("load-size", s.load_size);
  s.clients = options.Int("clients", s.clients);
  s.domain = options.Int("domain", s.domain);
  const int64_t rounds = options.Int("rounds", 5);
  const std::vector<std::string> configs =
      SplitList(options.String("configs", "baseline,foxglove-load,foxglove-all,pages"));
  std::vector<bool> pinnings;
  for (const auto& p : SplitList(options.String("pinnings", "pinned,unpinned")))
    pinnings.push_back(p == "pinned");
  if (s.korvan.empty() || access(s.korvan.c_str(), X_OK) != 0) {
    std::fprintf(stderr, "run: --korvan <path of the korvan tool> is needed\n");
    return 1;
  }
  if (std::thread::hardware_concurrency() < 2)
    pinnings.erase(std::remove(pinnings.begin(), pinnings.end(), true), pinnings.end());
  ::mkdir(s.logs.c_str(), 0755);

  // Pooled over rounds; configurations take turns within a round, in a rotating order, so
  // that a busy spell of the machine falls on all of them alike.
  std::map<std::pair<bool, std::string>, std::vector<Run>> runs;
  for (int64_t round = 0; round < rounds; ++round) {
    for (bool pinned : pinnings) {
      for (size_t k = 0; k < configs.size(); ++k) {
        const std::string& config = configs[(k + static_cast<size_t>(round)) % configs.size()];
        Run run = RunOnce(s, config, pinned, static_cast<int>(round));
        std::fprintf(stderr, "round %" PRId64 " %s %s: %s\n", round, pinned ? "pinned" : "unpinned",
                     config.c_str(),
                     run.ok ? ("median " + Us(Summarise(run.samples).median) + " us").c_str()
                            : run.error.c_str());
        runs[{pinned, config}].push_back(std::move(run));
      }
    }
  }

  std::ostringstream md;
  md << "# korvan web under load\n\n"
     << "Round trip of the bus between two processes (korvan_bench_lib ping/pong, " << s.size
     << " B stamped, " << s.count << " round trips per run after " << s.warmup << " of warm-up, "
     << rounds << " runs pooled) while " << Fixed(s.rate, 0) << " messages/s of " << s.load_size
     << " B flow between two other processes; with and without `korvan web` and " << s.clients
     << " clients. *Pinned*: ping and pong on CPU 0, everything else on CPU 1; "
     << "*unpinned*: the scheduler decides. Goal: median at most 1.05 of the baseline.\n\n"
     << "| setup | pinning | median µs | p90 µs | p99 µs | median / baseline | load msg/s | "
        "msg/s per client | korvan web CPU | server sent | dropped |\n"
     << "|---|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n";
  for (bool pinned : pinnings) {
    int64_t baseline = 0;
    for (const auto& config : configs) {
      std::vector<int64_t> pooled;
      double load = 0, per_client = 0, cpu = 0;
      uint64_t sent = 0, dropped = 0;
      int ok = 0;
      std::string errors;
      for (const Run& r : runs[{pinned, config}]) {
        if (!r.ok) {
          errors += " " + r.error;
          continue;
        }
        ++ok;
        pooled.insert(pooled.end(), r.samples.begin(), r.samples.end());
        load += r.load_rate;
        per_client += r.client_rate;
        cpu += r.web_cpu;
        sent += r.sent;
        dropped += r.dropped;
      }
      if (ok == 0) {
        md << "| " << Describe(config, s.clients) << " | " << (pinned ? "pinned" : "unpinned")
           << " | failed:" << errors << " |||||||||\n";
        continue;
      }
      const Summary sum = Summarise(pooled);
      if (config == "baseline")
        baseline = sum.median;
      const bool web = config != "baseline";
      md << "| " << Describe(config, s.clients) << " | " << (pinned ? "pinned" : "unpinned")
         << " | " << Us(sum.median) << " | " << Us(sum.p90) << " | " << Us(sum.p99) << " | "
         << (baseline > 0
                 ? Fixed(static_cast<double>(sum.median) / static_cast<double>(baseline), 3)
                 : "—")
         << " | " << Fixed(load / ok, 0) << " | " << (web ? Fixed(per_client / ok, 0) : "—")
         << " | " << (web ? Fixed(100 * cpu / ok, 0) + " %" : "—") << " | "
         << (web ? std::to_string(sent) : "—") << " | " << (web ? std::to_string(dropped) : "—")
         << " |\n";
    }
  }
  const std::string out_dir = options.String("out", "bench/results");
  std::ofstream(out_dir + "/web_load.md") << md.str();
  std::printf("%s\nwritten to %s/web_load.md; logs in %s\n", md.str().c_str(), out_dir.c_str(),
              s.logs.c_str());
  return 0;
}

}  // namespace
}  // namespace korvan_bench

int main(int argc, char** argv) {
  using namespace korvan_bench;
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s run|load|sink|clients [--option value]...\n", argv[0]);
    return 1;
  }
  Options options;
  std::string error;
  if (!options.Parse(argc, argv, 2, &error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  const std::string role = argv[1];
  if (role == "run")
    return RunComparison(options);
  if (role == "load")
    return RunLoad(options);
  if (role == "sink")
    return RunSink(options);
  if (role == "clients")
    return RunClients(options);
  std::fprintf(stderr, "unknown role '%s'\n", role.c_str());
  return 1;
}
