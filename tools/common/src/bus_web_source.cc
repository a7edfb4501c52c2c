#include "korvan/tools/bus_web_source.h"

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/message.h>

#include <algorithm>
#include <set>

#include "korvan/tools/dynamic_endpoints.h"
#include "korvan/tools/param_json.h"
#include "korvan/tools/raw_subscriber.h"
#include "korvan/tools/text_codec.h"
#include "korvan/tools/wire_stamps.h"
#include "korvan/web/topic_meter.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/parameter/parameter_client.h"
#include "tarvikdds/proto/app_messages.pb.h"

namespace tarvik {
namespace korvan {
namespace tools {
namespace {

using inf::MutexLock;
using quessa::messages::internal::AppSignal;

// The lifecycle signals an application publishes on "<app>/<suffix>", in the library's order.
enum Signal {
  kPreInit,
  kPostInit,
  kFailedInit,
  kPreProc,
  kPostProc,
  kFailedProc,
  kPreFinalize,
  kPostFinalize,
  kFailedFinalize,
  kSignalCount
};
constexpr const char* kSignalSuffixes[kSignalCount] = {
    "pre_init",    "post_init",    "failed_init",   "pre_proc",       "post_proc",
    "failed_proc", "pre_finalize", "post_finalize", "failed_finalize"};

int64_t WallNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

int64_t SteadyNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// The application and signal a topic carries, when it is a lifecycle signal topic.
bool SignalTopic(const std::string& topic, const std::string& type, std::string* app, int* signal) {
  if (type != AppSignal::descriptor()->full_name())
    return false;
  const size_t slash = topic.rfind('/');
  if (slash == std::string::npos || slash == 0)
    return false;
  const std::string suffix = topic.substr(slash + 1);
  for (int s = 0; s < kSignalCount; ++s) {
    if (suffix == kSignalSuffixes[s]) {
      *app = topic.substr(0, slash);
      *signal = s;
      return true;
    }
  }
  return false;
}

std::vector<std::string> NodeNames(const std::vector<EndpointRef>& endpoints) {
  std::vector<std::string> names;
  for (const auto& e : endpoints) {
    if (std::find(names.begin(), names.end(), e.node_name) == names.end())
      names.push_back(e.node_name);
  }
  return names;
}

// The description hash of `type` as the topic's endpoints (publishers first) carry it.
uint64_t HashOf(const TopicRef& topic, const std::string& type) {
  for (const auto* list : {&topic.publishers, &topic.subscribers}) {
    for (const auto& e : *list) {
      if (e.type_name == type && e.type_hash != 0)
        return e.type_hash;
    }
  }
  return 0;
}

std::string SchemaOf(const BusSnapshot& snapshot, const std::string& type, uint64_t hash) {
  const bus::TypeDescription* description = snapshot.FindType(type, hash);
  if (description == nullptr && hash != 0)
    description = snapshot.FindType(type, 0);
  return description != nullptr ? description->descriptor_set : std::string();
}

// Both types' files in one set, each file once and after its imports.
std::string MergeSchemas(const std::string& a, const std::string& b) {
  if (a.empty() || b.empty() || a == b)
    return a.empty() || b.empty() ? std::string() : a;
  google::protobuf::FileDescriptorSet first, second;
  if (!first.ParseFromString(a) || !second.ParseFromString(b))
    return {};
  std::set<std::string> names;
  for (const auto& file : first.file())
    names.insert(file.name());
  for (const auto& file : second.file()) {
    if (names.insert(file.name()).second)
      *first.add_file() = file;
  }
  return first.SerializeAsString();
}

web::Graph BuildGraph(const BusSnapshot& snapshot) {
  web::Graph graph;
  for (const auto& node : snapshot.nodes)
    graph.nodes.push_back({node.name, node.process.app_name});
  for (const auto& [name, topic] : snapshot.topics) {
    web::TopicInfo info;
    info.name = name;
    const auto types = topic.TypeNames();
    if (!types.empty()) {
      info.type = types.front();
      info.schema = SchemaOf(snapshot, info.type, HashOf(topic, info.type));
    }
    info.publishers = NodeNames(topic.publishers);
    info.subscribers = NodeNames(topic.subscribers);
    graph.topics.push_back(std::move(info));
  }
  for (const auto& [name, service] : snapshot.services) {
    web::ServiceInfo info;
    info.name = name;
    info.request_type = service.request_type;
    info.response_type = service.response_type;
    uint64_t request_hash = 0;
    for (const auto& e : service.servers) {
      if (e.type_name == service.request_type && e.type_hash != 0) {
        request_hash = e.type_hash;
        break;
      }
    }
    if (!info.request_type.empty() && !info.response_type.empty()) {
      info.schema = MergeSchemas(SchemaOf(snapshot, info.request_type, request_hash),
                                 SchemaOf(snapshot, info.response_type, 0));
    }
    info.providers = NodeNames(service.servers);
    graph.services.push_back(std::move(info));
  }
  return graph;
}

web::Result<web::Parameter> ToWeb(const Param& param) {
  web::Parameter out;
  out.name = param.name();
  out.type = ParamTypeName(param);
  std::string problem;
  if (!ParamValueJson(param, &out.value_json, &problem))
    return web::Result<web::Parameter>::Fail(param.name() + ": " + problem);
  return web::Result<web::Parameter>::Ok(std::move(out));
}

std::string Seconds(std::chrono::seconds s) {
  return std::to_string(s.count()) + " s";
}

}  // namespace

struct BusWebSource::Tap {
  std::string topic;
  std::string type_name;
  // A lifecycle signal topic: the application and the signal.
  std::string app;
  int signal = -1;
  web::TopicMeter meter;

