// korvan topic list | info | echo | pub
#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <deque>
#include <map>
#include <set>
#include <thread>

#include "cli.h"
#include "infra/mutex.h"
#include "infra/thread_annotations.h"
#include "infra/time.h"
#include "korvan/tools/dynamic_endpoints.h"
#include "korvan/tools/text_codec.h"
#include "tarvikdds/messaging/dds_node.h"

namespace korvan_cli {
namespace {

namespace inf = tarvik::korvan::inf;
using tarvik::korvan::tools::BusSnapshot;
using tarvik::korvan::tools::DynamicPublisher;
using tarvik::korvan::tools::DynamicSubscriber;
using tarvik::korvan::tools::DynamicType;
using tarvik::korvan::tools::EndpointRef;
using tarvik::korvan::tools::Received;
using tarvik::korvan::tools::TopicRef;

int ListTopics(bool with_types, const CommonOptions& options) {
  Session& session = Session::Get();
  BusSnapshot snapshot;
  if (!session.Start() || !session.Snapshot(&snapshot, options.timeout())) {
    PrintError("cannot read discovery");
    return kExitFailure;
  }
  if (options.json) {
    std::string out = "[";
    bool first = true;
    for (const auto& entry : snapshot.topics) {
      out +=
          (first ? "" : ",") + std::string("{\"name\":") + JsonQuote(entry.first) + ",\"types\":[";
      const auto types = entry.second.TypeNames();
      for (size_t i = 0; i < types.size(); ++i)
        out += (i ? "," : "") + JsonQuote(types[i]);
      out += "],\"publishers\":" + std::to_string(entry.second.publishers.size()) +
             ",\"subscribers\":" + std::to_string(entry.second.subscribers.size()) + "}";
      first = false;
    }
    std::printf("%s]\n", out.c_str());
    return kExitOk;
  }
  for (const auto& entry : snapshot.topics) {
    if (!with_types) {
      std::printf("%s\n", entry.first.c_str());
      continue;
    }
    std::string types;
    for (const auto& t : entry.second.TypeNames())
      types += (types.empty() ? "" : ", ") + t;
    std::printf("%s [%s]\n", entry.first.c_str(), types.c_str());
  }
  return kExitOk;
}

std::string EndpointLine(const EndpointRef& e) {
  return e.node_name + " in " + e.process.Describe() + ", " + e.type_name + ", " + e.DescribeQos();
}

int TopicInfo(const std::string& name, const CommonOptions& options) {
  if (!Session::Get().Start())
    return kExitFailure;
  BusSnapshot snapshot;
  const TopicRef* topic = AwaitTopic(name, false, options, &snapshot);
  if (topic == nullptr)
    return kExitFailure;
  WarnConflicts(*topic);
  if (options.json) {
    auto list = [](const std::vector<EndpointRef>& endpoints) {
      std::string out = "[";
      for (size_t i = 0; i < endpoints.size(); ++i) {
        const EndpointRef& e = endpoints[i];
        char hash[24];
        std::snprintf(hash, sizeof(hash), "%016" PRIx64, e.type_hash);
        out += (i ? "," : "") + std::string("{\"node\":") + JsonQuote(e.node_name) +
               ",\"application\":" + JsonQuote(e.process.app_name) +
               ",\"host\":" + JsonQuote(e.process.host_name) +
               ",\"pid\":" + std::to_string(e.process.process_id) +
               ",\"type\":" + JsonQuote(e.type_name) + ",\"description\":\"" + hash + "\"" +
               ",\"qos\":" + JsonQuote(e.DescribeQos()) + "}";
      }
      return out + "]";
    };
    std::string types = "[";
    const auto names = topic->TypeNames();
    for (size_t i = 0; i < names.size(); ++i)
      types += (i ? "," : "") + JsonQuote(names[i]);
    std::printf("{\"name\":%s,\"types\":%s],\"publishers\":%s,\"subscribers\":%s}\n",
                JsonQuote(topic->name).c_str(), types.c_str(), list(topic->publishers).c_str(),
                list(topic->subscribers).c_str());
    return kExitOk;
  }
  std::string types;
  for (const auto& t : topic->TypeNames())
    types += (types.empty() ? "" : ", ") + t;
  std::printf("topic: %s\ntype: %s\n", topic->name.c_str(), types.c_str());
  std::printf("publishers: %zu\n", topic->publishers.size());
  for (const auto& e : topic->publishers)
    std::printf("  %s\n", EndpointLine(e).c_str());
  std::printf("subscribers: %zu\n", topic->subscribers.size());
  for (const auto& e : topic->subscribers)
    std::printf("  %s\n", EndpointLine(e).c_str());
  return kExitOk;
}

// The reader's history of echo: a second at 10,000 messages/s, while the printer catches up.
constexpr uint32_t kEchoDepth = 10000;

struct EchoOptions {
  CommonOptions common;
  std::string topic;
  long count = 0;  // 0: until interrupted
  std::string field;
};

// Formats and writes the received messages on a thread of its own: the bus's delivery
// thread only queues them, so that a burst the output cannot follow at once waits here in
// memory (up to kMaxQueued) instead of overflowing the reader's history.
class EchoPrinter {
 public:
  explicit EchoPrinter(const EchoOptions& options)
      : options_(options), thread_([this] { Run(); }) {}
  ~EchoPrinter() { Stop(); }

