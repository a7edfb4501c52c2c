// The harness's own arithmetic and parsing: a wrong percentile or a misread baseline would
// make every reported ratio wrong without any visible failure.
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <unistd.h>

#include <cstdio>
#include <deque>
#include <numeric>
#include <set>
#include <thread>

#include "common/bench_common.h"
#include "harness/child_process.h"
#include "harness/config.h"
#include "harness/ddsperf_output.h"
#include "harness/report.h"

namespace korvan_bench {
namespace {

std::vector<int64_t> Range(int64_t from, int64_t to) {
  std::vector<int64_t> v(static_cast<size_t>(to - from + 1));
  std::iota(v.begin(), v.end(), from);
  return v;
}

TEST(Statistics, NearestRankPercentilesOfOneToHundred) {
  std::vector<int64_t> v = Range(1, 100);
  std::reverse(v.begin(), v.end());  // Summarise sorts
  Summary s = Summarise(v);
  EXPECT_EQ(s.count, 100u);
  EXPECT_EQ(s.min, 1);
  EXPECT_EQ(s.median, 50);
  EXPECT_EQ(s.p90, 90);
  EXPECT_EQ(s.p99, 99);
  EXPECT_EQ(s.max, 100);
  EXPECT_DOUBLE_EQ(s.mean, 50.5);
}

TEST(Statistics, SmallAndOddSets) {
  EXPECT_EQ(Percentile({7}, 50), 7);
  EXPECT_EQ(Percentile({7}, 99), 7);
  EXPECT_EQ(Percentile({1, 2}, 50), 1);
  EXPECT_EQ(Percentile({1, 2}, 51), 2);
  EXPECT_EQ(Percentile({1, 2, 3}, 50), 2);
  EXPECT_EQ(Percentile(Range(1, 10), 99), 10);  // p99 of ten samples is the largest
  EXPECT_EQ(Percentile(Range(1, 10), 0), 1);
  EXPECT_EQ(Percentile(Range(1, 10), 100), 10);
  EXPECT_EQ(Percentile({}, 50), 0);
  EXPECT_EQ(Summarise({}).count, 0u);
}

TEST(Statistics, OutlierMovesMaxAndP99OnlyWhenFrequentEnough) {
  std::vector<int64_t> v(1000, 10);
  v[3] = 100000;
  Summary s = Summarise(v);
  EXPECT_EQ(s.median, 10);
  EXPECT_EQ(s.p99, 10);
  EXPECT_EQ(s.max, 100000);
  for (int i = 0; i < 11; ++i)
    v[static_cast<size_t>(i)] = 5000;
  EXPECT_EQ(Summarise(v).p99, 5000);
}

TEST(Payload, SequenceRoundTripsAndShortPayloadsAreNoSequence) {
  unsigned char buf[16] = {};
  PutSeq(buf, 0x0102030405060708ull);
  EXPECT_EQ(GetSeq(buf, sizeof(buf)), 0x0102030405060708ull);
  PutSeq(buf, kStopSeq);
  EXPECT_EQ(GetSeq(buf, 8), kStopSeq);
  EXPECT_NE(GetSeq(buf, 7), kStopSeq);
  EXPECT_NE(GetSeq(nullptr, 8), kStopSeq);
}

TEST(Samples, SurviveTheFileBetweenProcesses) {
  const std::string path = std::string(testing::TempDir()) + "/samples.txt";
  ASSERT_TRUE(WriteSamples(path, {5, 123456789012, 0, 7}));
  EXPECT_EQ(ReadSamples(path), (std::vector<int64_t>{5, 123456789012, 0, 7}));
  EXPECT_TRUE(ReadSamples(path + ".missing").empty());
}

TEST(Options, KeyValuePairsEqualsFormAndFlags) {
  const char* args[] = {"prog", "ping", "--size", "4096", "--quick", "--ratio=0.5", "--n", "-3"};
  Options o;
  std::string error;
  ASSERT_TRUE(o.Parse(8, const_cast<char**>(args), 2, &error)) << error;
  EXPECT_EQ(o.Int("size", 0), 4096);
  EXPECT_TRUE(o.Has("quick"));
  EXPECT_DOUBLE_EQ(o.Double("ratio", 0), 0.5);
  EXPECT_EQ(o.Int("n", 0), -3);
  EXPECT_EQ(o.Int("absent", 17), 17);
  EXPECT_EQ(o.Int("quick", 17), 17);  // a flag has no number
}

TEST(Options, RejectsStrayArgumentsAndBadNumbers) {
  const char* args[] = {"prog", "stray"};
  Options o;
  std::string error;
  EXPECT_FALSE(o.Parse(2, const_cast<char**>(args), 1, &error));
  int64_t v;
  EXPECT_FALSE(ParseInt("12x", &v));
  EXPECT_FALSE(ParseInt("", &v));
  EXPECT_FALSE(ParseInt("99999999999999999999", &v));
  double d;
  EXPECT_FALSE(ParseDouble("nan", &d));
  EXPECT_FALSE(ParseDouble("1.5s", &d));
}

// Echoes pings back on a thread of its own, the way a remote end would; can drop or
// duplicate replies.
class Echo {
 public:
  Echo(PingDriver** driver, int drop_first, bool duplicate)
      : driver_(driver), drop_(drop_first), duplicate_(duplicate), thread_([this] { Run(); }) {}
  ~Echo() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    cv_.notify_one();
    thread_.join();
  }
  bool Send(uint64_t seq) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ++sent_;
      if (drop_ > 0) {
        --drop_;
        return true;
      }
      queue_.push_back(seq);
      if (duplicate_)
        queue_.push_back(seq);
    }
    cv_.notify_one();
    return true;
  }
  int sent() {
    std::lock_guard<std::mutex> lock(mutex_);
    return sent_;
  }

 private:
  void Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      cv_.wait(lock, [this] { return stop_ || !queue_.empty(); });
      if (stop_)
        return;
      uint64_t seq = queue_.front();
      queue_.pop_front();
      lock.unlock();
      (*driver_)->OnReply(seq);
      lock.lock();
    }
  }

  PingDriver** driver_;
  int drop_;
  bool duplicate_;
  std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<uint64_t> queue_;
  bool stop_ = false;
  int sent_ = 0;
  std::thread thread_;
};

