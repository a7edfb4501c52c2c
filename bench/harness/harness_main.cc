// korvan_bench: runs every benchmark in one go, so the library and raw Cyclone DDS meet the
// same machine state, and writes latest.json, latest.md and latency.png.
#include <dds/version.h>
#include <rapidjson/document.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "common/bench_common.h"
#include "dds/cyclone_config.h"
#include "harness/child_process.h"
#include "harness/config.h"
#include "harness/ddsperf_output.h"
#include "harness/report.h"

namespace korvan_bench {
namespace {

// Time a child gets beyond what its run should take.
constexpr auto kSlack = std::chrono::seconds(60);

// Fills in where the other programs are and where their output goes.
bool LocateBinaries(Config* c, std::string* bin_dir) {
  char exe[4096];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
  if (n <= 0)
    return false;
  exe[n] = '\0';
  *bin_dir = std::string(exe).substr(0, std::string(exe).rfind('/'));
  if (c->log_dir.empty())
    c->log_dir = *bin_dir + "/logs";
  return true;
}

bool Wants(const Config& c, const char* part) {
  return c.parts.count(part) != 0;
}

// Children see a domain of their own and the bus's defaults, whatever this shell set.
void PrepareEnvironment(const Config& c) {
  setenv("KORVAN_DOMAIN_ID", std::to_string(c.domain).c_str(), 1);
  setenv("TREVAM_LOG_LEVEL", c.log_level.c_str(), 1);
  for (const char* name :
       {"KORVAN_BUS_CONFIG_PATH", "LUMIS_IP", "LUMIS_LOCATOR_IP", "LUMIS_PORT",
        "KORVAN_BUS_TRANSPORT", "KORVAN_MONITORING", "KORVAN_PTP_DEVICE", "CYCLONEDDS_URI"})
    unsetenv(name);
  // The library against raw DDS goes over DDS; the same-host set turns shared memory on.
  setenv("KORVAN_SHARED_MEMORY", "0", 1);
  // Every process, raw and library alike, keeps freed large blocks instead of handing them
  // back to the kernel at once: with glibc's defaults a process that allocates and frees a
  // 1 MiB message on one thread faults in fresh pages for every message.
  setenv("MALLOC_TRIM_THRESHOLD_", "268435456", 0);
  setenv("MALLOC_MMAP_THRESHOLD_", "268435456", 0);
}

std::string Seconds(double s) {
  char buf[32];
  std::snprintf(buf, sizeof(buf), "%g", s);
  return buf;
}

class Harness {
 public:
  Harness(const Config& c, std::string bin_dir) : c_(c), bin_dir_(std::move(bin_dir)) {}