  // From the bus's delivery threads.
  void Add(const std::string& type_name, std::shared_ptr<google::protobuf::Message> message,
           const Received& info) {
    {
      inf::MutexLock lock(&mutex_);
      if (stopping_ || enough_)
        return;
      if (queue_.size() >= kMaxQueued) {
        ++dropped_;
        return;
      }
      queue_.push_back({&type_name, std::move(message), info});
    }
    wake_.Signal();
  }
  // A line on standard error between the messages.
  void Warn(const std::string& text) {
    inf::MutexLock lock(&output_mutex_);
    PrintError(text);
  }
  // The count (-n) is reached.
  bool done() {
    inf::MutexLock lock(&mutex_);
    return enough_;
  }
  // Prints what is queued when `drain`, then ends the thread.
  void Stop(bool drain = false) {
    {
      inf::MutexLock lock(&mutex_);
      if (!drain)
        queue_.clear();
      stopping_ = true;
    }
    wake_.Signal();
    if (thread_.joinable())
      thread_.join();
  }
  uint64_t printed() const { return printed_; }
  uint64_t first_ns() const { return first_ns_; }
  uint64_t last_ns() const { return last_ns_; }
  uint64_t dropped() {
    inf::MutexLock lock(&mutex_);
    return dropped_;
  }

 private:
  static constexpr size_t kMaxQueued = 100000;

  struct Pending {
    const std::string* type_name;  // lives in the subscriber's closure, which outlives us
    std::shared_ptr<google::protobuf::Message> message;
    Received info;
  };

  void Run() {
    std::deque<Pending> batch;
    for (;;) {
      {
        inf::MutexLock lock(&mutex_);
        while (!stopping_ && queue_.empty())
          wake_.Wait(&mutex_);
        if (queue_.empty())
          return;  // stopping, nothing left
        batch.swap(queue_);
      }
      inf::MutexLock lock(&output_mutex_);
      for (const Pending& item : batch) {
        if (options_.count > 0 && printed_ >= static_cast<uint64_t>(options_.count))
          break;
        if (!Print(item))
          continue;
        if (printed_++ == 0)
          first_ns_ = item.info.receive_time_ns;
        last_ns_ = item.info.receive_time_ns;
      }
      batch.clear();
      std::fflush(stdout);
      if (options_.count > 0 && printed_ >= static_cast<uint64_t>(options_.count)) {
        inf::MutexLock state(&mutex_);
        enough_ = true;
        queue_.clear();
      }
    }
  }