bool Parse(std::vector<const char*> args, Config* c, std::string* error) {
  args.insert(args.begin(), "korvan_bench");
  return ParseConfig(static_cast<int>(args.size()), const_cast<char**>(args.data()), c, error);
}

TEST(Config, QuickComesFirstAndExplicitOptionsWin) {
  Config c;
  std::string error;
  ASSERT_TRUE(Parse({"--count", "77", "--quick", "--sizes", "64,1048576"}, &c, &error)) << error;
  EXPECT_TRUE(c.quick);
  EXPECT_EQ(c.count, 77);
  EXPECT_EQ(c.warmup, 200);  // quick's
  EXPECT_EQ(c.sizes, (std::vector<int64_t>{64, 1048576}));
  EXPECT_EQ(c.pinnings, (std::vector<bool>{false, true}));
  EXPECT_EQ(c.parts.size(), 5u);  // latency, throughput, ddsperf, shm, micro
}

TEST(Config, DefaultsAreTheFullRun) {
  Config c;
  std::string error;
  ASSERT_TRUE(Parse({}, &c, &error)) << error;
  EXPECT_FALSE(c.quick);
  EXPECT_EQ(c.count, 10000);
  EXPECT_EQ(c.large_count, 1000);
  EXPECT_EQ(c.domain, 201);
  EXPECT_EQ(c.sizes, (std::vector<int64_t>{64, 4096, 65536, 1048576}));
}

TEST(Config, ListsAreChecked) {
  Config c;
  std::string error;
  ASSERT_TRUE(Parse({"--only", "latency,micro", "--pinning", "pinned"}, &c, &error)) << error;
  EXPECT_EQ(c.parts, (std::set<std::string>{"latency", "micro"}));
  EXPECT_EQ(c.pinnings, (std::vector<bool>{true}));
  EXPECT_FALSE(Parse({"--only", "latency,speed"}, &c, &error));
  EXPECT_NE(error.find("speed"), std::string::npos);
  EXPECT_FALSE(Parse({"--pinning", "both"}, &c, &error));
  EXPECT_FALSE(Parse({"--sizes", "4"}, &c, &error));  // no room for the sequence number
  EXPECT_FALSE(Parse({"--sizes", ","}, &c, &error));
}