  // One process pair (or one process) for one figure; rounds of the same figure pool their
  // round trips, CPU time and messages, and keep the largest RSS.
  void RunLatency(const std::string& impl, int64_t size, bool pinned, int round) {
    const bool large = size >= kLargePayload;
    const int64_t total = size >= kHugePayload ? std::max<int64_t>(c_.large_count / 4, c_.rounds)
                          : large              ? c_.large_count
                                               : c_.count;
    const int64_t count = (total + c_.rounds - 1) / c_.rounds;
    const int64_t warmup = large ? c_.large_warmup : c_.warmup;
    const bool inline_delivery = impl == kInprocInlineStamped || impl == kInprocInlinePlain;
    const bool in_process = impl == kInprocStamped || impl == kInprocPlain || inline_delivery;
    const std::string tag = Tag("latency", impl, size, pinned) + "_r" + std::to_string(round);
    std::vector<std::string> args = {
        "--size",        std::to_string(size),  "--warmup",       std::to_string(warmup),
        "--count",       std::to_string(count), "--topic-prefix", TopicPrefix(),
        "--samples-out", Path(tag + ".samples")};
    const bool raw = impl == kRaw || impl == kRawInline;
    std::string binary = BinaryOf(impl);
    if (raw) {
      args.push_back("--wake");
      args.push_back(impl == kRaw ? "thread" : "inline");
    } else if (binary == "korvan_bench_lib") {
      args.push_back("--type");
      args.push_back(impl == kLibStamped || impl == kInprocStamped || impl == kInprocInlineStamped
                         ? "stamped"
                         : "plain");
      if (inline_delivery) {
        args.push_back("--delivery");
        args.push_back("inline");
      }
    }
    AddSetArgs(impl, &args);
    if (impl == kSetLibShm)
      args.insert(args.end(), {"--settle-seconds", "10"});
    ChildProcess pong, ping;
    if (!in_process)
      pong.Start(SetEnv(impl, Command(binary, "pong", args, pinned, tag + "_pong")));
    ping.Start(
        SetEnv(impl, Command(binary, in_process ? "inproc" : "ping", args, pinned, tag + "_ping")));
    ping.Wait(kSlack + std::chrono::seconds(count / 50));
    if (!in_process)
      pong.Wait(std::chrono::seconds(20));

    LatencyRun& run = LatencyFigure(impl, size, pinned);
    rapidjson::Document p = ReadResult(tag + "_ping");
    const bool ok = p.IsObject() && p.HasMember("ok") && p["ok"].GetInt64() == 1;
    std::vector<int64_t> samples = ReadSamples(Path(tag + ".samples"));
    if (ok) {
      run.retries += p["retries"].GetInt64();
      Add(&run.ping, p, samples.size());
      std::vector<int64_t>& pooled = samples_[&run];
      pooled.insert(pooled.end(), samples.begin(), samples.end());
      run.latency = Summarise(pooled);
    }
    run.ok = (round == 0 || run.ok) && ok && !samples.empty();
    if (!in_process) {
      rapidjson::Document q = ReadResult(tag + "_pong");
      if (q.IsObject() && q.HasMember("replies")) {
        Add(&run.pong, q, q["replies"].GetUint64());
      } else {
        std::fprintf(stderr, "  (no figures from the replying process; see %s_pong.err)\n",
                     tag.c_str());
      }
    }
    Progress("latency", ok, impl, size, pinned,
             "median " + Micros(static_cast<double>(Summarise(samples).median)) + " us over " +
                 std::to_string(samples.size()) + " round trips, round " +
                 std::to_string(round + 1) + "/" + std::to_string(c_.rounds) +
                 (p.IsObject() && p.HasMember("retries") && p["retries"].GetInt64() > 0
                      ? ", pings sent again"
                      : ""));
  }

  void RunThroughput(const std::string& impl, int64_t size, int round) {
    const std::string tag = Tag("throughput", impl, size, false) + "_r" + std::to_string(round);
    // Shared memory takes over from DDS within the first tenths of a second: the window
    // starts after that.
    // The receiver's window opens a second before the sender's ends its warm-up, whenever the
    // first message came.
    const double warmup = impl == kSetLibShm ? std::max(c_.warmup_seconds, 2.5) : c_.warmup_seconds;
    const double sub_warmup = impl == kSetLibShm ? warmup - 1.0 : warmup;
    std::vector<std::string> args = {"--size",         std::to_string(size),
                                     "--seconds",      Seconds(c_.seconds),
                                     "--topic-prefix", TopicPrefix()};
    const std::string binary = BinaryOf(impl);
    if (binary == "korvan_bench_lib") {
      args.push_back("--type");
      args.push_back(impl == kLibStamped ? "stamped" : "plain");
    }
    AddSetArgs(impl, &args);
    std::vector<std::string> sub_args = args;
    sub_args.insert(sub_args.end(), {"--warmup-seconds", Seconds(sub_warmup)});
    args.insert(args.end(), {"--warmup-seconds", Seconds(warmup)});
    ChildProcess sub, pub;
    sub.Start(SetEnv(impl, Command(binary, "sub", sub_args, false, tag + "_sub")));
    pub.Start(SetEnv(impl, Command(binary, "pub", args, false, tag + "_pub")));
    const auto expected = std::chrono::duration<double>(c_.seconds + warmup);
    pub.Wait(kSlack + std::chrono::duration_cast<std::chrono::seconds>(expected));
    sub.Wait(std::chrono::seconds(30));

    ThroughputRun& run = ThroughputFigure(impl, size);
    Totals& totals = totals_[&run];
    rapidjson::Document p = ReadResult(tag + "_pub");
    rapidjson::Document s = ReadResult(tag + "_sub");
    if (p.IsObject() && p.HasMember("sent")) {
      run.sent += p["sent"].GetUint64();
      Add(&run.pub, p, p["sent"].GetUint64());
    }
    bool ok = false;
    double rate = 0;
    if (s.IsObject() && s.HasMember("messages")) {
      const uint64_t messages = s["messages"].GetUint64();
      const double seconds = s["seconds"].GetDouble();
      ok = s["ok"].GetInt64() == 1 && seconds > 0;
      if (ok) {
        totals.messages += messages;
        totals.bytes += s["bytes"].GetUint64();
        totals.seconds += seconds;
        rate = static_cast<double>(messages) / seconds;
      }
      run.lost += s["lost"].GetUint64();
      Add(&run.sub, s, messages);
    }
    run.ok = (round == 0 || run.ok) && ok;
    if (totals.seconds > 0) {
      run.messages_per_s = static_cast<double>(totals.messages) / totals.seconds;
      run.megabytes_per_s = static_cast<double>(totals.bytes) / totals.seconds / 1e6;
    }
    char text[128];
    std::snprintf(text, sizeof(text), "%.0f messages/s, %llu lost, round %d/%d", rate,
                  static_cast<unsigned long long>(
                      s.IsObject() && s.HasMember("lost") ? s["lost"].GetUint64() : 0),
                  round + 1, static_cast<int>(c_.throughput_rounds));
    Progress("throughput", ok, impl, size, false, text);
  }