  bool Print(const Pending& item) {
    const google::protobuf::Message& message = *item.message;
    const Received& info = item.info;
    std::string body;
    if (!options_.field.empty()) {
      std::string problem;
      if (!tarvik::korvan::tools::FieldText(message, options_.field, options_.common.json, &body,
                                            &problem)) {
        if (field_errors_++ == 0)
          PrintError(problem);
        return false;
      }
    } else {
      body = options_.common.json ? tarvik::korvan::tools::ToJson(message)
                                  : tarvik::korvan::tools::ToText(message);
    }
    const bool delayed = info.has_publish_time && info.receive_time_ns >= info.publish_time_ns;
    const double delay_ms =
        delayed ? static_cast<double>(info.receive_time_ns - info.publish_time_ns) / 1e6 : 0;
    if (options_.common.json) {
      std::string line = "{\"topic\":" + JsonQuote(options_.topic) +
                         ",\"type\":" + JsonQuote(*item.type_name) +
                         ",\"receive_time_ns\":" + std::to_string(info.receive_time_ns);
      if (info.has_counter)
        line += ",\"counter\":" + std::to_string(info.counter);
      if (!info.publisher_id.empty())
        line += ",\"publisher_id\":" + JsonQuote(info.publisher_id);
      if (delayed)
        line += ",\"delay_ms\":" + CLI::detail::to_string(delay_ms);
      if (info.crc_checked)
        line += ",\"crc\":\"ok\"";
      line += std::string(options_.field.empty() ? ",\"message\":" : ",\"value\":") + body + "}\n";
      std::fwrite(line.data(), 1, line.size(), stdout);
      return true;
    }
    std::string text;
    if (info.has_counter || info.crc_checked || delayed) {
      auto add = [&text](const std::string& part) { text += (text.empty() ? "# " : ", ") + part; };
      if (info.has_counter)
        add("counter " + std::to_string(info.counter));
      if (!info.publisher_id.empty())
        add("publisher " + info.publisher_id);
      if (delayed) {
        char number[32];
        std::snprintf(number, sizeof(number), "%.3f ms", delay_ms);
        add(std::string("delay ") + number);
      }
      if (info.crc_checked)
        add("crc ok");
      text += "\n";
    }
    text += body;
    if (!body.empty() && body.back() != '\n')
      text += "\n";
    text += "---\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
    return true;
  }