TEST(Config, NumbersOutOfRangeOrMalformedAreRefused) {
  Config c;
  std::string error;
  EXPECT_FALSE(Parse({"--count", "0"}, &c, &error));
  EXPECT_FALSE(Parse({"--count", "ten"}, &c, &error));
  EXPECT_NE(error.find("--count"), std::string::npos);
  EXPECT_FALSE(Parse({"--domain", "233"}, &c, &error));
  EXPECT_FALSE(Parse({"--rounds", "0"}, &c, &error));
  EXPECT_FALSE(Parse({"--seconds", "0"}, &c, &error));
  EXPECT_FALSE(Parse({"--seconds"}, &c, &error));  // a value is missing
  EXPECT_TRUE(Parse({"--warmup", "0", "--domain", "0"}, &c, &error)) << error;
  EXPECT_TRUE(Parse({"--help"}, &c, &error));
  EXPECT_TRUE(c.help);
}

TEST(PingDriver, MeasuresOnlyRoundTripsAfterTheWarmUp) {
  PingDriver* driver = nullptr;
  Echo echo(&driver, 0, false);
  PingDriver d(3, 5, [&](uint64_t seq) { return echo.Send(seq); });
  driver = &d;
  ASSERT_TRUE(d.Run(std::chrono::seconds(60)));
  EXPECT_EQ(d.samples().size(), 5u);
  EXPECT_EQ(d.retries(), 0u);
  EXPECT_EQ(echo.sent(), 8);
  for (int64_t s : d.samples())
    EXPECT_GE(s, 0);
}

TEST(PingDriver, SendsALostPingAgainAndIgnoresDuplicateReplies) {
  PingDriver* driver = nullptr;
  Echo echo(&driver, 1, true);
  PingDriver d(2, 4, [&](uint64_t seq) { return echo.Send(seq); });
  driver = &d;
  ASSERT_TRUE(d.Run(std::chrono::seconds(60)));
  EXPECT_EQ(d.samples().size(), 4u);
  EXPECT_GE(d.retries(), 1u);
}

TEST(PingDriver, GivesUpAtTheLimitWhenNothingComesBack) {
  PingDriver d(0, 3, [](uint64_t) { return true; });
  EXPECT_FALSE(d.Run(std::chrono::milliseconds(1)));
  EXPECT_TRUE(d.samples().empty());
}

TEST(PongCounter, CountsMeasuredRepliesAndStopsOnTheStopMessage) {
  PongCounter c(2);
  EXPECT_TRUE(c.OnPing(0));
  EXPECT_TRUE(c.OnPing(1));
  EXPECT_EQ(c.replies(), 0u);
  EXPECT_TRUE(c.OnPing(2));
  EXPECT_TRUE(c.OnPing(2));  // a ping sent again is answered again
  EXPECT_TRUE(c.OnPing(3));
  EXPECT_FALSE(c.OnPing(kStopSeq));
  EXPECT_TRUE(c.WaitForStop(std::chrono::seconds(0)));
  EXPECT_EQ(c.replies(), 3u);
  EXPECT_FALSE(c.OnPing(4));  // nothing after the stop
}

TEST(ThroughputSink, CountsTheWindowAndTheGaps) {
  ThroughputSink sink(Clock::duration::zero());
  sink.OnMessage(0, 100);  // opens the window
  sink.OnMessage(1, 100);
  sink.OnMessage(2, 100);
  sink.OnMessage(5, 100);  // 3 and 4 lost
  sink.OnMessage(4, 100);  // late, not a new gap
  EXPECT_FALSE(sink.WaitForStop(std::chrono::seconds(0)));
  sink.OnMessage(kStopSeq, 100);
  ASSERT_TRUE(sink.WaitForStop(std::chrono::seconds(0)));
  ThroughputSink::Result r = sink.result();
  EXPECT_EQ(r.received, 5u);
  EXPECT_EQ(r.messages, 4u);
  EXPECT_EQ(r.bytes, 400u);
  EXPECT_EQ(r.lost, 2u);
  EXPECT_GE(r.seconds, 0);
}

TEST(ThroughputSink, NothingCountsBeforeTheWarmUpHasPassed) {
  ThroughputSink sink(std::chrono::hours(1));
  sink.OnMessage(0, 10);
  sink.OnMessage(1, 10);
  sink.OnMessage(kStopSeq, 10);
  ThroughputSink::Result r = sink.result();
  EXPECT_EQ(r.messages, 0u);
  EXPECT_EQ(r.seconds, 0);
  EXPECT_EQ(r.received, 2u);
}