  void RunDdsperfLatency(int64_t size, bool pinned) {
    const std::string tag = Tag("latency", kDdsperf, size, pinned);
    const std::string domain = std::to_string(c_.domain);
    ChildProcess pong, ping;
    pong.Start(DdsperfCommand({"-i", domain, "pong", "waitset"}, pinned, tag + "_pong"));
    ping.Start(DdsperfCommand({"-i", domain, "-D", Seconds(c_.ddsperf_seconds), "ping", "size",
                               std::to_string(size), "waitset"},
                              pinned, tag + "_ping"));
    const ChildProcess::Exit pe =
        ping.Wait(kSlack + std::chrono::seconds(static_cast<int64_t>(c_.ddsperf_seconds)));
    pong.Terminate();
    const ChildProcess::Exit qe = pong.Wait(std::chrono::seconds(10));
    LatencyRun run;
    run.impl = kDdsperf;
    run.pinned = pinned;
    run.size = size;
    run.latency = ParseDdsperfPing(ReadFile(Path(tag + "_ping.out")));
    run.ok = pe.finished && run.latency.count > 0;
    run.ping.present = run.pong.present = true;
    run.ping.peak_rss_kib = pe.peak_rss_kib;
    run.pong.peak_rss_kib = qe.peak_rss_kib;
    Progress("latency", run.ok, kDdsperf, size, pinned,
             "median " + Micros(static_cast<double>(run.latency.median)) + " us (approx.) over " +
                 std::to_string(run.latency.count) + " round trips");
    report_.latency.push_back(run);
  }

  void RunDdsperfThroughput(int64_t size) {
    const std::string tag = Tag("throughput", kDdsperf, size, false);
    const std::string domain = std::to_string(c_.domain);
    ChildProcess sub, pub;
    sub.Start(DdsperfCommand({"-i", domain, "-k", "all", "sub", "waitset"}, false, tag + "_sub"));
    pub.Start(DdsperfCommand({"-i", domain, "-k", "all", "-D", Seconds(c_.ddsperf_seconds), "pub",
                              "size", std::to_string(size)},
                             false, tag + "_pub"));
    const ChildProcess::Exit pe =
        pub.Wait(kSlack + std::chrono::seconds(static_cast<int64_t>(c_.ddsperf_seconds)));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    sub.Terminate();
    const ChildProcess::Exit se = sub.Wait(std::chrono::seconds(10));
    ThroughputRun run;
    run.impl = kDdsperf;
    run.size = size;
    const DdsperfRate rate = ParseDdsperfSub(ReadFile(Path(tag + "_sub.out")));
    run.ok = pe.finished && rate.ok;
    run.messages_per_s = rate.messages_per_s;
    run.megabytes_per_s = rate.messages_per_s * static_cast<double>(size) / 1e6;
    run.lost = rate.lost;
    run.pub.present = run.sub.present = true;
    run.pub.peak_rss_kib = pe.peak_rss_kib;
    run.sub.peak_rss_kib = se.peak_rss_kib;
    char text[96];
    std::snprintf(text, sizeof(text), "%.0f messages/s", run.messages_per_s);
    Progress("throughput", run.ok, kDdsperf, size, false, text);
    report_.throughput.push_back(run);
  }