  const EchoOptions& options_;
  inf::Mutex mutex_;  // the queue and the state below
  inf::CondVar wake_;
  std::deque<Pending> queue_ KORVAN_GUARDED_BY(mutex_);
  bool stopping_ KORVAN_GUARDED_BY(mutex_) = false;
  bool enough_ KORVAN_GUARDED_BY(mutex_) = false;
  uint64_t dropped_ KORVAN_GUARDED_BY(mutex_) = 0;
  inf::Mutex output_mutex_;  // standard output and error while printing
  // The printer thread's own; read after Stop.
  uint64_t printed_ = 0;
  uint64_t first_ns_ = 0;
  uint64_t last_ns_ = 0;
  int field_errors_ = 0;
  std::thread thread_;
};

// Prints each message as it arrives; one subscriber per description seen among the topic's
// publishers, so every message is decoded with the description it was written with.
int Echo(const EchoOptions& options) {
  Session& session = Session::Get();
  if (!session.Start())
    return kExitFailure;
  BusSnapshot snapshot;
  const TopicRef* topic = AwaitTopic(options.topic, true, options.common, &snapshot);
  if (topic == nullptr)
    return kExitFailure;
  WarnConflicts(*topic);

  // Type names referred to by queued messages (std::set keeps their addresses); they outlive
  // the printer, and the printer the subscribers.
  std::set<std::string> type_names;
  EchoPrinter printer(options);
  std::vector<std::unique_ptr<DynamicSubscriber>> subscribers;
  std::set<uint64_t> subscribed;
  bool all_reliable = true;
  bool all_durable = true;
  for (const auto& p : topic->publishers) {
    all_reliable = all_reliable && p.reliability != 2;
    all_durable = all_durable && p.durability == 2;
  }
  bool bad_field = false;
  // Subscribes to every description among the publishers not subscribed yet.
  auto subscribe_new = [&](const TopicRef& seen) -> bool {
    for (const auto& p : seen.publishers) {
      if (!subscribed.insert(p.type_hash).second)
        continue;
      std::string problem;
      const DynamicType* type =
          session.catalog().FromBus(p.type_name, p.type_hash, options.common.timeout(), &problem);
      if (type == nullptr) {
        printer.Warn("cannot decode " + p.type_name + " from " + p.process.Describe() + ": " +
                     problem);
        continue;
      }
      if (!options.field.empty() &&
          !tarvik::korvan::tools::CheckFieldPath(type->descriptor, options.field, &problem)) {
        printer.Warn(problem);
        bad_field = true;
        return false;
      }
      const std::string& type_name = *type_names.insert(type->type_name).first;
      subscribers.push_back(std::make_unique<DynamicSubscriber>(
          session.node(), options.topic, *type,
          tarvik::korvan::tools::ListeningQos(all_reliable, all_durable, kEchoDepth),
          [&printer, &type_name](const std::shared_ptr<google::protobuf::Message>& message,
                                 const Received& info) { printer.Add(type_name, message, info); },
          [&printer, &options](const std::string& reason) {
            printer.Warn("topic '" + options.topic + "': a message was held back: " + reason);
          }));
    }
    return !subscribers.empty();
  };
  if (!subscribe_new(*topic))
    return bad_field ? kExitUsage : kExitFailure;
  auto next_look = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  while (!printer.done() && !Interrupted()) {
    SleepUnlessInterrupted(std::chrono::milliseconds(20));
    if (std::chrono::steady_clock::now() >= next_look) {
      // Publishers that joined later may bring another description.
      if (BusSnapshot::Take(&snapshot)) {
        if (const TopicRef* now = snapshot.FindTopic(options.topic)) {
          subscribe_new(*now);
          if (bad_field)
            break;
        }
      }
      next_look = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    }
  }
  subscribers.clear();
  printer.Stop(!bad_field && !Interrupted());
  if (bad_field)
    return kExitUsage;
  if (printer.dropped() > 0) {
    PrintError(std::to_string(printer.dropped()) +
               " messages were not printed: the output could not keep up");
  }
  if (Interrupted())
    PrintSummary(printer.printed(), "messages", printer.first_ns(), printer.last_ns());
  return kExitOk;
}

struct PubOptions {
  CommonOptions common;
  std::string topic;
  std::string type;
  std::string value;
  double rate_hz = 0;  // 0: publish once
  long count = 0;      // 0: once without a rate, forever with one
};

int Pub(const PubOptions& options) {
  Session& session = Session::Get();
  if (!session.Start())
    return kExitFailure;
  std::string problem;
  const DynamicType* type =
      session.catalog().FromBus(options.type, 0, options.common.timeout(), &problem);
  if (type == nullptr) {
    PrintError("unknown type '" + options.type + "': " + problem);
    return kExitUsage;
  }
  std::shared_ptr<google::protobuf::Message> message = type->operations->New();
  if (!tarvik::korvan::tools::ParseMessageText(options.value, message.get(), &problem)) {
    PrintError("the value is not a " + options.type + ": " + problem);
    return kExitUsage;
  }
  if (!message->IsInitialized()) {
    PrintError("the value lacks required fields: " + message->InitializationErrorString());
    return kExitUsage;
  }
  tarvik::quessa::QoS qos;
  qos.history_type = 0;
  qos.history_depth = 10;
  qos.durability = 1;
  qos.reliability = 1;
  DynamicPublisher publisher(session.node(), options.topic, *type, qos);
  // Give subscribers that exist a moment to match, so the first message reaches them.
  BusSnapshot snapshot;
  if (BusSnapshot::Take(&snapshot) && snapshot.FindTopic(options.topic) != nullptr) {
    const size_t expected = snapshot.FindTopic(options.topic)->subscribers.size();
    const auto deadline = std::chrono::steady_clock::now() + options.common.timeout();
    while (static_cast<size_t>(publisher.MatchedSubscribers()) < expected &&
           std::chrono::steady_clock::now() < deadline && !Interrupted()) {
      SleepUnlessInterrupted(std::chrono::milliseconds(10));
    }
  }
  const long total = options.count > 0 ? options.count : (options.rate_hz > 0 ? 0 : 1);
  long sent = 0;
  long failed = 0;
  const auto period = options.rate_hz > 0
                          ? std::chrono::nanoseconds(static_cast<long>(1e9 / options.rate_hz))
                          : std::chrono::nanoseconds(0);
  auto next = std::chrono::steady_clock::now();
  auto first_sent = next;
  auto last_sent = next;
  while (!Interrupted() && (total == 0 || sent + failed < total)) {
    if (publisher.Publish(*message)) {
      last_sent = std::chrono::steady_clock::now();
      if (sent++ == 0)
        first_sent = last_sent;
    } else {
      ++failed;
    }
    if (total != 0 && sent + failed >= total)
      break;
    next += period;
    SleepUnlessInterrupted(std::chrono::duration_cast<std::chrono::milliseconds>(
        next - std::chrono::steady_clock::now()));
  }
  // Reliable delivery of the last message before the publisher goes.
  SleepUnlessInterrupted(std::chrono::milliseconds(100));
  const std::string failures = failed ? ", " + std::to_string(failed) + " failed" : "";
  if (sent > 1) {
    const double span = std::chrono::duration<double>(last_sent - first_sent).count();
    std::fprintf(stderr, "published %ld messages to '%s', mean rate %.2f Hz%s\n", sent,
                 options.topic.c_str(), span > 0 ? static_cast<double>(sent - 1) / span : 0.0,
                 failures.c_str());
  } else {
    std::fprintf(stderr, "published %ld message%s to '%s'%s\n", sent, sent == 1 ? "" : "s",
                 options.topic.c_str(), failures.c_str());
  }
  return failed == 0 ? kExitOk : kExitFailure;
}

}  // namespace

void AddTopicCommands(CLI::App& app, int* exit_code) {
  CLI::App* topic = app.add_subcommand("topic", "Topics: list, inspect, print, measure, publish");
  topic->require_subcommand(1);

  static CommonOptions list_options;
  static bool with_types = false;
  CLI::App* list = topic->add_subcommand("list", "Every topic on the bus");
  list->add_flag("-t,--types", with_types, "Show each topic's type");
  AddCommonOptions(list, &list_options);
  list->callback([=] { *exit_code = ListTopics(with_types, list_options); });

  static CommonOptions info_options;
  static std::string info_topic;
  CLI::App* info = topic->add_subcommand(
      "info", "A topic's type, and its publishers and subscribers with where they run and QoS");
  info->add_option("TOPIC", info_topic, "Topic name")->required();
  AddCommonOptions(info, &info_options);
  info->callback([=] { *exit_code = TopicInfo(info_topic, info_options); });

  static EchoOptions echo_options;
  CLI::App* echo = topic->add_subcommand(
      "echo", "Prints each message (text format, or JSON with --json), of any type on the bus");
  echo->add_option("TOPIC", echo_options.topic, "Topic name")->required();
  echo->add_option("-n,--count", echo_options.count, "Stop after N messages")
      ->check(CLI::PositiveNumber);
  echo->add_option("--field", echo_options.field,
                   "Print only this field (dotted path, e.g. pose.position.x)");
  AddCommonOptions(echo, &echo_options.common);
  echo->callback([=] { *exit_code = Echo(echo_options); });

  AddTopicMeasureCommands(topic, exit_code);

  static PubOptions pub_options;
  CLI::App* pub =
      topic->add_subcommand("pub", "Publishes a message given as protobuf text format or JSON");
  pub->add_option("TOPIC", pub_options.topic, "Topic name")->required();
  pub->add_option("TYPE", pub_options.type, "Full protobuf type name, as the bus describes it")
      ->required();
  pub->add_option("VALUE", pub_options.value,
                  "The message: text format ('x: 1 y: 2') or JSON ('{\"x\": 1}')")
      ->required();
  pub->add_option("-r,--rate", pub_options.rate_hz, "Publish repeatedly at this rate (Hz)")
      ->check(CLI::PositiveNumber);
  pub->add_option("-n,--count", pub_options.count,
                  "Number of messages (default: 1, or until Ctrl-C with --rate)")
      ->check(CLI::PositiveNumber);
  AddCommonOptions(pub, &pub_options.common, false);
  pub->callback([=] { *exit_code = Pub(pub_options); });
}

}  // namespace korvan_cli