TEST(RunSource, EveryMessageReachesTheSinkAndTheStopComesLast) {
  ThroughputSink sink(Clock::duration::zero());
  uint64_t calls = 0;
  SourceResult r =
      RunSource(std::chrono::milliseconds(5), std::chrono::milliseconds(20), [&](uint64_t seq) {
        ++calls;
        sink.OnMessage(seq, 10);
        return true;
      });
  ASSERT_TRUE(sink.WaitForStop(std::chrono::seconds(0)));
  ThroughputSink::Result got = sink.result();
  EXPECT_EQ(got.received + 1, calls);  // all but the stop
  EXPECT_EQ(got.lost, 0u);
  EXPECT_LE(r.sent, got.received);
  EXPECT_GT(r.sent, 0u);
  EXPECT_EQ(r.failed, 0u);
  EXPECT_GT(r.seconds, 0);
}

TEST(RunSource, InsistsOnTheStopWhileTheWriterRefuses) {
  int refusals = 3;
  uint64_t last = 0;
  SourceResult r =
      RunSource(Clock::duration::zero(), std::chrono::milliseconds(1), [&](uint64_t seq) {
        last = seq;
        if (seq == kStopSeq && refusals > 0) {
          --refusals;
          return false;
        }
        return true;
      });
  EXPECT_EQ(refusals, 0);
  EXPECT_EQ(last, kStopSeq);
  EXPECT_EQ(r.failed, 0u);  // refused stops are not data
}

const char kPingOutput[] =
    "[27256] participant vm:27256: new (self)\n"
    "[27256] 2.000  vm:27244 size 64 mean 20.000us min 12.000us 50% 16.000us 90% 20.000us "
    "99% 30.000us max 1682.940us cnt 1000\n"
    "[27256] 2.000  rss:7.6MB vcsw:59543 ivcsw:29622 recvUC:6%+14% pong:6%+22%\n"
    "[27256] 3.000  vm:27244 size 64 mean 40.000us min 10.000us 50% 19.000us 90% 26.000us "
    "99% 90.000us max 2.500ms cnt 3000\n";

TEST(Ddsperf, PingLinesAreCombinedWeightedByCount) {
  Summary s = ParseDdsperfPing(kPingOutput);
  EXPECT_EQ(s.count, 4000u);
  EXPECT_EQ(s.min, 10000);
  EXPECT_EQ(s.max, 2500000);
  EXPECT_EQ(s.median, 18250);  // (16 * 1000 + 19 * 3000) / 4000 us
  EXPECT_EQ(s.p90, 24500);
  EXPECT_EQ(s.p99, 75000);
  EXPECT_DOUBLE_EQ(s.mean, 35000);
}

TEST(Ddsperf, NoPingLinesGiveNoCount) {
  EXPECT_EQ(ParseDdsperfPing("[1] participant x: new (self)\n").count, 0u);
}

TEST(Ddsperf, SubRateSkipsTheFirstSecondAndStopsAtThePublishersDeparture) {
  const char output[] =
      "[1] participant vm:1: new (self)\n"
      "[1] 1.001  size 4096 total 89269 lost 0 delta 89269 lost 0 rate 89.22 kS/s 2923.70 "
      "Mb/s (8.92 kS/s 292.37 Mb/s)\n"
      "[1] 1.001  rss:8.3MB vcsw:35588 ivcsw:20825 tev:1%+2% recvUC:12%+16% sub:4%+10%\n"
      "[1] 2.001  size 4096 total 289269 lost 3 delta 200000 lost 3 rate 196.45 kS/s\n"
      "[1] 4.001  size 4096 total 689269 lost 7 delta 400000 lost 4 rate 184.93 kS/s\n"
      "[1] participant vm:2: gone\n"
      "[1] 5.000  size 4096 total 700000 lost 7 delta 10731 lost 0 rate 6.02 kS/s\n";
  DdsperfRate r = ParseDdsperfSub(output);
  ASSERT_TRUE(r.ok);
  EXPECT_DOUBLE_EQ(r.messages_per_s, 200000);  // (689269 - 289269) / (4.001 - 2.001)
  EXPECT_EQ(r.lost, 7u);
}