  void RunMicro() {
    const std::string json = Path("micro.json");
    ChildProcess micro;
    ChildProcess::Command command;
    command.argv = {bin_dir_ + "/korvan_bench_micro", "--benchmark_out=" + json,
                    "--benchmark_out_format=json",
                    "--benchmark_min_time=" + Seconds(c_.micro_min_time)};
    command.out_path = Path("micro.out");
    command.err_path = Path("micro.err");
    std::fprintf(stderr, "[micro] running the micro-benchmarks\n");
    micro.Start(command);
    const ChildProcess::Exit e = micro.Wait(std::chrono::seconds(600));
    rapidjson::Document d;
    d.Parse(ReadFile(json).c_str());
    if (!e.finished || e.status != 0 || !d.IsObject() || !d.HasMember("benchmarks")) {
      std::fprintf(stderr, "[micro] FAILED (see %s)\n", command.err_path.c_str());
      return;
    }
    for (const auto& b : d["benchmarks"].GetArray()) {
      if (b.HasMember("run_type") && std::string(b["run_type"].GetString()) != "iteration")
        continue;
      MicroResult m;
      m.name = b["name"].GetString();
      const std::string unit = b.HasMember("time_unit") ? b["time_unit"].GetString() : "ns";
      const double scale = unit == "us" ? 1e3 : unit == "ms" ? 1e6 : unit == "s" ? 1e9 : 1;
      m.ns_per_op = b["real_time"].GetDouble() * scale;
      if (b.HasMember("bytes_per_second"))
        m.bytes_per_second = b["bytes_per_second"].GetDouble();
      report_.micro.push_back(m);
    }
  }

  // iceoryx's daemon, for Cyclone's shared-memory mode and iceoryx's own figures, with memory
  // pools up to the largest payload of the set. False when it does not come up.
  bool StartRoudi() {
    const std::string config = Path("roudi.toml");
    std::string toml = "[general]\nversion = 1\n\n[[segment]]\n";
    // Chunk sizes (payload and headroom for the chunk and serialisation headers) and counts.
    const std::pair<int64_t, int> pools[] = {{1024, 4000},
                                             {16 << 10, 1000},
                                             {128 << 10, 400},
                                             {(1 << 20) + 65536, 96},
                                             {(4 << 20) + 65536, 48},
                                             {(16 << 20) + 65536, 24}};
    for (const auto& pool : pools) {
      toml += "\n[[segment.mempool]]\nsize = " + std::to_string(pool.first) +
              "\ncount = " + std::to_string(pool.second) + "\n";
    }
    WriteFile(config, toml);
    ChildProcess::Command command;
    command.argv = {"iox-roudi", "-c", config, "-l", "warning"};
    command.out_path = Path("roudi.out");
    command.err_path = Path("roudi.err");
    roudi_.Start(command);
    struct stat st;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
      if (stat("/dev/shm/iceoryx_mgmt", &st) == 0)
        return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    std::fprintf(stderr, "[shm] iox-roudi did not start (see %s)\n", command.err_path.c_str());
    return false;
  }
  void StopRoudi() {
    roudi_.Terminate();
    roudi_.Wait(std::chrono::seconds(20));
  }

  Report& report() { return report_; }
  std::string Path(const std::string& name) const { return c_.log_dir + "/" + name; }

 private:
  static std::string BinaryOf(const std::string& impl) {
    if (impl == kRaw || impl == kRawInline || impl == kSetRawUdp || impl == kSetCycloneShm)
      return "korvan_bench_raw";
    if (impl == kSetIceoryx)
      return "korvan_bench_iox";
    return "korvan_bench_lib";
  }