  // Read and written under the source's mu_: the subscription, open while the topic is wanted,
  // and whether it only samples.
  std::unique_ptr<RawSubscriber> reader;
  bool sampling = false;

  inf::Mutex mu;
  // Held while callbacks run, so Unsubscribe returns only when its callback is done.
  std::map<uint64_t, MessageCallback> callbacks KORVAN_GUARDED_BY(mu);
  // The stamp fields of each description seen on the topic, by fingerprint.
  std::map<uint64_t, StampLayout> layouts KORVAN_GUARDED_BY(mu);
  // The last number heard from each publisher.
  std::map<uint64_t, uint64_t> last_sequence KORVAN_GUARDED_BY(mu);

  // How many messages a received one stands for: itself and those of its publisher before it
  // that this reader did not take (sampled, or dropped); none when it was counted already.
  uint64_t Counted(const RawReceived& info) KORVAN_REQUIRES(mu) {
    if (info.writer_key == 0)
      return 1;  // unnumbered: from this process
    if (last_sequence.size() > 256)
      last_sequence.clear();  // publishers come and go
    auto [it, first] = last_sequence.emplace(info.writer_key, info.sequence);
    if (first)
      return 1;
    if (info.sequence <= it->second)
      return 0;
    const uint64_t count = info.sequence - it->second;
    it->second = info.sequence;
    return count;
  }
};

BusWebSource::BusWebSource(quessa::Node& node, TypeCatalog& catalog)
    : BusWebSource(node, catalog, Options()) {}

BusWebSource::BusWebSource(quessa::Node& node, TypeCatalog& catalog, Options options)
    : node_(node), catalog_(catalog), options_(options) {
  Tick();  // the first picture is there before the server asks
  thread_ = std::thread([this] { Run(); });
}

BusWebSource::~BusWebSource() {
  {
    MutexLock lock(&wake_mu_);
    stopping_ = true;
  }
  wake_.SignalAll();
  thread_.join();
  Closing closing;
  {
    MutexLock lock(&mu_);
    for (auto& [name, tap] : taps_) {
      if (tap->reader)
        closing.emplace_back(tap, std::move(tap->reader));
    }
  }
  closing.clear();  // each waits for its running callback
  MutexLock lock(&clients_mu_);
  service_clients_.clear();
  param_clients_.clear();
}

void BusWebSource::Run() {
  for (;;) {
    {
      MutexLock lock(&wake_mu_);
      const auto deadline = std::chrono::steady_clock::now() + options_.refresh;
      while (!stopping_ && !refresh_now_) {
        if (!wake_.WaitUntil(&wake_mu_, deadline) && std::chrono::steady_clock::now() >= deadline)
          break;
      }
      if (stopping_)
        return;
      refresh_now_ = false;
    }
    Tick();
  }
}

void BusWebSource::RefreshNow() {
  {
    MutexLock lock(&wake_mu_);
    refresh_now_ = true;
  }
  wake_.SignalAll();
}

bool BusWebSource::StatsWanted() const {
  return SteadyNs() < stats_wanted_until_.load(std::memory_order_relaxed);
}

void BusWebSource::Tick() {
  BusSnapshot snapshot;
  if (!BusSnapshot::Take(&snapshot))
    return;
  web::Graph graph = BuildGraph(snapshot);

  // Stamp layouts of every description the topics are written with, learnt once per
  // fingerprint (a description that does not build has none: no delay for it).
  std::map<std::string, std::map<uint64_t, StampLayout>> layouts;
  for (const auto& [name, topic] : snapshot.topics) {
    for (const auto& p : topic.publishers) {
      if (p.type_hash == 0 || unbuildable_.count(p.type_hash) != 0)
        continue;
      const bus::TypeDescription* description = snapshot.FindType(p.type_name, p.type_hash);
      if (description == nullptr)
        continue;
      const DynamicType* type =
          catalog_.Load(p.type_name, description->descriptor_set, p.type_hash, nullptr);
      if (type != nullptr)
        layouts[name][p.type_hash] = StampLayout::Of(type->descriptor);
      else
        unbuildable_.insert(p.type_hash);
    }
  }

  const bool stats = StatsWanted();
  std::set<std::string> apps_on_bus;
  Closing closing;
  bool changed = false;
  {
    MutexLock lock(&mu_);
    const std::string signature = snapshot.Signature();
    changed = signature != signature_;
    signature_ = signature;
    snapshot_ = std::move(snapshot);
    graph_ = std::move(graph);

    for (const auto& [name, topic] : snapshot_.topics) {
      const auto types = topic.TypeNames();
      auto it = taps_.find(name);
      if (it == taps_.end()) {
        if (topic.publishers.empty() || types.empty())
          continue;
        auto tap = std::make_shared<Tap>();
        tap->topic = name;
        tap->type_name = types.front();
        SignalTopic(name, tap->type_name, &tap->app, &tap->signal);
        it = taps_.emplace(name, std::move(tap)).first;
      }
      Tap& tap = *it->second;
      if (tap.signal >= 0 && !topic.publishers.empty())
        apps_on_bus.insert(tap.app);
      bool streamed;
      {
        MutexLock tap_lock(&tap.mu);
        streamed = !tap.callbacks.empty();
        for (const auto& [hash, layout] : layouts[name])
          tap.layouts[hash] = layout;
      }
      // Another type under the same name: the reader must name the publishers' type.
      if (!types.empty() && types.front() != tap.type_name) {
        if (tap.reader)
          closing.emplace_back(it->second, std::move(tap.reader));
        tap.type_name = types.front();
      }
      const bool wanted = streamed || (stats && !topic.publishers.empty());
      if (wanted) {
        Open(it->second, !streamed && tap.signal < 0, &closing);
      } else if (tap.reader) {
        closing.emplace_back(it->second, std::move(tap.reader));
      }
    }
    // Topics that left the bus: their readers close; a streamed one keeps its tap, as the
    // topic may come back.
    for (auto it = taps_.begin(); it != taps_.end();) {
      if (snapshot_.topics.count(it->first) != 0) {
        ++it;
        continue;
      }
      bool streamed;
      {
        MutexLock tap_lock(&it->second->mu);
        streamed = !it->second->callbacks.empty();
      }
      if (streamed) {
        ++it;
        continue;
      }
      if (it->second->reader)
        closing.emplace_back(it->second, std::move(it->second->reader));
      it = taps_.erase(it);
    }
  }
  closing.clear();  // outside the lock: each waits for its running callback

  {
    MutexLock lock(&apps_mu_);
    for (const auto& app : apps_on_bus) {
      if (apps_.count(app) == 0)
        apps_[app].phase = "unknown";  // on the bus, no signal heard yet
    }
    for (auto& [name, state] : apps_)
      state.on_bus = apps_on_bus.count(name) != 0;
  }

  if (changed) {
    MutexLock lock(&change_mu_);
    if (on_change_)
      on_change_();
  }
}

void BusWebSource::Open(const std::shared_ptr<Tap>& shared, bool sampling, Closing* closing) {
  Tap& tap = *shared;
  if (tap.reader) {
    if (tap.sampling == sampling)
      return;
    // The new reader opens before the old one closes: nothing is missed meanwhile, and what
    // both hear is counted once by its number.
    closing->emplace_back(shared, std::move(tap.reader));
  }
  // Lifecycle signals are few and matter each: heard reliably, and from the history of
  // publishers that keep one. Data topics are read best-effort: a busy topic drops here, it
  // never waits for this reader.
  int32_t reliable = 0;
  int32_t durable = 0;
  if (tap.signal >= 0) {
    reliable = 1;
    durable = 1;
    const TopicRef* topic = snapshot_.FindTopic(tap.topic);
    for (const auto& p : topic != nullptr ? topic->publishers : std::vector<EndpointRef>()) {
      reliable = reliable && p.reliability != 2;
      durable = durable && p.durability == 2;
    }
  }
  Tap* raw = &tap;
  tap.sampling = sampling;
  tap.reader = std::make_unique<RawSubscriber>(
      node_, tap.topic, tap.type_name,
      ListeningQos(reliable, durable, sampling ? options_.sample_depth : options_.queue_depth),
      [this, raw, sampling](std::string&& bytes, const RawReceived& info) {
        const int64_t receive_ns =
            info.receive_time_ns != 0 ? static_cast<int64_t>(info.receive_time_ns) : WallNs();
        std::optional<int64_t> publish_ns;
        MutexLock lock(&raw->mu);
        auto layout = raw->layouts.find(info.type_hash);
        if (layout == raw->layouts.end() && info.type_hash == 0 && !raw->layouts.empty())
          layout = raw->layouts.begin();
        if (layout != raw->layouts.end() && layout->second.any()) {
          WireStamps stamps;
          if (ReadWireStamps(bytes.data(), bytes.size(), layout->second, &stamps) &&
              stamps.has_publish_ts && stamps.publish_ts != 0) {
            publish_ns = static_cast<int64_t>(stamps.publish_ts);
          }
        }
        raw->meter.Record(receive_ns, publish_ns, bytes.size(), raw->Counted(info));
        if (raw->signal >= 0)
          OnSignal(raw->app, raw->signal, bytes);
        if (sampling || raw->callbacks.empty())
          return;  // streams are fed by the whole reader only
        web::ReceivedMessage message;
        message.receive_ns = receive_ns;
        message.publish_ns = publish_ns;
        message.payload = bytes;
        for (const auto& [handle, callback] : raw->callbacks)
          callback(message);
      },
      sampling ? options_.sample_interval : std::chrono::milliseconds(0));
}

void BusWebSource::OnSignal(const std::string& app, int signal, const std::string& bytes) {
  AppSignal message;
  if (!message.ParsePartialFromString(bytes))
    return;
  const uint64_t frame = message.frame();
  MutexLock lock(&apps_mu_);
  AppState& state = apps_[app];
  const bool stopping = state.finalized || state.phase == "stopping" || state.phase == "stopped";
  switch (signal) {
    case kPreInit:
      state = AppState();  // a fresh start forgets the last run
      state.phase = "starting";
      state.frame = frame;
      return;
    case kPostInit:
      state.phase = "ready";
      break;
    case kFailedInit:
      state.phase = "failed";
      state.failed = true;
      state.failure = "init: " + message.error();
      break;
    case kPreProc:
    case kPostProc:
      // Proc signals of the last frames may overtake the finalize signals (other topics).
      if (stopping)
        return;
      if (state.phase != "failed")
        state.phase = "running";
      if (signal == kPostProc && state.failed && state.failed_frame != 0 &&
          frame > state.failed_frame) {
        state.failed = false;  // a later frame went through
        state.failure.clear();
        state.failed_frame = 0;
      }
      break;
    case kFailedProc:
      if (stopping)
        return;
      state.failed = true;
      state.failed_frame = std::max<uint64_t>(frame, 1);
      state.failure = "proc (frame " + std::to_string(frame) + "): " + message.error();
      break;
    case kPreFinalize:
      // Each signal has a topic of its own, so the end of finalize may be heard before its start.
      if (state.finalized)
        return;
      state.phase = "stopping";
      break;
    case kPostFinalize:
      state.phase = "stopped";
      state.finalized = true;
      break;
    case kFailedFinalize:
      state.finalized = true;
      state.phase = "failed";
      state.failed = true;
      state.failure = "finalize: " + message.error();
      break;
    default:
      return;
  }
  state.frame = std::max(state.frame, frame);
}

web::Graph BusWebSource::GetGraph() {
  MutexLock lock(&mu_);
  return graph_;
}

std::vector<web::ApplicationInfo> BusWebSource::GetApplications() {
  const bool was_wanted = StatsWanted();
  stats_wanted_until_.store(SteadyNs() + std::chrono::nanoseconds(options_.stats_linger).count(),
                            std::memory_order_relaxed);
  if (!was_wanted)
    RefreshNow();  // open the signal topics now, not at the next tick
  std::vector<web::ApplicationInfo> apps;
  MutexLock lock(&apps_mu_);
  for (const auto& [name, state] : apps_) {
    web::ApplicationInfo info;
    info.name = name;
    info.phase = state.phase;
    if (!state.on_bus && state.phase != "stopped" && state.phase != "failed")
      info.phase = "gone";  // left without finalizing
    info.frame = state.frame;
    info.failed = state.failed;
    info.failure = state.failure;
    apps.push_back(std::move(info));
  }
  return apps;
}

std::vector<web::TopicStats> BusWebSource::GetStats() {
  const bool was_wanted = StatsWanted();
  stats_wanted_until_.store(SteadyNs() + std::chrono::nanoseconds(options_.stats_linger).count(),
                            std::memory_order_relaxed);
  if (!was_wanted)
    RefreshNow();
  const int64_t now = WallNs();
  std::vector<web::TopicStats> stats;
  MutexLock lock(&mu_);
  for (const auto& [name, tap] : taps_) {
    if (!tap->reader)
      continue;
    web::TopicStats s = tap->meter.Snapshot(now);
    s.topic = name;
    stats.push_back(std::move(s));
  }
  return stats;
}

uint64_t BusWebSource::Subscribe(const std::string& topic, MessageCallback callback) {
  Closing closing;  // destroyed after the lock is released
  MutexLock lock(&mu_);
  auto it = taps_.find(topic);
  if (it == taps_.end()) {
    const TopicRef* seen = snapshot_.FindTopic(topic);
    if (seen == nullptr)
      return 0;
    const auto types = seen->TypeNames();
    if (types.empty())
      return 0;
    auto tap = std::make_shared<Tap>();
    tap->topic = topic;
    tap->type_name = types.front();
    SignalTopic(topic, tap->type_name, &tap->app, &tap->signal);
    it = taps_.emplace(topic, std::move(tap)).first;
  }
  Open(it->second, false, &closing);
  if (!it->second->reader || !it->second->reader->ok())
    return 0;
  const uint64_t handle = next_handle_++;
  {
    MutexLock tap_lock(&it->second->mu);
    it->second->callbacks[handle] = std::move(callback);
  }
  handles_[handle] = it->second;
  return handle;
}

void BusWebSource::Unsubscribe(uint64_t handle) {
  MutexLock lock(&mu_);
  auto it = handles_.find(handle);
  if (it == handles_.end())
    return;
  {
    MutexLock tap_lock(&it->second->mu);  // waits for a running callback
    it->second->callbacks.erase(handle);
  }
  handles_.erase(it);
  // The reader closes at the next tick when nothing else wants the topic.
}

void BusWebSource::SetChangeCallback(std::function<void()> on_change) {
  MutexLock lock(&change_mu_);
  on_change_ = std::move(on_change);
}

std::vector<std::string> BusWebSource::ReadTopics() const {
  std::vector<std::string> names;
  MutexLock lock(&mu_);
  for (const auto& [name, tap] : taps_) {
    if (tap->reader)
      names.push_back(name);
  }
  return names;
}

web::Result<std::string> BusWebSource::DecodeToJson(const std::string& type,
                                                    std::string_view payload) {
  using R = web::Result<std::string>;
  std::vector<const DynamicType*> loaded = catalog_.Loaded(type);
  const DynamicType* dynamic = loaded.empty() ? nullptr : loaded.front();
  std::string problem;
  if (dynamic == nullptr)
    dynamic = catalog_.FromBus(type, 0, std::chrono::seconds(1), &problem);
  if (dynamic == nullptr)
    return R::Fail(problem.empty() ? "unknown type " + type : problem);
  std::shared_ptr<google::protobuf::Message> message = dynamic->operations->New();
  if (!message->ParsePartialFromArray(payload.data(), static_cast<int>(payload.size())))
    return R::Fail("the bytes are not a " + type);
  return R::Ok(ToJson(*message));
}

BusWebSource::ServiceEnd BusWebSource::ClientOf(const std::string& service, std::string* problem) {
  std::string request_type, response_type;
  uint64_t request_hash = 0;
  {
    MutexLock lock(&mu_);
    const ServiceRef* found = snapshot_.FindService(service);
    if (found == nullptr || found->servers.empty()) {
      *problem = "no service " + service + " on the bus";
      return {};
    }
    request_type = found->request_type;
    response_type = found->response_type;
    request_hash = found->servers.front().type_hash;
  }
  const std::string key = service + "#" + std::to_string(request_hash);
  {
    MutexLock lock(&clients_mu_);
    auto it = service_clients_.find(key);
    if (it != service_clients_.end())
      return it->second;
  }
  const DynamicType* request =
      catalog_.FromBus(request_type, request_hash, std::chrono::seconds(1), problem);
  if (request == nullptr && request_hash != 0)
    request = catalog_.FromBus(request_type, 0, std::chrono::seconds(1), problem);
  const DynamicType* response =
      request != nullptr ? catalog_.FromBus(response_type, 0, std::chrono::seconds(1), problem)
                         : nullptr;
  if (request == nullptr || response == nullptr)
    return {};
  ServiceEnd end{std::make_shared<DynamicClient>(node_, service, *request, *response), request};
  if (!end.client->ok()) {
    *problem = "cannot make a client of " + service;
    return {};
  }
  // A new client needs its match with the service before the first call is heard at once.
  end.client->WaitForService(std::chrono::milliseconds(2000));
  MutexLock lock(&clients_mu_);
  return service_clients_.emplace(key, end).first->second;
}

web::Result<std::string> BusWebSource::CallService(const std::string& service,
                                                   web::Encoding encoding,
                                                   std::string_view request) {
  using R = web::Result<std::string>;
  std::string problem;
  ServiceEnd end = ClientOf(service, &problem);
  if (!end.client)
    return R::Fail(problem);
  std::shared_ptr<google::protobuf::Message> message = end.request->operations->New();
  if (encoding == web::Encoding::kProtobuf) {
    if (!message->ParsePartialFromArray(request.data(), static_cast<int>(request.size())))
      return R::Fail("the request is not a " + message->GetTypeName());
  } else {
    const std::string text(request.empty() ? std::string_view("{}") : request);
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos || text[first] != '{')
      return R::Fail("the request is given as a JSON object");
    if (!ParseMessageText(text, message.get(), &problem))
      return R::Fail("the request is not a " + message->GetTypeName() + ": " + problem);
  }
  if (!message->IsInitialized())
    return R::Fail("the request lacks " + message->InitializationErrorString());
  std::shared_ptr<google::protobuf::Message> response = end.client->Call(
      *message, std::chrono::duration_cast<std::chrono::milliseconds>(options_.call_timeout));
  if (!response)
    return R::Fail("no answer from " + service + " within " + Seconds(options_.call_timeout));
  if (encoding == web::Encoding::kJson)
    return R::Ok(ToJson(*response));
  return R::Ok(response->SerializePartialAsString());
}

std::shared_ptr<ParameterClient> BusWebSource::ParamsOf(const std::string& node,
                                                        std::string* problem) {
  {
    MutexLock lock(&mu_);
    const ServiceRef* found = snapshot_.FindService(node + "/list_parameters");
    if (found == nullptr || found->servers.empty()) {
      *problem = "node " + node + " serves no parameters";
      return nullptr;
    }
  }
  MutexLock lock(&clients_mu_);
  auto& client = param_clients_[node];
  if (!client)
    client = std::make_shared<ParameterClient>(&node_, node);
  return client;
}

web::Result<web::Parameter> BusWebSource::FetchParameter(ParameterClient& client,
                                                         const std::string& node,
                                                         const std::string& name) {
  Parameter parameter;
  if (!client.GetParameter(name, &parameter, options_.call_timeout)) {
    return web::Result<web::Parameter>::Fail("node " + node + " has no parameter " + name +
                                             " or did not answer within " +
                                             Seconds(options_.call_timeout));
  }
  return ToWeb(parameter.ToProtoParam());
}

web::Result<std::vector<web::Parameter>> BusWebSource::ListParameters(const std::string& node) {
  using R = web::Result<std::vector<web::Parameter>>;
  std::string problem;
  std::shared_ptr<ParameterClient> client = ParamsOf(node, &problem);
  if (!client)
    return R::Fail(problem);
  std::vector<Parameter> parameters;
  if (!client->ListParameters(&parameters, options_.call_timeout))
    return R::Fail("node " + node + " did not list its parameters within " +
                   Seconds(options_.call_timeout));
  std::vector<web::Parameter> out;
  for (const auto& p : parameters) {
    web::Result<web::Parameter> converted = ToWeb(p.ToProtoParam());
    if (converted.ok()) {
      out.push_back(std::move(*converted.value));
    } else {
      // Shown, not dropped: the table says what could not be read (not JSON: shown as text).
      const Param param = p.ToProtoParam();
      out.push_back({param.name(), ParamTypeName(param), converted.error});
    }
  }
  std::sort(out.begin(), out.end(),
            [](const web::Parameter& a, const web::Parameter& b) { return a.name < b.name; });
  return R::Ok(std::move(out));
}

web::Result<web::Parameter> BusWebSource::GetParameter(const std::string& node,
                                                       const std::string& name) {
  std::string problem;
  std::shared_ptr<ParameterClient> client = ParamsOf(node, &problem);
  if (!client)
    return web::Result<web::Parameter>::Fail(problem);
  return FetchParameter(*client, node, name);
}

web::Result<web::Parameter> BusWebSource::SetParameter(const std::string& node,
                                                       const std::string& name,
                                                       const std::string& value_json) {
  using R = web::Result<web::Parameter>;
  std::string problem;
  std::shared_ptr<ParameterClient> client = ParamsOf(node, &problem);
  if (!client)
    return R::Fail(problem);
  // The value is read as the type the node holds now.
  Parameter current;
  if (!client->GetParameter(name, &current, options_.call_timeout))
    return R::Fail("node " + node + " has no parameter " + name);
  const Param held = current.ToProtoParam();
  Param next;
  if (!ParamWithJsonValue(held, value_json, &next, &problem))
    return R::Fail(name + " is " + ParamTypeName(held) + ": " + problem);
  Parameter parameter;
  parameter.FromProtoParam(next);
  const bool accepted = client->SetParameter(parameter, options_.call_timeout);
  R now = FetchParameter(*client, node, name);
  if (!accepted) {
    return R::Fail("node " + node + " refused the value" +
                   (now.ok() ? "; it holds " + now.value->value_json : std::string()));
  }
  return now;
}

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