TEST(Ddsperf, SubRateNeedsTwoSecondsAfterTheFirst) {
  EXPECT_FALSE(ParseDdsperfSub("[1] 1.0  size 64 total 5 lost 0 delta 5\n"
                               "[1] 2.0  size 64 total 9 lost 0 delta 4\n")
                   .ok);
}

TEST(Formatting, SizesMicrosecondsAndRatios) {
  EXPECT_EQ(SizeLabel(64), "64 B");
  EXPECT_EQ(SizeLabel(4096), "4 KiB");
  EXPECT_EQ(SizeLabel(65536), "64 KiB");
  EXPECT_EQ(SizeLabel(1048576), "1 MiB");
  EXPECT_EQ(SizeLabel(1500), "1500 B");
  EXPECT_EQ(Micros(845), "0.845");
  EXPECT_EQ(Micros(12345), "12.3");
  EXPECT_EQ(Micros(1234567), "1235");
  EXPECT_EQ(Ratio(110.0, 100.0), "1.10");
  EXPECT_EQ(Ratio(std::nullopt, 100.0), "-");
  EXPECT_EQ(Ratio(1.0, 0.0), "-");
}

LatencyRun MakeRun(const char* impl, bool pinned, int64_t size, int64_t median) {
  LatencyRun run;
  run.impl = impl;
  run.pinned = pinned;
  run.size = size;
  run.ok = true;
  run.latency.count = 10;
  run.latency.median = median;
  return run;
}

TEST(Report, GoalsCompareMediansAndRates) {
  Report r;
  r.sizes = {64, 1048576};
  r.latency = {MakeRun(kRaw, false, 64, 1000),
               MakeRun(kLibStamped, false, 64, 1100),
               MakeRun(kLibPlain, false, 64, 1101),
               MakeRun(kRaw, false, 1048576, 1000),
               MakeRun(kLibStamped, false, 1048576, 1300),
               MakeRun(kInprocPlain, false, 64, 1999)};
  ThroughputRun raw, lib;
  raw.impl = kRaw;
  lib.impl = kLibPlain;
  raw.size = lib.size = 64;
  raw.ok = lib.ok = true;
  raw.messages_per_s = 1000;
  lib.messages_per_s = 900;
  r.throughput = {raw, lib};
  std::vector<Goal> goals = EvaluateGoals(r);
  ASSERT_EQ(goals.size(), 5u);
  EXPECT_TRUE(goals[0].met);  // 1.10 is allowed
  EXPECT_FALSE(goals[1].met);
  EXPECT_DOUBLE_EQ(goals[2].value, 1.3);
  EXPECT_FALSE(goals[2].met);
  EXPECT_TRUE(goals[3].met);  // 1.999 us
  EXPECT_DOUBLE_EQ(goals[4].value, 0.9);
  EXPECT_TRUE(goals[4].met);
}

TEST(Report, FailedRunsAreLeftOutOfRatiosAndPlots) {
  Report r;
  r.sizes = {64};
  LatencyRun failed = MakeRun(kLibStamped, false, 64, 5000);
  failed.ok = false;
  r.latency = {MakeRun(kRaw, false, 64, 2000), failed};
  EXPECT_TRUE(EvaluateGoals(r).empty());
  EXPECT_EQ(PlotData(r, false).substr(PlotData(r, false).find('\n') + 1),
            "64 2.000 NaN NaN NaN NaN NaN\n");
  const std::string md = ToMarkdown(r);
  EXPECT_NE(md.find("| 64 B | median µs | 2.00 | - | - |"), std::string::npos) << md;
}

TEST(Report, JsonKeepsEveryRun) {
  Report r;
  r.sizes = {64};
  r.meta["mode"] = "quick";
  r.latency = {MakeRun(kRaw, true, 64, 2000)};
  const std::string json = ToJson(r);
  EXPECT_NE(json.find("\"median_ns\": 2000"), std::string::npos) << json;
  EXPECT_NE(json.find("\"pinned\": true"), std::string::npos);
  EXPECT_NE(json.find("\"mode\": \"quick\""), std::string::npos);
}