  static void AddSetArgs(const std::string& impl, std::vector<std::string>* args) {
    if (impl == kSetLibShm) {
      args->insert(args->end(), {"--type", "plain"});
    } else if (impl == kSetRawUdp) {
      args->insert(args->end(), {"--wake", "thread"});
    } else if (impl == kSetCycloneShm) {
      args->insert(args->end(), {"--wake", "thread", "--shm"});
    }
  }

  static ChildProcess::Command SetEnv(const std::string& impl, ChildProcess::Command command) {
    if (impl == kSetLibShm)
      command.env.push_back("KORVAN_SHARED_MEMORY=1");
    return command;
  }

  static void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
  }

  ChildProcess::Command Command(const std::string& binary, const std::string& role,
                                const std::vector<std::string>& args, bool pinned,
                                const std::string& name) const {
    ChildProcess::Command command;
    command.argv = {bin_dir_ + "/" + binary, role};
    command.argv.insert(command.argv.end(), args.begin(), args.end());
    command.pinned = pinned;
    command.out_path = Path(name + ".out");
    command.err_path = Path(name + ".err");
    return command;
  }

  ChildProcess::Command DdsperfCommand(const std::vector<std::string>& args, bool pinned,
                                       const std::string& name) const {
    ChildProcess::Command command;
    command.argv = {"ddsperf"};
    command.argv.insert(command.argv.end(), args.begin(), args.end());
    command.env = {"CYCLONEDDS_URI=" + CycloneXml()};
    command.pinned = pinned;
    command.out_path = Path(name + ".out");
    command.err_path = Path(name + ".err");
    return command;
  }

  // The configuration the bus gives Cyclone, for the external baseline too.
  static std::string CycloneXml() {
    return tarvik::korvan::bus::MakeCycloneSettings(tarvik::korvan::bus::LumisConfig()).xml;
  }

  // Topics of their own for every run: a straggler of an earlier run cannot answer.
  std::string TopicPrefix() {
    return "bench/" + std::to_string(getpid()) + "_" + std::to_string(++serial_) + "/";
  }

  std::string Tag(const char* what, const std::string& impl, int64_t size, bool pinned) const {
    return std::string(what) + "_" + impl + "_" + std::to_string(size) +
           (pinned ? "_pinned" : "_unpinned");
  }

  rapidjson::Document ReadResult(const std::string& name) const {
    rapidjson::Document d;
    const std::string line = LastResultLine(Path(name + ".out"));
    d.Parse(line.c_str());
    if (d.HasParseError() || !d.IsObject())
      d.SetNull();
    return d;
  }

  // Adds one process's figures to those of earlier rounds.
  static void Add(ProcessFigures* f, const rapidjson::Document& d, uint64_t messages) {
    if (!d.IsObject() || !d.HasMember("cpu_ns") || !d.HasMember("peak_rss_kib"))
      return;
    f->present = true;
    f->cpu_ns += d["cpu_ns"].GetInt64();
    f->messages += messages;
    f->peak_rss_kib = std::max<int64_t>(f->peak_rss_kib, d["peak_rss_kib"].GetInt64());
  }

  LatencyRun& LatencyFigure(const std::string& impl, int64_t size, bool pinned) {
    for (auto& run : report_.latency) {
      if (run.impl == impl && run.size == size && run.pinned == pinned)
        return run;
    }
    LatencyRun run;
    run.impl = impl;
    run.size = size;
    run.pinned = pinned;
    report_.latency.push_back(run);
    return report_.latency.back();
  }

  ThroughputRun& ThroughputFigure(const std::string& impl, int64_t size) {
    for (auto& run : report_.throughput) {
      if (run.impl == impl && run.size == size)
        return run;
    }
    ThroughputRun run;
    run.impl = impl;
    run.size = size;
    report_.throughput.push_back(run);
    return report_.throughput.back();
  }

  void Progress(const char* what, bool ok, const std::string& impl, int64_t size, bool pinned,
                const std::string& text) const {
    std::fprintf(stderr, "[%s] %-15s %7s %-8s %s%s\n", what, impl.c_str(), SizeLabel(size).c_str(),
                 pinned ? "pinned" : "", ok ? "" : "FAILED ", text.c_str());
  }

