#include "harness/config.h"

#include "common/bench_common.h"

namespace korvan_bench {
namespace {

// Reads an option that is present into `value`, within [low, high]; false for a bad one.
bool Read(const Options& o, const char* key, int64_t low, int64_t high, int64_t* value,
          std::string* error) {
  if (!o.Has(key))
    return true;
  int64_t v;
  if (!ParseInt(o.String(key, ""), &v) || v < low || v > high) {
    *error = std::string("--") + key + " wants a whole number from " + std::to_string(low) +
             " to " + std::to_string(high);
    return false;
  }
  *value = v;
  return true;
}

bool Read(const Options& o, const char* key, double* value, std::string* error) {
  if (!o.Has(key))
    return true;
  double v;
  if (!ParseDouble(o.String(key, ""), &v) || v <= 0 || v > 3600) {
    *error = std::string("--") + key + " wants seconds above 0";
    return false;
  }
  *value = v;
  return true;
}

}  // namespace

const char kUsage[] =
    "usage: korvan_bench [options]\n"
    "  --quick                 short counts and durations (a smoke run)\n"
    "  --out DIR               where latest.json, latest.md, latency.png go (bench/results)\n"
    "  --log-dir DIR           output of every process started (next to the binary, logs/)\n"
    "  --sizes A,B,...         payload sizes in bytes (64,4096,65536,1048576)\n"
    "  --count N               measured round trips, over all rounds (10000)\n"
    "  --warmup N              warm-up round trips of each process (500)\n"
    "  --large-count N, --large-warmup N   the same from 512 KiB (1000, 50)\n"
    "  --rounds N              processes per latency figure, run in turn with the others (5)\n"
    "  --seconds S, --warmup-seconds S     throughput per round and warm-up (1, 0.5)\n"
    "  --throughput-rounds N   processes per throughput figure (5)\n"
    "  --ddsperf-seconds S     duration of each ddsperf figure (3)\n"
    "  --micro-min-time S      Google Benchmark's minimum time per benchmark (0.1)\n"
    "  --only LIST             of latency,throughput,ddsperf,shm,micro (all); shm is the\n"
    "                          same-host set: raw Cyclone over UDP and with its shared memory,\n"
    "                          the library through shared memory, iceoryx (64 B to 16 MiB)\n"
    "  --pinning LIST          of unpinned,pinned (both)\n"
    "  --domain N              DDS domain of the runs (201)\n"
    "  --log-level L           TREVAM_LOG_LEVEL of the library processes (3)\n";

bool ParseConfig(int argc, char** argv, Config* c, std::string* error) {
  Options o;
  if (!o.Parse(argc, argv, 1, error))
    return false;
  if (o.Has("help")) {
    c->help = true;
    return true;
  }
  if (o.Has("quick")) {
    c->quick = true;
    c->count = 1000;
    c->warmup = 200;
    c->large_count = 100;
    c->large_warmup = 20;
    c->rounds = 2;
    c->seconds = 0.5;
    c->warmup_seconds = 0.2;
    c->throughput_rounds = 1;
    c->ddsperf_seconds = 3.0;  // its first second is discovery
    c->micro_min_time = 0.01;
  }
  if (o.Has("sizes")) {
    c->sizes.clear();
    for (const auto& s : SplitList(o.String("sizes", ""))) {
      int64_t v;
      if (!ParseInt(s, &v) || v < static_cast<int64_t>(kMinPayload) || v > (64 << 20)) {
        *error = "bad size '" + s + "' (8 B to 64 MiB)";
        return false;
      }
      c->sizes.push_back(v);
    }
    if (c->sizes.empty()) {
      *error = "--sizes lists no size";
      return false;
    }
  }
  constexpr int64_t kMany = 100000000;
  if (!Read(o, "count", 1, kMany, &c->count, error) ||
      !Read(o, "warmup", 0, kMany, &c->warmup, error) ||
      !Read(o, "large-count", 1, kMany, &c->large_count, error) ||
      !Read(o, "large-warmup", 0, kMany, &c->large_warmup, error) ||
      !Read(o, "rounds", 1, 100, &c->rounds, error) ||
      !Read(o, "throughput-rounds", 1, 100, &c->throughput_rounds, error) ||
      !Read(o, "domain", 0, 232, &c->domain, error) || !Read(o, "seconds", &c->seconds, error) ||
      !Read(o, "warmup-seconds", &c->warmup_seconds, error) ||
      !Read(o, "ddsperf-seconds", &c->ddsperf_seconds, error) ||
      !Read(o, "micro-min-time", &c->micro_min_time, error))
    return false;
  c->log_level = o.String("log-level", c->log_level);
  c->out_dir = o.String("out", c->out_dir);
  c->log_dir = o.String("log-dir", c->log_dir);
  if (o.Has("only")) {
    const std::set<std::string> known = {"latency", "throughput", "ddsperf", "shm", "micro"};
    c->parts.clear();
    for (const auto& p : SplitList(o.String("only", ""))) {
      if (known.count(p) == 0) {
        *error = "--only takes latency, throughput, ddsperf, shm and micro, not '" + p + "'";
        return false;
      }
      c->parts.insert(p);
    }
  }
  if (o.Has("pinning")) {
    c->pinnings.clear();
    for (const auto& p : SplitList(o.String("pinning", ""))) {
      if (p != "pinned" && p != "unpinned") {
        *error = "--pinning takes pinned and unpinned, not '" + p + "'";
        return false;
      }
      c->pinnings.push_back(p == "pinned");
    }
  }
  return true;
}

}  // namespace korvan_bench