TEST(Report, ThroughputRatiosAndTheSummary) {
  Report r;
  r.sizes = {64};
  ThroughputRun raw, lib;
  raw.impl = kRaw;
  lib.impl = kLibStamped;
  raw.size = lib.size = 64;
  raw.ok = lib.ok = true;
  raw.messages_per_s = 1000;
  lib.messages_per_s = 900;
  lib.lost = 3;
  r.throughput = {raw, lib};
  r.latency = {MakeRun(kRaw, true, 64, 2000), MakeRun(kLibStamped, true, 64, 3000)};
  const std::string md = ToMarkdown(r);
  EXPECT_NE(md.find("| 64 B | messages/s | 1000 | 900 | 0.90 |"), std::string::npos) << md;
  EXPECT_NE(md.find("| lost | 0 | 3 | - |"), std::string::npos) << md;
  // The summary: pinned medians with their ratio, and the rates.
  EXPECT_NE(md.find("| 64 B | 2.00 | 3.00 | 1.50 | - | - | - | - |"), std::string::npos) << md;
  EXPECT_NE(md.find("| 64 B | 1000 | 900 | 0.90 | - | - |"), std::string::npos) << md;
}

TEST(Report, ProcessFiguresBecomeMicrosecondsPerRoundTripAndMebibytes) {
  Report r;
  r.sizes = {4096};
  LatencyRun raw = MakeRun(kRaw, true, 4096, 30000);
  raw.ping = {true, 200000, 10, 2048};  // 20 us per round trip, 2 MiB
  raw.pong = {true, 100000, 10, 1024};
  LatencyRun inproc = MakeRun(kInprocPlain, true, 4096, 5000);
  inproc.ping = {true, 50000, 10, 3072};
  r.latency = {raw, inproc};
  const std::string md = ToMarkdown(r);
  EXPECT_NE(md.find("| CPU µs/round trip, ping | 20.0 | - | - | - | - | - | 5.00 |"),
            std::string::npos)
      << md;
  EXPECT_NE(md.find("| CPU µs/round trip, pong | 10.0 | - | - | - | - | - | - |"),
            std::string::npos)
      << md;
  EXPECT_NE(md.find("| peak RSS MiB, ping | 2.0 | - | - | - | - | - | 3.0 |"), std::string::npos)
      << md;
  EXPECT_EQ(md.find("## Round trip, unpinned"), std::string::npos);
}

TEST(Report, MicroResultsAndThePlotScript) {
  Report r;
  r.sizes = {64, 65536};
  r.micro = {{"BM_Crc/64", 117.25, 585e6}, {"BM_SubscriberCounterCheck", 10.6, 0}};
  const std::string md = ToMarkdown(r);
  EXPECT_NE(md.find("| BM_Crc/64 | 117.2 | 585 |"), std::string::npos) << md;
  EXPECT_NE(md.find("| BM_SubscriberCounterCheck | 10.6 | - |"), std::string::npos) << md;
  const std::string script = PlotScript(r, "u.dat", "p.dat", "out.png");
  EXPECT_NE(script.find("set output 'out.png'"), std::string::npos);
  EXPECT_NE(script.find("set xtics ('64 B' 64, '64 KiB' 65536)"), std::string::npos) << script;
  EXPECT_NE(script.find("plot 'u.dat'"), std::string::npos);
  EXPECT_NE(script.find("plot 'p.dat'"), std::string::npos);
}

std::string TempPath(const char* name) {
  return std::string(testing::TempDir()) + "/" + name;
}

TEST(ChildProcess, CollectsTheResultLineAndPinsToCpuZero) {
  ChildProcess child;
  ChildProcess::Command command;
  command.argv = {"/bin/sh", "-c",
                  "echo noise; echo '{\"a\":1}'; grep Cpus_allowed_list /proc/self/status; "
                  "echo \"$BENCH_SELFTEST\" >&2"};
  command.env = {"BENCH_SELFTEST=seen"};
  command.pinned = true;
  command.out_path = TempPath("child.out");
  command.err_path = TempPath("child.err");
  ASSERT_TRUE(child.Start(command));
  ChildProcess::Exit e = child.Wait(std::chrono::seconds(30));
  EXPECT_TRUE(e.finished);
  EXPECT_EQ(e.status, 0);
  EXPECT_GT(e.peak_rss_kib, 0);
  EXPECT_EQ(LastResultLine(command.out_path), "{\"a\":1}");
  EXPECT_NE(ReadFile(command.out_path).find("Cpus_allowed_list:\t0\n"), std::string::npos);
  EXPECT_EQ(ReadFile(command.err_path), "seen\n");
}