  struct Totals {
    uint64_t messages = 0;
    uint64_t bytes = 0;
    double seconds = 0;
  };

  const Config& c_;
  const std::string bin_dir_;
  Report report_;
  int serial_ = 0;
  // Keyed by the figure (the report's deques keep figures in place).
  std::map<const LatencyRun*, std::vector<int64_t>> samples_;
  std::map<const ThroughputRun*, Totals> totals_;
  ChildProcess roudi_;
};

std::string CpuModel() {
  std::ifstream in("/proc/cpuinfo");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("model name", 0) == 0) {
      const size_t colon = line.find(':');
      if (colon != std::string::npos)
        return line.substr(colon + 2);
    }
  }
  return "unknown";
}

void Describe(const Config& c, Report* r) {
  char date[64];
  const std::time_t now = std::time(nullptr);
  std::strftime(date, sizeof(date), "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
  utsname u{};
  uname(&u);
  r->meta["date"] = date;
  r->meta["machine"] = CpuModel() + ", " + std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) +
                       " CPUs, Linux " + u.release;
  r->meta["cyclone dds"] = DDS_VERSION;
  r->meta["mode"] = c.quick ? "quick" : "full";
  r->meta["round trips"] =
      std::to_string(c.count) + " (" + std::to_string(c.large_count) + " from " +
      SizeLabel(kLargePayload) + ") pooled from " + std::to_string(c.rounds) +
      " process pairs per figure, each after " + std::to_string(c.warmup) + " (" +
      std::to_string(c.large_warmup) +
      ") of warm-up; the figures' rounds take turns; reliable, keep-last 10, volatile; one ping "
      "in flight, the next sent from the reply's callback";
  r->meta["throughput"] = std::to_string(c.throughput_rounds) + " rounds of " + Seconds(c.seconds) +
                          " s after " + Seconds(c.warmup_seconds) +
                          " s of warm-up, sender as fast as it can; reliable, keep-all, "
                          "volatile; rate as delivered to the receiver";
  r->meta["raw DDS"] =
      "the bus's envelope type, Cyclone configuration and QoS; a data-available listener "
      "wakes one thread per reader, which takes loaned samples (the bus's shape); 'reply in "
      "listener' takes and replies on Cyclone's receive thread instead (no hand-over)";
  r->meta["ddsperf"] = "its KS topic, waitset mode, " + Seconds(c.ddsperf_seconds) +
                       " s per figure; percentiles are its per-second figures averaged; its "
                       "publisher batches samples into datagrams, which the bus does only for "
                       "topics configured with write_batching";
  r->meta["in-process"] =
      "both ends in one process, a node each, over the library's in-process path; the CPU and "
      "RSS figures of that one process appear under ping";
  r->meta["payload"] =
      "bytes field of the message (library) or envelope payload (raw); first 8 bytes carry a "
      "sequence number";
}

bool WriteText(const std::string& path, const std::string& text) {
  std::ofstream out(path);
  out << text;
  return static_cast<bool>(out);
}

