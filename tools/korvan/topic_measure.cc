// korvan topic hz | bw | delay: rate, bandwidth and transmit delay of a topic, refreshed every
// second. Samples are not decoded (ArrivalSubscriber): the arrival time and the wire size come
// from the bus, the publish time from the stamp in the wire bytes.
#include <google/protobuf/descriptor.h>

#include <cinttypes>
#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "cli.h"
#include "korvan/tools/dynamic_endpoints.h"
#include "korvan/tools/rate_window.h"
#include "tarvikdds/bus/stamp_fields.h"

namespace korvan_cli {
namespace {

using tarvik::korvan::tools::Arrival;
using tarvik::korvan::tools::ArrivalSubscriber;
using tarvik::korvan::tools::BusSnapshot;
using tarvik::korvan::tools::DynamicType;
using tarvik::korvan::tools::RateSummary;
using tarvik::korvan::tools::RateWindow;
using tarvik::korvan::tools::TopicRef;

enum class Measure { kRate, kBandwidth, kDelay };

struct MeasureOptions {
  CommonOptions common;
  std::string topic;
  size_t window = 10000;  // arrivals the statistics are taken over
  double duration_s = 0;  // 0: until Ctrl-C
};

std::string Milliseconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.3f ms", seconds * 1e3);
  return text;
}

std::string Bytes(double bytes) {
  char text[32];
  if (bytes >= 1024.0 * 1024.0) {
    std::snprintf(text, sizeof(text), "%.2f MiB", bytes / (1024.0 * 1024.0));
  } else if (bytes >= 1024.0) {
    std::snprintf(text, sizeof(text), "%.2f KiB", bytes / 1024.0);
  } else {
    std::snprintf(text, sizeof(text), "%.0f B", bytes);
  }
  return text;
}

std::string Number(double value) {
  char text[40];
  std::snprintf(text, sizeof(text), "%.9g", value);
  return text;
}

// One report line, human or JSON.
std::string Report(Measure what, const std::string& topic, const RateSummary& s, bool json) {
  char text[512];
  const std::string head =
      "{\"topic\":" + JsonQuote(topic) + ",\"samples\":" + std::to_string(s.samples) +
      ",\"first_ns\":" + std::to_string(s.first_ns) + ",\"last_ns\":" + std::to_string(s.last_ns);
  switch (what) {
    case Measure::kRate:
      if (json) {
        return head + ",\"rate_hz\":" + Number(s.rate_hz) +
               ",\"mean_period_s\":" + Number(s.mean_period_s) +
               ",\"min_period_s\":" + Number(s.min_period_s) +
               ",\"max_period_s\":" + Number(s.max_period_s) +
               ",\"stddev_period_s\":" + Number(s.stddev_period_s) + "}";
      }
      std::snprintf(text, sizeof(text),
                    "%s: %.3f Hz  period mean %s, min %s, max %s, std dev %s  (window %zu)",
                    topic.c_str(), s.rate_hz, Milliseconds(s.mean_period_s).c_str(),
                    Milliseconds(s.min_period_s).c_str(), Milliseconds(s.max_period_s).c_str(),
                    Milliseconds(s.stddev_period_s).c_str(), s.samples);
      return text;
    case Measure::kBandwidth:
      if (json) {
        return head + ",\"bytes_per_s\":" + Number(s.bytes_per_s) +
               ",\"mean_bytes\":" + Number(s.mean_bytes) +
               ",\"min_bytes\":" + std::to_string(s.min_bytes) +
               ",\"max_bytes\":" + std::to_string(s.max_bytes) + "}";
      }
      std::snprintf(text, sizeof(text), "%s: %s/s  message mean %s, min %s, max %s  (window %zu)",
                    topic.c_str(), Bytes(s.bytes_per_s).c_str(), Bytes(s.mean_bytes).c_str(),
                    Bytes(static_cast<double>(s.min_bytes)).c_str(),
                    Bytes(static_cast<double>(s.max_bytes)).c_str(), s.samples);
      return text;
    case Measure::kDelay:
      if (json) {
        return head + ",\"delays\":" + std::to_string(s.delays) +
               ",\"mean_delay_s\":" + Number(s.mean_delay_s) +
               ",\"min_delay_s\":" + Number(s.min_delay_s) +
               ",\"max_delay_s\":" + Number(s.max_delay_s) +
               ",\"stddev_delay_s\":" + Number(s.stddev_delay_s) + "}";
      }
      std::snprintf(
          text, sizeof(text), "%s: delay mean %s, min %s, max %s, std dev %s  (window %zu)",
          topic.c_str(), Milliseconds(s.mean_delay_s).c_str(), Milliseconds(s.min_delay_s).c_str(),
          Milliseconds(s.max_delay_s).c_str(), Milliseconds(s.stddev_delay_s).c_str(), s.delays);
      return text;
  }
  return std::string();
}

bool HasPublishTime(const DynamicType& type) {
  return tarvik::korvan::bus::StampFieldSet(type.descriptor).publish_ts != nullptr;
}

int MeasureTopic(Measure what, const MeasureOptions& options) {
  Session& session = Session::Get();
  if (!session.Start())
    return kExitFailure;
  BusSnapshot snapshot;
  const TopicRef* topic = AwaitTopic(options.topic, true, options.common, &snapshot);
  if (topic == nullptr)
    return kExitFailure;
  WarnConflicts(*topic);

  std::mutex mutex;
  RateWindow window(options.window);
  uint64_t total = 0;
  uint64_t first_ns = 0;
  uint64_t last_ns = 0;
  auto on_arrival = [&](const Arrival& arrival) {
    std::lock_guard<std::mutex> lock(mutex);
    int64_t delay_ns = -1;
    if (arrival.has_publish_time) {
      // Clocks of two hosts may disagree by more than the delay: never below zero.
      delay_ns = arrival.receive_time_ns > arrival.publish_time_ns
                     ? static_cast<int64_t>(arrival.receive_time_ns - arrival.publish_time_ns)
                     : 0;
    }
    window.Add(arrival.receive_time_ns, arrival.wire_size, delay_ns);
    if (total++ == 0)
      first_ns = arrival.receive_time_ns;
    last_ns = arrival.receive_time_ns;
  };

  std::vector<std::unique_ptr<ArrivalSubscriber>> subscribers;
  std::set<uint64_t> subscribed;
  bool reliable = true;
  for (const auto& p : topic->publishers)
    reliable = reliable && p.reliability != 2;
  // Volatile: samples kept for late joiners would arrive in a burst and skew the window.
  const tarvik::quessa::QoS qos = tarvik::korvan::tools::ListeningQos(reliable, false);
  bool any_publish_time = false;
  auto subscribe_new = [&](const TopicRef& seen) {
    for (const auto& p : seen.publishers) {
      if (!subscribed.insert(p.type_hash).second)
        continue;
      std::string problem;
      const DynamicType* type =
          session.catalog().FromBus(p.type_name, p.type_hash, options.common.timeout(), &problem);
      if (type == nullptr) {
        PrintError("cannot measure " + p.type_name + " from " + p.process.Describe() + ": " +
                   problem);
        continue;
      }
      any_publish_time = any_publish_time || HasPublishTime(*type);
      subscribers.push_back(std::make_unique<ArrivalSubscriber>(session.node(), options.topic,
                                                                *type, qos, on_arrival));
    }
  };
  subscribe_new(*topic);
  if (subscribers.empty())
    return kExitFailure;
  if (what == Measure::kDelay && !any_publish_time) {
    PrintError("topic '" + options.topic + "': its type " + topic->publishers.front().type_name +
               " carries no publish time (a publish_ts field), so no delay can be measured");
    return kExitFailure;
  }

  const auto start = std::chrono::steady_clock::now();
  const auto end = start + std::chrono::milliseconds(static_cast<long>(options.duration_s * 1e3));
  auto next_report = start + std::chrono::seconds(1);
  uint64_t reported_total = 0;
  for (;;) {
    auto wake = next_report;
    if (options.duration_s > 0 && end < wake)
      wake = end;
    if (!SleepUnlessInterrupted(std::chrono::duration_cast<std::chrono::milliseconds>(
                                    wake - std::chrono::steady_clock::now()) +
                                std::chrono::milliseconds(1))) {
      break;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now < next_report) {
      if (options.duration_s > 0 && now >= end)
        break;
      continue;
    }
    next_report += std::chrono::seconds(1);
    RateSummary summary;
    uint64_t seen = 0;
    {
      std::lock_guard<std::mutex> lock(mutex);
      summary = window.Summary();
      seen = total;
    }
    if (seen == reported_total) {
      if (options.common.json) {
        std::printf("{\"topic\":%s,\"samples\":0}\n", JsonQuote(options.topic).c_str());
      } else {
        std::printf("%s: no new messages\n", options.topic.c_str());
      }
    } else {
      std::printf("%s\n", Report(what, options.topic, summary, options.common.json).c_str());
    }
    std::fflush(stdout);
    reported_total = seen;
    if (options.duration_s > 0 && now >= end)
      break;
    // Publishers that joined later may bring another description.
    if (BusSnapshot::Take(&snapshot)) {
      if (const TopicRef* again = snapshot.FindTopic(options.topic))
        subscribe_new(*again);
    }
  }
  subscribers.clear();
  std::lock_guard<std::mutex> lock(mutex);
  PrintSummary(total, "messages", first_ns, last_ns);
  return kExitOk;
}

void AddMeasure(CLI::App* topic, const char* name, const char* description, Measure what,
                MeasureOptions* options, int* exit_code) {
  CLI::App* command = topic->add_subcommand(name, description);
  command->add_option("TOPIC", options->topic, "Topic name")->required();
  command->add_option("-w,--window", options->window, "Arrivals the statistics are taken over")
      ->capture_default_str()
      ->check(CLI::Range(size_t{2}, size_t{10000000}));
  command
      ->add_option("-d,--duration", options->duration_s,
                   "Stop after this many seconds (default: at Ctrl-C)")
      ->check(CLI::PositiveNumber);
  AddCommonOptions(command, &options->common);
  command->callback([=] { *exit_code = MeasureTopic(what, *options); });
}

}  // namespace

void AddTopicMeasureCommands(CLI::App* topic, int* exit_code) {
  static MeasureOptions hz_options;
  AddMeasure(topic, "hz", "Rate of a topic: mean, min, max and std dev of the period, every second",
             Measure::kRate, &hz_options, exit_code);
  static MeasureOptions bw_options;
  AddMeasure(topic, "bw", "Bandwidth of a topic and the sizes of its messages, every second",
             Measure::kBandwidth, &bw_options, exit_code);
  static MeasureOptions delay_options;
  AddMeasure(topic, "delay",
             "Transmit delay of a stamped topic (arrival minus publish_ts), every second",
             Measure::kDelay, &delay_options, exit_code);
}

}  // namespace korvan_cli