TEST(ChildProcess, ResultLineIsTheLastObjectLine) {
  const std::string path = TempPath("lines.out");
  {
    std::FILE* f = std::fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs("{\"first\":1}\nlog line\n{\"second\":2}\ntrailing text\n", f);
    std::fclose(f);
  }
  EXPECT_EQ(LastResultLine(path), "{\"second\":2}");
  EXPECT_EQ(LastResultLine(path + ".missing"), "");
}

TEST(ChildProcess, KillsAProcessThatOverrunsItsLimit) {
  ChildProcess child;
  ChildProcess::Command command;
  command.argv = {"sleep", "30"};
  command.out_path = TempPath("sleep.out");
  command.err_path = TempPath("sleep.err");
  ASSERT_TRUE(child.Start(command));
  ChildProcess::Exit e = child.Wait(std::chrono::milliseconds(50));
  EXPECT_FALSE(e.finished);
  EXPECT_EQ(e.status, 128 + 9);
}

std::string BinaryDir() {
  char exe[4096];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
  exe[n > 0 ? n : 0] = '\0';
  std::string path(exe);
  return path.substr(0, path.rfind('/'));
}

// The whole pipeline on a tiny scale: every program starts, matches, measures and reports,
// and the harness reads it all back. Counts and flags only; no time is judged.
TEST(Harness, SmallRunReportsEveryFigure) {
  const std::string out = std::string(testing::TempDir()) + "/bench_smoke";
  ChildProcess harness;
  ChildProcess::Command command;
  command.argv = {BinaryDir() + "/korvan_bench",
                  "--quick",
                  "--sizes",
                  "64",
                  "--only",
                  "latency,throughput",
                  "--count",
                  "40",
                  "--warmup",
                  "10",
                  "--rounds",
                  "2",
                  "--pinning",
                  "pinned",
                  "--seconds",
                  "0.2",
                  "--warmup-seconds",
                  "0.05",
                  "--domain",
                  "203",
                  "--out",
                  out,
                  "--log-dir",
                  out};
  command.out_path = TempPath("harness.out");
  command.err_path = TempPath("harness.err");
  ASSERT_TRUE(harness.Start(command));
  ChildProcess::Exit e = harness.Wait(std::chrono::minutes(5));
  ASSERT_TRUE(e.finished) << ReadFile(command.err_path);
  ASSERT_EQ(e.status, 0) << ReadFile(command.err_path);

  rapidjson::Document d;
  d.Parse(ReadFile(out + "/latest.json").c_str());
  ASSERT_TRUE(d.IsObject());
  std::set<std::string> impls;
  for (const auto& run : d["latency"].GetArray()) {
    const std::string impl = run["impl"].GetString();
    impls.insert(impl);
    EXPECT_TRUE(run["ok"].GetBool()) << impl;
    EXPECT_TRUE(run["pinned"].GetBool()) << impl;
    EXPECT_EQ(run["round_trip"]["count"].GetUint64(), 40u) << impl;  // 2 rounds of 20
    EXPECT_GT(run["round_trip"]["median_ns"].GetInt64(), 0) << impl;
    EXPECT_EQ(run["ping"]["messages"].GetUint64(), 40u) << impl;
    const bool one_process = impl.rfind("inproc", 0) == 0;
    EXPECT_EQ(run.HasMember("pong"), !one_process) << impl;
    if (!one_process) {
      EXPECT_EQ(run["pong"]["messages"].GetUint64(), 40u) << impl;
    }
  }
  EXPECT_EQ(impls, (std::set<std::string>{kRaw, kRawInline, kLibStamped, kLibPlain, kInprocStamped,
                                          kInprocPlain}));
  ASSERT_EQ(d["throughput"].GetArray().Size(), 3u);
  for (const auto& run : d["throughput"].GetArray()) {
    EXPECT_TRUE(run["ok"].GetBool()) << run["impl"].GetString();
    EXPECT_EQ(run["lost"].GetUint64(), 0u) << run["impl"].GetString();
    EXPECT_GT(run["messages_per_s"].GetDouble(), 0) << run["impl"].GetString();
  }
  EXPECT_NE(ReadFile(out + "/latest.md").find("## Summary"), std::string::npos);
}

}  // namespace
}  // namespace korvan_bench