int Main(int argc, char** argv) {
  Config c;
  std::string error;
  if (!ParseConfig(argc, argv, &c, &error)) {
    std::fprintf(stderr, "korvan_bench: %s\n%s", error.c_str(), kUsage);
    return 1;
  }
  if (c.help) {
    std::printf("%s", kUsage);
    return 0;
  }
  std::string bin_dir;
  if (!LocateBinaries(&c, &bin_dir))
    return 1;
  PrepareEnvironment(c);
  mkdir(c.log_dir.c_str(), 0755);
  mkdir(c.out_dir.c_str(), 0755);
  Harness h(c, bin_dir);
  Report& r = h.report();
  r.sizes = c.sizes;
  Describe(c, &r);

  // Raw and library in turn for each figure, round after round, so that a change of machine
  // load hits all of them.
  if (Wants(c, "latency") || Wants(c, "ddsperf")) {
    for (bool pinned : c.pinnings) {
      for (int64_t size : c.sizes) {
        for (int round = 0; Wants(c, "latency") && round < c.rounds; ++round) {
          for (const char* impl : {kRaw, kLibStamped, kLibPlain, kInprocStamped, kInprocPlain,
                                   kInprocInlineStamped, kInprocInlinePlain, kRawInline})

            h.RunLatency(impl, size, pinned, round);
        }
        if (Wants(c, "ddsperf"))
          h.RunDdsperfLatency(size, pinned);
      }
    }
  }
  if (Wants(c, "throughput") || Wants(c, "ddsperf")) {
    for (int64_t size : c.sizes) {
      for (int round = 0; Wants(c, "throughput") && round < c.throughput_rounds; ++round) {
        for (const char* impl : {kRaw, kLibStamped, kLibPlain})
          h.RunThroughput(impl, size, round);
      }
      if (Wants(c, "ddsperf"))
        h.RunDdsperfThroughput(size);
    }
  }
  if (Wants(c, "shm")) {
    r.shm_sizes = c.shm_sizes;
    const bool roudi = h.StartRoudi();
    std::vector<const char*> impls;
    for (const char* impl : kSetImpls) {
      if (roudi || (impl != std::string(kSetCycloneShm) && impl != std::string(kSetIceoryx)))
        impls.push_back(impl);
    }
    for (bool pinned : c.pinnings) {
      for (int64_t size : c.shm_sizes) {
        for (int round = 0; round < c.rounds; ++round) {
          for (const char* impl : impls)
            h.RunLatency(impl, size, pinned, round);
        }
      }
    }
    for (int64_t size : c.shm_sizes) {
      for (int round = 0; round < c.throughput_rounds; ++round) {
        for (const char* impl : impls)
          h.RunThroughput(impl, size, round);
      }
    }
    if (roudi)
      h.StopRoudi();
  }
  if (Wants(c, "micro"))
    h.RunMicro();

  const std::string markdown = ToMarkdown(r);
  bool written = WriteText(c.out_dir + "/latest.json", ToJson(r)) &&
                 WriteText(c.out_dir + "/latest.md", markdown);
  if (!r.latency.empty()) {
    const std::string unpinned = h.Path("latency_unpinned.dat");
    const std::string pinned = h.Path("latency_pinned.dat");
    const std::string script = h.Path("latency.gnuplot");
    WriteText(unpinned, PlotData(r, false));
    WriteText(pinned, PlotData(r, true));
    WriteText(script, PlotScript(r, unpinned, pinned, c.out_dir + "/latency.png"));
    ChildProcess gnuplot;
    ChildProcess::Command command;
    command.argv = {"gnuplot", script};
    command.out_path = h.Path("gnuplot.out");
    command.err_path = h.Path("gnuplot.err");
    gnuplot.Start(command);
    const ChildProcess::Exit e = gnuplot.Wait(std::chrono::seconds(60));
    if (!e.finished || e.status != 0)
      std::fprintf(stderr, "gnuplot failed: see %s\n", command.err_path.c_str());
  }
  if (!r.shm_sizes.empty()) {
    const std::string unpinned = h.Path("shm_latency_unpinned.dat");
    const std::string pinned = h.Path("shm_latency_pinned.dat");
    const std::string script = h.Path("shm_latency.gnuplot");
    WriteText(unpinned, ShmPlotData(r, false));
    WriteText(pinned, ShmPlotData(r, true));
    WriteText(script, ShmPlotScript(r, unpinned, pinned, c.out_dir + "/shm_latency.png"));
    ChildProcess gnuplot;
    ChildProcess::Command command;
    command.argv = {"gnuplot", script};
    command.out_path = h.Path("shm_gnuplot.out");
    command.err_path = h.Path("shm_gnuplot.err");
    gnuplot.Start(command);
    const ChildProcess::Exit e = gnuplot.Wait(std::chrono::seconds(60));
    if (!e.finished || e.status != 0)
      std::fprintf(stderr, "gnuplot failed: see %s\n", command.err_path.c_str());
  }
  std::printf("%s", markdown.c_str());
  if (!written) {
    std::fprintf(stderr, "cannot write the results into %s\n", c.out_dir.c_str());
    return 1;
  }
  return 0;
}

}  // namespace
}  // namespace korvan_bench

int main(int argc, char** argv) {
  return korvan_bench::Main(argc, argv);
}
