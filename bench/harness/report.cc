#include "harness/report.h"

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <iterator>
#include <sstream>
#include <utility>

namespace korvan_bench {
namespace {

using Writer = rapidjson::PrettyWriter<rapidjson::StringBuffer>;

std::string Format(const char* format, double value) {
  char buf[64];
  std::snprintf(buf, sizeof(buf), format, value);
  return buf;
}

std::string Mebibytes(int64_t kib) {
  return Format("%.1f", static_cast<double>(kib) / 1024.0);
}

void WriteSummary(Writer& w, const Summary& s) {
  w.StartObject();
  w.Key("count");
  w.Uint64(s.count);
  w.Key("min_ns");
  w.Int64(s.min);
  w.Key("median_ns");
  w.Int64(s.median);
  w.Key("p90_ns");
  w.Int64(s.p90);
  w.Key("p99_ns");
  w.Int64(s.p99);
  w.Key("max_ns");
  w.Int64(s.max);
  w.Key("mean_ns");
  w.Double(s.mean);
  w.EndObject();
}

void WriteProcess(Writer& w, const char* key, const ProcessFigures& p) {
  if (!p.present)
    return;
  w.Key(key);
  w.StartObject();
  w.Key("cpu_ns");
  w.Int64(p.cpu_ns);
  w.Key("messages");
  w.Uint64(p.messages);
  w.Key("cpu_ns_per_message");
  w.Double(p.CpuNsPerMessage());
  w.Key("peak_rss_kib");
  w.Int64(p.peak_rss_kib);
  w.EndObject();
}

// One Markdown table row.
std::string Row(const std::vector<std::string>& cells) {
  std::string out = "|";
  for (const auto& cell : cells)
    out += " " + cell + " |";
  return out + "\n";
}

std::string Header(const std::vector<std::string>& names, size_t text_columns) {
  std::string out = Row(names) + "|";
  for (size_t i = 0; i < names.size(); ++i)
    out += i < text_columns ? "---|" : "---:|";
  return out + "\n";
}

std::string Cell(std::optional<double> v, const std::function<std::string(double)>& fmt) {
  return v ? fmt(*v) : "-";
}

// A figure of one latency run.
using LatencyFigure = std::function<std::optional<double>(const LatencyRun&)>;

std::optional<double> Value(const LatencyRun* run, const LatencyFigure& figure) {
  if (run == nullptr || !run->ok)
    return std::nullopt;
  return figure(*run);
}

std::optional<double> Present(bool present, double value) {
  return present ? std::optional<double>(value) : std::nullopt;
}

std::string LatencyTable(const Report& r, bool pinned) {
  struct Figure {
    const char* name;
    LatencyFigure get;
    std::function<std::string(double)> fmt;
  };
  auto us = [](double ns) { return Micros(ns); };
  auto mib = [](double kib) { return Mebibytes(static_cast<int64_t>(kib)); };
  const std::vector<Figure> figures = {
      {"median µs", [](const LatencyRun& l) { return std::optional<double>(l.latency.median); },
       us},
      {"p90 µs", [](const LatencyRun& l) { return std::optional<double>(l.latency.p90); }, us},
      {"p99 µs", [](const LatencyRun& l) { return std::optional<double>(l.latency.p99); }, us},
      {"max µs", [](const LatencyRun& l) { return std::optional<double>(l.latency.max); }, us},
      {"CPU µs/round trip, ping",
       [](const LatencyRun& l) { return Present(l.ping.messages > 0, l.ping.CpuNsPerMessage()); },
       us},
      {"CPU µs/round trip, pong",
       [](const LatencyRun& l) { return Present(l.pong.messages > 0, l.pong.CpuNsPerMessage()); },
       us},
      {"peak RSS MiB, ping",
       [](const LatencyRun& l) {
         return Present(l.ping.peak_rss_kib > 0, static_cast<double>(l.ping.peak_rss_kib));
       },
       mib},
      {"peak RSS MiB, pong",
       [](const LatencyRun& l) {
         return Present(l.pong.peak_rss_kib > 0, static_cast<double>(l.pong.peak_rss_kib));
       },
       mib},
  };
  std::string out =
      Header({"payload", "figure", "raw DDS", "library, stamped", "ratio", "library, unstamped",
              "ratio", "in-process, stamped", "in-process, unstamped", "in-process inline, stamped",
              "in-process inline, unstamped", "raw DDS, reply in listener", "ddsperf"},
             2);
  for (int64_t size : r.sizes) {
    bool first = true;
    for (const Figure& f : figures) {
      auto raw = Value(r.FindLatency(kRaw, pinned, size), f.get);
      auto stamped = Value(r.FindLatency(kLibStamped, pinned, size), f.get);
      auto plain = Value(r.FindLatency(kLibPlain, pinned, size), f.get);
      out += Row({first ? SizeLabel(size) : "", f.name, Cell(raw, f.fmt), Cell(stamped, f.fmt),
                  Ratio(stamped, raw), Cell(plain, f.fmt), Ratio(plain, raw),
                  Cell(Value(r.FindLatency(kInprocStamped, pinned, size), f.get), f.fmt),
                  Cell(Value(r.FindLatency(kInprocPlain, pinned, size), f.get), f.fmt),
                  Cell(Value(r.FindLatency(kInprocInlineStamped, pinned, size), f.get), f.fmt),
                  Cell(Value(r.FindLatency(kInprocInlinePlain, pinned, size), f.get), f.fmt),
                  Cell(Value(r.FindLatency(kRawInline, pinned, size), f.get), f.fmt),
                  Cell(Value(r.FindLatency(kDdsperf, pinned, size), f.get), f.fmt)});
      first = false;
    }
  }
  return out;
}

std::string ThroughputTable(const Report& r) {
  using Get = std::function<std::optional<double>(const ThroughputRun&)>;
  struct Figure {
    const char* name;
    Get get;
    std::function<std::string(double)> fmt;
    bool ratio;
  };
  auto count = [](double v) { return Format("%.0f", v); };
  auto one = [](double v) { return Format("%.1f", v); };
  auto us = [](double ns) { return Micros(ns); };
  auto mib = [](double kib) { return Mebibytes(static_cast<int64_t>(kib)); };
  const std::vector<Figure> figures = {
      {"messages/s", [](const ThroughputRun& t) { return std::optional<double>(t.messages_per_s); },
       count, true},
      {"MB/s", [](const ThroughputRun& t) { return std::optional<double>(t.megabytes_per_s); }, one,
       true},
      {"CPU µs/message, pub",
       [](const ThroughputRun& t) { return Present(t.pub.messages > 0, t.pub.CpuNsPerMessage()); },
       us, true},
      {"CPU µs/message, sub",
       [](const ThroughputRun& t) { return Present(t.sub.messages > 0, t.sub.CpuNsPerMessage()); },
       us, true},
      {"peak RSS MiB, pub",
       [](const ThroughputRun& t) {
         return Present(t.pub.peak_rss_kib > 0, static_cast<double>(t.pub.peak_rss_kib));
       },
       mib, true},
      {"peak RSS MiB, sub",
       [](const ThroughputRun& t) {
         return Present(t.sub.peak_rss_kib > 0, static_cast<double>(t.sub.peak_rss_kib));
       },
       mib, true},
      {"lost", [](const ThroughputRun& t) { return std::optional<double>(t.lost); }, count, false},
  };
  auto value = [](const ThroughputRun* run, const Get& get) -> std::optional<double> {
    if (run == nullptr || !run->ok)
      return std::nullopt;
    return get(*run);
  };
  std::string out = Header({"payload", "figure", "raw DDS", "library, stamped", "ratio",
                            "library, unstamped", "ratio", "ddsperf"},
                           2);
  for (int64_t size : r.sizes) {
    bool first = true;
    for (const Figure& f : figures) {
      auto raw = value(r.FindThroughput(kRaw, size), f.get);
      auto stamped = value(r.FindThroughput(kLibStamped, size), f.get);
      auto plain = value(r.FindThroughput(kLibPlain, size), f.get);
      out += Row({first ? SizeLabel(size) : "", f.name, Cell(raw, f.fmt), Cell(stamped, f.fmt),
                  f.ratio ? Ratio(stamped, raw) : "-", Cell(plain, f.fmt),
                  f.ratio ? Ratio(plain, raw) : "-",
                  Cell(value(r.FindThroughput(kDdsperf, size), f.get), f.fmt)});
      first = false;
    }
  }
  return out;
}

std::optional<double> Median(const Report& r, const char* impl, bool pinned, int64_t size) {
  const LatencyRun* run = r.FindLatency(impl, pinned, size);
  if (run == nullptr || !run->ok)
    return std::nullopt;
  return static_cast<double>(run->latency.median);
}

std::optional<double> Rate(const Report& r, const char* impl, int64_t size) {
  const ThroughputRun* run = r.FindThroughput(impl, size);
  if (run == nullptr || !run->ok)
    return std::nullopt;
  return run->messages_per_s;
}

const char* PinningLabel(bool pinned) {
  return pinned ? "pinned" : "unpinned";
}

std::string ImplLabel(const std::string& impl) {
  if (impl == kLibStamped)
    return "stamped";
  if (impl == kLibPlain)
    return "unstamped";
  if (impl == kInprocStamped)
    return "in-process stamped";
  if (impl == kInprocPlain)
    return "in-process unstamped";
  if (impl == kInprocInlineStamped)
    return "in-process inline stamped";
  if (impl == kInprocInlinePlain)
    return "in-process inline unstamped";
  if (impl == kSetRawUdp)
    return "raw Cyclone, UDP";
  if (impl == kSetCycloneShm)
    return "raw Cyclone, its shared memory";
  if (impl == kSetLibShm)
    return "library, shared memory";
  if (impl == kSetIceoryx)
    return "iceoryx, zero copy";
  return impl;
}

// The same-host set: medians and rates of every implementation side by side.
std::string ShmTables(const Report& r) {
  std::string out;
  std::vector<std::string> head = {"payload"};
  for (const char* impl : kSetImpls)
    head.push_back(ImplLabel(impl));
  for (bool pinned : {true, false}) {
    bool any = false;
    for (const auto& run : r.latency) {
      for (const char* impl : kSetImpls)
        any = any || (run.impl == impl && run.pinned == pinned && run.ok);
    }
    if (!any)
      continue;
    out += std::string("\nMedian round trip, µs, ") +
           (pinned ? "both processes on CPU 0" : "unpinned") + " (p99 in brackets):\n\n";
    out += Header(head, 1);
    for (int64_t size : r.shm_sizes) {
      std::vector<std::string> row = {SizeLabel(size)};
      for (const char* impl : kSetImpls) {
        const LatencyRun* run = r.FindLatency(impl, pinned, size);
        row.push_back(run != nullptr && run->ok
                          ? Micros(static_cast<double>(run->latency.median)) + " (" +
                                Micros(static_cast<double>(run->latency.p99)) + ")"
                          : "-");
      }
      out += Row(row);
    }
  }
  bool any = false;
  for (const auto& run : r.throughput) {
    for (const char* impl : kSetImpls)
      any = any || (run.impl == impl && run.ok);
  }
  if (any) {
    out += "\nOne-way throughput, messages/s (MB/s):\n\n";
    out += Header(head, 1);
    for (int64_t size : r.shm_sizes) {
      std::vector<std::string> row = {SizeLabel(size)};
      for (const char* impl : kSetImpls) {
        const ThroughputRun* run = r.FindThroughput(impl, size);
        row.push_back(run != nullptr && run->ok ? Format("%.0f", run->messages_per_s) + " (" +
                                                      Format("%.0f", run->megabytes_per_s) + ")"
                                                : "-");
      }
      out += Row(row);
    }
  }
  return out;
}

// Medians and rates only, one row per payload: what the README shows.
std::string SummaryTables(const Report& r) {
  std::string out;
  for (bool pinned : {true, false}) {
    bool any = false;
    for (const auto& run : r.latency)
      any = any || (run.pinned == pinned && run.ok);
    if (!any)
      continue;
    out += std::string("\nMedian round trip, µs, ") +
           (pinned ? "both processes on CPU 0" : "unpinned") + ":\n\n";
    out += Header({"payload", "raw DDS", "library, stamped", "ratio", "library, unstamped", "ratio",
                   "in-process, stamped", "in-process, unstamped", "in-process inline, stamped",
                   "in-process inline, unstamped"},
                  1);
    auto us = [](double ns) { return Micros(ns); };
    for (int64_t size : r.sizes) {
      auto raw = Median(r, kRaw, pinned, size);
      auto stamped = Median(r, kLibStamped, pinned, size);
      auto plain = Median(r, kLibPlain, pinned, size);
      out += Row({SizeLabel(size), Cell(raw, us), Cell(stamped, us), Ratio(stamped, raw),
                  Cell(plain, us), Ratio(plain, raw),
                  Cell(Median(r, kInprocStamped, pinned, size), us),
                  Cell(Median(r, kInprocPlain, pinned, size), us),
                  Cell(Median(r, kInprocInlineStamped, pinned, size), us),
                  Cell(Median(r, kInprocInlinePlain, pinned, size), us)});
    }
  }
  bool any = false;
  for (const auto& run : r.throughput)
    any = any || run.ok;
  if (any) {
    out += "\nOne-way throughput, messages/s:\n\n";
    out += Header(
        {"payload", "raw DDS", "library, stamped", "ratio", "library, unstamped", "ratio"}, 1);
    auto count = [](double v) { return Format("%.0f", v); };
    for (int64_t size : r.sizes) {
      auto raw = Rate(r, kRaw, size);
      auto stamped = Rate(r, kLibStamped, size);
      auto plain = Rate(r, kLibPlain, size);
      out += Row({SizeLabel(size), Cell(raw, count), Cell(stamped, count), Ratio(stamped, raw),
                  Cell(plain, count), Ratio(plain, raw)});
    }
  }
  return out;
}

}  // namespace

const LatencyRun* Report::FindLatency(const std::string& impl, bool pinned, int64_t size) const {
  for (const auto& run : latency) {
    if (run.impl == impl && run.pinned == pinned && run.size == size)
      return &run;
  }
  return nullptr;
}

const ThroughputRun* Report::FindThroughput(const std::string& impl, int64_t size) const {
  for (const auto& run : throughput) {
    if (run.impl == impl && run.size == size)
      return &run;
  }
  return nullptr;
}

std::vector<Goal> EvaluateGoals(const Report& r) {
  std::vector<Goal> goals;
  for (bool pinned : {false, true}) {
    for (const char* impl : {kLibStamped, kLibPlain}) {
      for (int64_t size : {int64_t{64}, int64_t{4096}}) {
        auto lib = Median(r, impl, pinned, size);
        auto raw = Median(r, kRaw, pinned, size);
        if (!lib || !raw || *raw <= 0)
          continue;
        Goal g;
        g.text = "round trip library / raw <= 1.10";
        g.where =
            SizeLabel(size) + ", " + ImplLabel(impl) + ", " + PinningLabel(pinned) + ", median";
        g.value = *lib / *raw;
        g.limit = 1.10;
        g.met = g.value <= g.limit;
        goals.push_back(g);
      }
    }
    auto lib = Median(r, kLibStamped, pinned, 1 << 20);
    auto raw = Median(r, kRaw, pinned, 1 << 20);
    if (lib && raw && *raw > 0) {
      Goal g;
      g.text = "round trip library / raw <= 1.2";
      g.where = std::string("1 MiB, stamped, ") + PinningLabel(pinned) + ", median";
      g.value = *lib / *raw;
      g.limit = 1.2;
      g.met = g.value <= g.limit;
      goals.push_back(g);
    }
    for (const char* impl :
         {kInprocStamped, kInprocPlain, kInprocInlineStamped, kInprocInlinePlain}) {
      auto median = Median(r, impl, pinned, 64);
      if (!median)
        continue;
      Goal g;
      g.text = "in-process round trip < 2 µs";
      g.where =
          std::string("64 B, ") + ImplLabel(impl) + ", " + PinningLabel(pinned) + ", median, µs";
      g.value = *median / 1000.0;
      g.limit = 2.0;
      g.met = g.value < g.limit;
      goals.push_back(g);
    }
  }
  for (bool pinned : {false, true}) {
    for (const auto& [size, limit] :
         {std::pair<int64_t, double>{1 << 20, 150.0}, std::pair<int64_t, double>{65536, 40.0}}) {
      auto median = Median(r, kSetLibShm, pinned, size);
      if (!median)
        continue;
      Goal g;
      g.text = "shared-memory round trip <= " + Format("%.0f", limit) + " µs";
      g.where = SizeLabel(size) + ", library, " + PinningLabel(pinned) + ", median, µs";
      g.value = *median / 1000.0;
      g.limit = limit;
      g.met = g.value <= g.limit;
      goals.push_back(g);
    }
    auto shm = Median(r, kSetLibShm, pinned, 64);
    auto dds = Median(r, kLibPlain, pinned, 64);
    if (shm && dds && *dds > 0) {
      Goal g;
      g.text = "shared memory / DDS path round trip <= 1";
      g.where = std::string("64 B, library unstamped, ") + PinningLabel(pinned) + ", median";
      g.value = *shm / *dds;
      g.limit = 1.0;
      g.met = g.value <= g.limit;
      goals.push_back(g);
    }
  }
  if (auto rate = Rate(r, kSetLibShm, 1 << 20)) {
    Goal g;
    g.text = "shared-memory throughput >= 5000 messages/s";
    g.where = "1 MiB, library, messages/s";
    g.value = *rate;
    g.limit = 5000;
    g.met = g.value >= g.limit;
    goals.push_back(g);
  }
  for (int64_t size : r.sizes) {
    for (const char* impl : {kLibStamped, kLibPlain}) {
      auto lib = Rate(r, impl, size);
      auto raw = Rate(r, kRaw, size);
      if (!lib || !raw || *raw <= 0)
        continue;
      Goal g;
      g.text = "throughput library / raw >= 0.9";
      g.where = SizeLabel(size) + ", " + ImplLabel(impl) + ", messages/s";
      g.value = *lib / *raw;
      g.limit = 0.9;
      g.met = g.value >= g.limit;
      goals.push_back(g);
    }
  }
  return goals;
}

std::string SizeLabel(int64_t bytes) {
  if (bytes >= (1 << 20) && bytes % (1 << 20) == 0)
    return std::to_string(bytes >> 20) + " MiB";
  if (bytes >= 1024 && bytes % 1024 == 0)
    return std::to_string(bytes >> 10) + " KiB";
  return std::to_string(bytes) + " B";
}

std::string Micros(double ns) {
  const double us = ns / 1000.0;
  if (us >= 100)
    return Format("%.0f", us);
  if (us >= 10)
    return Format("%.1f", us);
  if (us >= 1)
    return Format("%.2f", us);
  return Format("%.3f", us);
}

std::string Ratio(std::optional<double> library, std::optional<double> raw) {
  if (!library || !raw || *raw == 0)
    return "-";
  return Format("%.2f", *library / *raw);
}

std::string ToJson(const Report& r) {
  rapidjson::StringBuffer buffer;
  Writer w(buffer);
  w.SetIndent(' ', 1);
  w.StartObject();
  w.Key("meta");
  w.StartObject();
  for (const auto& entry : r.meta) {
    w.Key(entry.first.c_str());
    w.String(entry.second.c_str());
  }
  w.EndObject();
  w.Key("latency");
  w.StartArray();
  for (const auto& run : r.latency) {
    w.StartObject();
    w.Key("impl");
    w.String(run.impl.c_str());
    w.Key("pinned");
    w.Bool(run.pinned);
    w.Key("payload_bytes");
    w.Int64(run.size);
    w.Key("ok");
    w.Bool(run.ok);
    w.Key("round_trip");
    WriteSummary(w, run.latency);
    w.Key("retries");
    w.Int64(run.retries);
    WriteProcess(w, "ping", run.ping);
    WriteProcess(w, "pong", run.pong);
    w.EndObject();
  }
  w.EndArray();
  w.Key("throughput");
  w.StartArray();
  for (const auto& run : r.throughput) {
    w.StartObject();
    w.Key("impl");
    w.String(run.impl.c_str());
    w.Key("payload_bytes");
    w.Int64(run.size);
    w.Key("ok");
    w.Bool(run.ok);
    w.Key("messages_per_s");
    w.Double(run.messages_per_s);
    w.Key("megabytes_per_s");
    w.Double(run.megabytes_per_s);
    w.Key("sent");
    w.Uint64(run.sent);
    w.Key("lost");
    w.Uint64(run.lost);
    WriteProcess(w, "pub", run.pub);
    WriteProcess(w, "sub", run.sub);
    w.EndObject();
  }
  w.EndArray();
  w.Key("micro");
  w.StartArray();
  for (const auto& m : r.micro) {
    w.StartObject();
    w.Key("name");
    w.String(m.name.c_str());
    w.Key("ns_per_op");
    w.Double(m.ns_per_op);
    w.Key("bytes_per_second");
    w.Double(m.bytes_per_second);
    w.EndObject();
  }
  w.EndArray();
  w.Key("goals");
  w.StartArray();
  for (const auto& g : EvaluateGoals(r)) {
    w.StartObject();
    w.Key("goal");
    w.String(g.text.c_str());
    w.Key("figure");
    w.String(g.where.c_str());
    w.Key("value");
    w.Double(g.value);
    w.Key("limit");
    w.Double(g.limit);
    w.Key("met");
    w.Bool(g.met);
    w.EndObject();
  }
  w.EndArray();
  w.EndObject();
  return std::string(buffer.GetString()) + "\n";
}

std::string ToMarkdown(const Report& r) {
  std::ostringstream out;
  out << "# Benchmark results\n\n";
  for (const auto& entry : r.meta)
    out << "- " << entry.first << ": " << entry.second << "\n";
  out << "\nRatios are library / raw DDS: above 1 the library takes longer (latency, CPU, "
         "memory), below 1 it moves less (throughput). Unpinned round trips swing with where "
         "the scheduler puts the threads (waking a thread on the other CPU costs 25-30 µs on "
         "these machines); the pinned ones show the middleware's own cost.\n";
  const std::string summary = SummaryTables(r);
  if (!summary.empty())
    out << "\n## Summary\n" << summary;
  const std::string shm = ShmTables(r);
  if (!shm.empty())
    out << "\n## Same host, shared memory\n" << shm;

  const std::vector<Goal> goals = EvaluateGoals(r);
  if (!goals.empty()) {
    out << "\n## Goals\n\n" << Header({"goal", "figure", "value", "limit", "met"}, 2);
    for (const auto& g : goals) {
      out << Row({g.text, g.where, Format("%.2f", g.value), Format("%.2f", g.limit),
                  g.met ? "yes" : "**no**"});
    }
  }
  auto in_set = [](const std::string& impl) {
    for (const char* set_impl : kSetImpls) {
      if (impl == set_impl)
        return true;
    }
    return false;
  };
  for (bool pinned : {false, true}) {
    bool any = false;
    for (const auto& run : r.latency)
      any = any || (run.pinned == pinned && !in_set(run.impl));
    if (!any)
      continue;
    out << "\n## Round trip, " << (pinned ? "both ends pinned to CPU 0 (taskset -c 0)" : "unpinned")
        << "\n\n"
        << LatencyTable(r, pinned);
  }
  bool any_throughput = false;
  for (const auto& run : r.throughput)
    any_throughput = any_throughput || !in_set(run.impl);
  if (any_throughput)
    out << "\n## One-way throughput\n\n" << ThroughputTable(r);
  if (!r.micro.empty()) {
    out << "\n## Micro-benchmarks\n\n" << Header({"benchmark", "ns/op", "MB/s"}, 1);
    for (const auto& m : r.micro) {
      out << Row({m.name, Format("%.1f", m.ns_per_op),
                  m.bytes_per_second > 0 ? Format("%.0f", m.bytes_per_second / 1e6) : "-"});
    }
  }
  return out.str();
}

std::string PlotData(const Report& r, bool pinned) {
  std::ostringstream out;
  out << "# payload raw lib_stamped lib_plain inproc_stamped ddsperf raw_inline"
         " (median round trip, us)\n";
  for (int64_t size : r.sizes) {
    out << size;
    for (const char* impl : {kRaw, kLibStamped, kLibPlain, kInprocStamped, kDdsperf, kRawInline}) {
      auto m = Median(r, impl, pinned, size);
      out << " " << (m ? Format("%.3f", *m / 1000.0) : "NaN");
    }
    out << "\n";
  }
  return out.str();
}

std::string PlotScript(const Report& r, const std::string& unpinned_data,
                       const std::string& pinned_data, const std::string& png) {
  std::ostringstream out;
  out << "set terminal pngcairo size 1200,520 font 'sans,10'\n"
      << "set output '" << png << "'\n"
      << "set logscale xy\n"
      << "set grid\n"
      << "set key top left\n"
      << "set xlabel 'payload'\n"
      << "set ylabel 'median round trip (µs)'\n"
      << "set xtics (";
  for (size_t i = 0; i < r.sizes.size(); ++i)
    out << (i ? ", " : "") << "'" << SizeLabel(r.sizes[i]) << "' " << r.sizes[i];
  out << ")\n"
      << "set multiplot layout 1,2\n";
  for (int panel = 0; panel < 2; ++panel) {
    const std::string& data = panel == 0 ? unpinned_data : pinned_data;
    out << "set title '" << (panel == 0 ? "unpinned" : "both ends on CPU 0") << "'\n"
        << "plot '" << data << "' using 1:2 with linespoints title 'raw DDS', "
        << "'' using 1:3 with linespoints title 'library, stamped', "
        << "'' using 1:4 with linespoints title 'library, unstamped', "
        << "'' using 1:5 with linespoints title 'in-process, stamped', "
        << "'' using 1:7 with linespoints dashtype 3 title 'raw DDS, reply in listener', "
        << "'' using 1:6 with linespoints dashtype 2 title 'ddsperf'\n";
  }
  out << "unset multiplot\n";
  return out.str();
}

std::string ShmPlotData(const Report& r, bool pinned) {
  std::ostringstream out;
  out << "# payload";
  for (const char* impl : kSetImpls)
    out << " " << impl;
  out << " (median round trip, us)\n";
  for (int64_t size : r.shm_sizes) {
    out << size;
    for (const char* impl : kSetImpls) {
      auto m = Median(r, impl, pinned, size);
      out << " " << (m ? Format("%.3f", *m / 1000.0) : "NaN");
    }
    out << "\n";
  }
  return out.str();
}

std::string ShmPlotScript(const Report& r, const std::string& unpinned_data,
                          const std::string& pinned_data, const std::string& png) {
  std::ostringstream out;
  out << "set terminal pngcairo size 1200,520 font 'sans,10'\n"
      << "set output '" << png << "'\n"
      << "set logscale xy\n"
      << "set grid\n"
      << "set key top left\n"
      << "set xlabel 'payload'\n"
      << "set ylabel 'median round trip (µs)'\n"
      << "set xtics (";
  for (size_t i = 0; i < r.shm_sizes.size(); ++i)
    out << (i ? ", " : "") << "'" << SizeLabel(r.shm_sizes[i]) << "' " << r.shm_sizes[i];
  out << ")\n"
      << "set multiplot layout 1,2 title 'Same host: one ping in flight'\n";
  for (int panel = 0; panel < 2; ++panel) {
    out << "set title '" << (panel == 0 ? "unpinned" : "both ends on CPU 0") << "'\n"
        << "plot '" << (panel == 0 ? unpinned_data : pinned_data) << "'";
    for (size_t i = 0; i < std::size(kSetImpls); ++i) {
      out << (i ? ", ''" : "") << " using 1:" << i + 2 << " with linespoints title '"
          << ImplLabel(kSetImpls[i]) << "'";
    }
    out << "\n";
  }
  out << "unset multiplot\n";
  return out.str();
}

}  // namespace korvan_bench
