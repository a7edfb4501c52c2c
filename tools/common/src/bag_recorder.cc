#include "korvan/tools/bag_recorder.h"

#include <sys/stat.h>

#include <algorithm>

#include "infra/time.h"
#include "korvan/bus/lumis_component.h"
#include "korvan/mcap/protobuf_schema.h"
#include "korvan/tools/dynamic_endpoints.h"
#include "korvan/tools/raw_subscriber.h"
#include "tarvikdds/messaging/dds_node.h"

namespace tarvik {
namespace korvan {
namespace tools {
namespace {

// A queued message's weight besides its bytes, so that a flood of tiny messages is bounded too.
constexpr size_t kItemOverhead = 64;
// The writer wakes at once when this much is queued; otherwise every kWriterTick.
constexpr size_t kWakeBytes = size_t{1} << 20;
constexpr auto kWriterTick = std::chrono::milliseconds(20);
// How long a description that is not in the snapshot yet is looked for on the bus.
constexpr auto kDescriptionWait = std::chrono::seconds(1);

bool Splitting(const mcap::SplitOptions& split) {
  return split.max_bytes != 0 || split.max_duration_ns != 0;
}

uint64_t FileSize(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

}  // namespace

std::map<std::string, std::string> QosMetadata(const EndpointRef& publisher) {
  // EndpointRef holds the bus configuration's numbers: 2 is keep-all, transient-local,
  // best-effort.
  return {
      {"reliability", publisher.reliability == 2 ? "best_effort" : "reliable"},
      {"durability", publisher.durability == 2 ? "transient_local" : "volatile"},
      {"history", publisher.history == 2 ? "keep_all" : "keep_last"},
      {"depth", std::to_string(publisher.depth > 0 ? publisher.depth : 10)},
  };
}

quessa::QoS QosFromMetadata(const std::map<std::string, std::string>& metadata) {
  quessa::QoS qos;
  qos.history_type = 0;
  qos.history_depth = 100;
  qos.durability = 1;
  qos.reliability = 1;
  auto get = [&](const char* key) {
    auto it = metadata.find(key);
    return it == metadata.end() ? std::string() : it->second;
  };
  if (get("reliability") == "best_effort")
    qos.reliability = 2;
  if (get("durability") == "transient_local")
    qos.durability = 2;
  if (get("history") == "keep_all")
    qos.history_type = 1;
  const std::string depth = get("depth");
  if (!depth.empty() && depth.size() < 7 &&
      std::all_of(depth.begin(), depth.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    const unsigned long value = std::stoul(depth);
    if (value > 0)
      qos.history_depth = static_cast<uint32_t>(value);
  }
  return qos;
}

BagRecorder::BagRecorder(quessa::Node& node, TypeCatalog& catalog, RecorderOptions options)
    : node_(node), catalog_(catalog), options_(std::move(options)) {}

BagRecorder::~BagRecorder() {
  if (started_ && !stopped_)
    Stop();
}

mcap::Status BagRecorder::Start() {
  if (started_)
    return mcap::Status::Error("the recorder was started already");
  mcap::Status status;
  if (Splitting(options_.split)) {
    split_ = std::make_unique<mcap::SplitWriter>(options_.output, options_.writer, options_.split);
  } else {
    single_ = std::make_unique<mcap::Writer>();
    status = single_->Open(options_.output, options_.writer);
    if (!status.ok())
      return status;
    inf::MutexLock lock(&known_mutex_);
    files_.push_back(options_.output);
  }
  started_ = true;
  writer_thread_ = std::thread([this] { WriterLoop(); });
  return status;
}

std::vector<std::string> BagRecorder::Subscribe(const BusSnapshot& snapshot) {
  std::vector<std::string> added;
  if (!started_ || stopped_)
    return added;
  {
    inf::MutexLock lock(&known_mutex_);
    for (const bus::TypeDescription& d : snapshot.types)
      descriptions_.emplace(d.type_hash, d);
    for (TopicState& topic : topics_) {
      const TopicRef* seen = snapshot.FindTopic(topic.name);
      if (seen == nullptr || seen->publishers.empty())
        continue;
      topic.publishers = seen->publishers;
      if (topic.type_name.empty())
        topic.type_name = seen->publishers.front().type_name;
    }
  }
  // Named topics are subscribed at once, publishers or not, so that a publisher that starts
  // later loses nothing to the discovery poll; -a takes the topics that have publishers.
  std::vector<std::pair<std::string, const TopicRef*>> wanted;
  if (options_.all_topics) {
    for (const auto& [name, topic] : snapshot.topics) {
      if (!topic.publishers.empty())
        wanted.emplace_back(name, &topic);
    }
  } else {
    for (const std::string& name : options_.topics)
      wanted.emplace_back(name, snapshot.FindTopic(name));
  }
  for (const auto& [name, topic] : wanted) {
    const bool has_publishers = topic != nullptr && !topic->publishers.empty();
    bool all_reliable = true;
    bool all_durable = has_publishers;
    if (has_publishers) {
      for (const EndpointRef& p : topic->publishers) {
        all_reliable = all_reliable && p.reliability != 2;
        all_durable = all_durable && p.durability == 2;
      }
    }
    auto existing = subscribers_.find(name);
    if (existing != subscribers_.end()) {
      // A reader made before any publisher was seen is reliable, and a best-effort writer
      // does not match it: it is made again to suit (it cannot have received anything from
      // that writer).
      if (!existing->second.blind || !has_publishers)
        continue;
      existing->second.blind = false;
      if (all_reliable)
        continue;
    }
    uint32_t index;
    std::string type_name = has_publishers ? topic->publishers.front().type_name : std::string();
    if (existing != subscribers_.end()) {
      index = existing->second.topic;
      existing->second.subscriber.reset();
    } else {
      inf::MutexLock lock(&known_mutex_);
      index = static_cast<uint32_t>(topics_.size());
      topics_.push_back(TopicState{
          name, type_name, has_publishers ? topic->publishers : std::vector<EndpointRef>()});
    }
    quessa::QoS qos = ListeningQos(all_reliable, all_durable, options_.queue_depth);
    if (options_.queue_depth == 0)
      qos.history_type = 1;  // keep-all
    auto subscriber = std::make_unique<RawSubscriber>(
        node_, name, type_name, qos, [this, index](std::string&& bytes, const RawReceived& info) {
          Push(index, std::move(bytes), info.type_hash, info.receive_time_ns);
        });
    Subscription& entry = subscribers_[name];
    entry.subscriber = std::move(subscriber);
    entry.topic = index;
    entry.blind = !has_publishers;
    if (existing == subscribers_.end())
      added.push_back(name + (type_name.empty() ? "" : " [" + type_name + "]"));
  }
  return added;
}

void BagRecorder::Push(uint32_t topic, std::string&& bytes, uint64_t type_hash,
                       uint64_t receive_time_ns) {
  received_.fetch_add(1, std::memory_order_relaxed);
  const size_t weight = bytes.size() + kItemOverhead;
  inf::MutexLock lock(&queue_mutex_);
  if (queue_bytes_ != 0 && queue_bytes_ + weight > options_.max_pending_bytes) {
    dropped_.fetch_add(1, std::memory_order_relaxed);
    queue_ready_.Signal();
    return;
  }
  queue_.push_back(Pending{topic, type_hash, receive_time_ns, std::move(bytes)});
  queue_bytes_ += weight;
  if (queue_bytes_ >= kWakeBytes)
    queue_ready_.Signal();
}

void BagRecorder::WriterLoop() {
  auto next_flush = std::chrono::steady_clock::now() + options_.flush_interval;
  std::vector<Pending> batch;
  for (;;) {
    bool stop;
    {
      inf::MutexLock lock(&queue_mutex_);
      const auto until = std::min(next_flush, std::chrono::steady_clock::now() + kWriterTick);
      while (!stopping_ && queue_bytes_ < kWakeBytes &&
             queue_ready_.WaitUntil(&queue_mutex_, until)) {
      }
      batch.swap(queue_);
      queue_bytes_ = 0;
      stop = stopping_;
    }
    for (Pending& item : batch)
      WriteOne(item);
    batch.clear();
    const auto now = std::chrono::steady_clock::now();
    if (now >= next_flush || stop) {
      // The open chunk goes to the file: what a crash can lose is bounded by the interval.
      mcap::Status status = OutputFlush();
      if (!status.ok())
        SetError(status);
      next_flush = now + options_.flush_interval;
      uint64_t bytes = 0;
      for (const std::string& file : files())
        bytes += FileSize(file);
      file_bytes_.store(bytes, std::memory_order_relaxed);
    }
    if (stop)
      return;
  }
}

void BagRecorder::WriteOne(Pending& item) {
  ChannelState* channel = ResolveChannel(item.topic, item.type_hash);
  if (channel == nullptr)
    return;
  mcap::Message message;
  message.channel_id = channel->id;
  message.log_time = item.receive_time_ns != 0
                         ? item.receive_time_ns
                         : static_cast<uint64_t>(Time::Utc(Time::kNanosecond));
  message.publish_time = message.log_time;
  message.data = item.bytes;
  WireStamps stamps;
  const bool stamped = channel->layout.any() && ReadWireStamps(item.bytes.data(), item.bytes.size(),
                                                               channel->layout, &stamps);
  if (stamped && stamps.has_publish_ts)
    message.publish_time = stamps.publish_ts;
  if (stamped && stamps.has_counter) {
    message.sequence = static_cast<uint32_t>(stamps.counter);
    // A publisher that starts again (or another one without an identity) goes back: no loss.
    auto [last, first] =
        channel->last_counter.try_emplace(std::string(stamps.publisher_id), stamps.counter);
    if (!first) {
      if (stamps.counter > last->second + 1)
        lost_.fetch_add(stamps.counter - last->second - 1, std::memory_order_relaxed);
      last->second = stamps.counter;
    }
  } else {
    message.sequence = channel->next_sequence++;
  }
  mcap::Status status = OutputWrite(message);
  if (!status.ok()) {
    SetError(status);
    return;
  }
  messages_.fetch_add(1, std::memory_order_relaxed);
  message_bytes_.fetch_add(item.bytes.size(), std::memory_order_relaxed);
}

bool BagRecorder::FindDescription(uint64_t type_hash, const std::string& type_name,
                                  bus::TypeDescription* out) {
  auto lookup = [&]() {
    inf::MutexLock lock(&known_mutex_);
    if (type_hash != 0) {
      auto it = descriptions_.find(type_hash);
      if (it == descriptions_.end())
        return false;
      *out = it->second;
      return true;
    }
    // A sample that did not say (a publisher in this process): the first description of its
    // type name.
    for (const auto& entry : descriptions_) {
      if (entry.second.type_name == type_name) {
        *out = entry.second;
        return true;
      }
    }
    return false;
  };
  if (lookup())
    return true;
  if (unknown_descriptions_.count(type_hash) != 0)
    return false;
  // Not in the last snapshot: a publisher newer than it. Ask discovery directly for a moment.
  const auto deadline = std::chrono::steady_clock::now() + kDescriptionWait;
  bus::LumisComponent discovery;
  for (;;) {
    std::vector<bus::TypeDescription> known;
    if (discovery.listTypeDescriptions(&known)) {
      inf::MutexLock lock(&known_mutex_);
      for (const bus::TypeDescription& d : known)
        descriptions_.emplace(d.type_hash, d);
    }
    if (lookup())
      return true;
    if (std::chrono::steady_clock::now() >= deadline)
      break;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  unknown_descriptions_.insert(type_hash);
  return false;
}

BagRecorder::ChannelState* BagRecorder::ResolveChannel(uint32_t topic, uint64_t type_hash) {
  const auto key = std::make_pair(topic, type_hash);
  auto known = channels_.find(key);
  if (known != channels_.end())
    return &known->second;

  TopicState state;
  {
    inf::MutexLock lock(&known_mutex_);
    state = topics_.at(topic);
  }
  bus::TypeDescription description;
  const bool described = FindDescription(type_hash, state.type_name, &description);
  ChannelState channel;
  uint16_t schema_id = 0;
  if (described) {
    auto schema = schema_ids_.find(description.type_hash);
    if (schema != schema_ids_.end()) {
      schema_id = schema->second;
    } else {
      mcap::Schema record;
      record.id = split_ ? split_->FreeSchemaId() : single_->FreeSchemaId();
      record.name = description.type_name;
      record.encoding = mcap::kProtobufEncoding;
      record.data = description.descriptor_set;
      mcap::Status status = OutputAddSchema(record);
      if (!status.ok()) {
        SetError(status);
        return nullptr;
      }
      schema_id = record.id;
      schema_ids_.emplace(description.type_hash, schema_id);
    }
    std::string problem;
    const DynamicType* type = catalog_.Load(description.type_name, description.descriptor_set,
                                            description.type_hash, &problem);
    if (type != nullptr) {
      channel.layout = StampLayout::Of(type->descriptor);
    } else {
      Note("topic '" + state.name + "': publish times and counters are not read: " + problem);
    }
  } else {
    Note("topic '" + state.name + "': no description of " + state.type_name +
         " was seen on the bus; its messages are recorded without a schema");
  }
  mcap::Channel record;
  record.id = split_ ? split_->FreeChannelId() : single_->FreeChannelId();
  record.schema_id = schema_id;
  record.topic = state.name;
  record.message_encoding = mcap::kProtobufEncoding;
  // The QoS of a publisher that writes this description, for playback to offer the same.
  const EndpointRef* publisher = nullptr;
  for (const EndpointRef& p : state.publishers) {
    if (publisher == nullptr || p.type_hash == type_hash)
      publisher = &p;
    if (p.type_hash == type_hash)
      break;
  }
  if (publisher != nullptr)
    record.metadata = QosMetadata(*publisher);
  mcap::Status status = OutputAddChannel(record);
  if (!status.ok()) {
    SetError(status);
    return nullptr;
  }
  channel.id = record.id;
  channel_count_.fetch_add(1, std::memory_order_relaxed);
  return &channels_.emplace(key, std::move(channel)).first->second;
}

mcap::Status BagRecorder::Stop() {
  if (!started_ || stopped_)
    return status();
  stopped_ = true;
  // Delivery ends first (destroying a subscriber waits for its running callback); then the
  // writer drains what was queued.
  subscribers_.clear();
  {
    inf::MutexLock lock(&queue_mutex_);
    stopping_ = true;
  }
  queue_ready_.SignalAll();
  if (writer_thread_.joinable())
    writer_thread_.join();
  mcap::Status closed = OutputClose();
  if (!closed.ok())
    SetError(closed);
  uint64_t bytes = 0;
  for (const std::string& file : files())
    bytes += FileSize(file);
  file_bytes_.store(bytes, std::memory_order_relaxed);
  return status();
}

RecorderStats BagRecorder::stats() const {
  RecorderStats out;
  out.received = received_.load(std::memory_order_relaxed);
  out.messages = messages_.load(std::memory_order_relaxed);
  out.message_bytes = message_bytes_.load(std::memory_order_relaxed);
  out.lost = lost_.load(std::memory_order_relaxed);
  out.dropped = dropped_.load(std::memory_order_relaxed);
  out.file_bytes = file_bytes_.load(std::memory_order_relaxed);
  out.channels = channel_count_.load(std::memory_order_relaxed);
  for (const auto& entry : subscribers_) {
    if (entry.second.subscriber)
      out.publishers += entry.second.subscriber->MatchedPublishers();
  }
  inf::MutexLock lock(&known_mutex_);
  out.topics = topics_.size();
  return out;
}

std::vector<std::string> BagRecorder::files() const {
  inf::MutexLock lock(&known_mutex_);
  return files_;
}

mcap::Status BagRecorder::status() const {
  inf::MutexLock lock(&known_mutex_);
  return status_;
}

void BagRecorder::SetError(const mcap::Status& status) {
  inf::MutexLock lock(&known_mutex_);
  if (status_.ok())
    status_ = status;
}

void BagRecorder::Note(const std::string& text) {
  if (on_note_)
    on_note_(text);
}

mcap::Status BagRecorder::OutputAddSchema(const mcap::Schema& schema) {
  return split_ ? split_->AddSchema(schema) : single_->AddSchema(schema);
}

mcap::Status BagRecorder::OutputAddChannel(const mcap::Channel& channel) {
  return split_ ? split_->AddChannel(channel) : single_->AddChannel(channel);
}

mcap::Status BagRecorder::OutputWrite(const mcap::Message& message) {
  if (!split_)
    return single_->Write(message);
  mcap::Status status = split_->Write(message);
  inf::MutexLock lock(&known_mutex_);
  if (split_->files().size() != files_.size())
    files_ = split_->files();
  return status;
}

mcap::Status BagRecorder::OutputFlush() {
  return split_ ? split_->Flush() : single_->Flush();
}

mcap::Status BagRecorder::OutputClose() {
  return split_ ? split_->Close() : single_->Close();
}

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
