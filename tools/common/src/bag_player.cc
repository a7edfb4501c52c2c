#include "korvan/tools/bag_player.h"

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/message.h>

#include <algorithm>
#include <functional>
#include <set>
#include <thread>

#include "korvan/mcap/protobuf_schema.h"
#include "korvan/tools/bag_recorder.h"
#include "korvan/tools/bus_snapshot.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/messaging/dds_publisher_impl.h"

namespace tarvik {
namespace korvan {
namespace tools {
namespace {

// Lateness samples kept for the statistics (8 bytes each).
constexpr size_t kMaxErrorSamples = size_t{4} << 20;

double Percentile(std::vector<int64_t>* values, double fraction) {
  if (values->empty())
    return 0;
  const size_t index = std::min(
      values->size() - 1, static_cast<size_t>(fraction * static_cast<double>(values->size())));
  std::nth_element(values->begin(), values->begin() + static_cast<std::ptrdiff_t>(index),
                   values->end());
  return static_cast<double>((*values)[index]);
}

// Some writers (protobufjs among them) mark singular scalar fields `packed`, which a descriptor
// pool refuses to build. The option means nothing on a singular field: a copy of the set
// without it, or "" when there was nothing to drop.
std::string WithoutSingularPacked(const std::string& descriptor_set) {
  google::protobuf::FileDescriptorSet set;
  if (!set.ParseFromString(descriptor_set))
    return "";
  bool changed = false;
  std::function<void(google::protobuf::DescriptorProto*)> clean =
      [&](google::protobuf::DescriptorProto* message) {
        for (auto& field : *message->mutable_field()) {
          if (field.label() != google::protobuf::FieldDescriptorProto::LABEL_REPEATED &&
              field.has_options() && field.options().has_packed()) {
            field.mutable_options()->clear_packed();
            changed = true;
          }
        }
        for (auto& nested : *message->mutable_nested_type())
          clean(&nested);
      };
  for (auto& file : *set.mutable_file()) {
    for (auto& message : *file.mutable_message_type())
      clean(&message);
  }
  return changed ? set.SerializeAsString() : "";
}

}  // namespace

// Plays a file without a usable summary in file order (a recorder writes nearly in log-time
// order; the scheduler sends a late message at once). A rewind reads the file again.
class BagPlayer::StreamSource : public mcap::PlaybackSource {
 public:
  StreamSource(const mcap::Source& file, mcap::Timestamp start) : file_(file), start_(start) {}
  mcap::Timestamp start_time() const override { return start_; }
  void Rewind(mcap::Timestamp from) override {
    reader_ = std::make_unique<mcap::StreamReader>(file_);
    from_ = from;
  }
  bool Next(mcap::Message* message) override {
    if (!reader_)
      Rewind(0);
    while (reader_->Next(message)) {
      if (message->log_time >= from_)
        return true;
    }
    return false;
  }
  const mcap::Channel* FindChannel(uint16_t id) const override {
    if (!reader_)
      return nullptr;
    auto it = reader_->channels().find(id);
    return it == reader_->channels().end() ? nullptr : &it->second;
  }

 private:
  const mcap::Source& file_;
  const mcap::Timestamp start_;
  std::unique_ptr<mcap::StreamReader> reader_;
  mcap::Timestamp from_ = 0;
};

BagPlayer::BagPlayer(quessa::Node& node, TypeCatalog& catalog) : node_(node), catalog_(catalog) {}

BagPlayer::~BagPlayer() {
  // The scheduler reads the source, the source the reader, the reader the file.
  scheduler_.reset();
  source_.reset();
  indexed_reader_.reset();
  outputs_.clear();
}

mcap::Status BagPlayer::Open(const std::string& path, const mcap::PlaybackOptions& options) {
  options_ = options;
  mcap::Status status;
  file_ = mcap::FileSource::Open(path, &status);
  if (!file_)
    return status;
  indexed_reader_ = std::make_unique<mcap::IndexedReader>(*file_);
  mcap::Timestamp end = 0;
  uint64_t messages = 0;
  if (indexed_reader_->ok()) {
    indexed_ = true;
    channels_ = indexed_reader_->channels();
    schemas_ = indexed_reader_->schemas();
    auto source = std::make_unique<mcap::IndexedPlaybackSource>(indexed_reader_.get());
    start_time_ = source->start_time();
    if (const mcap::Statistics* stats = indexed_reader_->statistics()) {
      end = stats->message_end_time;
      messages = stats->message_count;
    } else {
      for (const mcap::ChunkIndex& index : indexed_reader_->chunk_indexes()) {
        end = std::max(end, index.message_end_time);
        messages += 1;  // at least one message per chunk
      }
    }
    source_ = std::move(source);
  } else {
    // No usable summary: what a streaming read finds, and the summary's problem first.
    problems_ = indexed_reader_->problems();
    indexed_reader_.reset();
    mcap::StreamReader scan(*file_);
    mcap::Message message;
    mcap::Timestamp start = mcap::kMaxTimestamp;
    while (scan.Next(&message)) {
      start = std::min(start, message.log_time);
      end = std::max(end, message.log_time);
      ++messages;
    }
    for (const mcap::Problem& p : scan.problems()) {
      const bool known = std::any_of(problems_.begin(), problems_.end(), [&](const auto& q) {
        return q.offset == p.offset && q.message == p.message;
      });
      if (!known)
        problems_.push_back(p);
    }
    channels_ = scan.channels();
    schemas_ = scan.schemas();
    start_time_ = messages > 0 ? start : 0;
    source_ = std::make_unique<StreamSource>(*file_, start_time_);
  }
  if (messages == 0) {
    std::string why = "no message can be read from " + path;
    if (!problems_.empty())
      why += " (" + problems_.front().ToString() + ")";
    return mcap::Status::Error(why);
  }
  duration_s_ = end > start_time_ ? static_cast<double>(end - start_time_) / 1e9 : 0;
  clock_ = mcap::MakeSteadyPlaybackClock();
  scheduler_ = std::make_unique<mcap::PlaybackScheduler>(source_.get(), clock_.get(), options_);
  return scheduler_->status();
}

std::vector<mcap::Problem> BagPlayer::problems() const {
  std::vector<mcap::Problem> all = problems_;
  if (indexed_reader_) {
    const auto& more = indexed_reader_->problems();
    all.insert(all.end(), more.begin(), more.end());
  }
  return all;
}

BagPlayer::Output* BagPlayer::OutputFor(uint16_t channel_id) {
  auto known = by_channel_.find(channel_id);
  if (known != by_channel_.end())
    return known->second;
  Output* result = nullptr;
  auto channel = channels_.find(channel_id);
  if (channel == channels_.end() && source_) {
    // Met while streaming: a channel past the part the first read saw.
    if (const mcap::Channel* found = source_->FindChannel(channel_id))
      channel = channels_.emplace(channel_id, *found).first;
  }
  if (channel == channels_.end()) {
    by_channel_[channel_id] = nullptr;
    return nullptr;
  }
  const mcap::Channel& c = channel->second;
  std::string topic = c.topic;
  for (const mcap::TopicRemap& remap : options_.remaps) {
    if (remap.from == topic) {
      topic = remap.to;
      break;
    }
  }
  auto schema = schemas_.find(c.schema_id);
  std::string problem;
  const DynamicType* type = nullptr;
  if (c.message_encoding != mcap::kProtobufEncoding) {
    problem = "its messages are " + (c.message_encoding.empty() ? "untyped" : c.message_encoding) +
              ", not protobuf";
  } else if (c.schema_id == 0 || schema == schemas_.end()) {
    problem = "it has no schema";
  } else if (schema->second.encoding != mcap::kProtobufEncoding) {
    problem = "its schema is " + schema->second.encoding + ", not protobuf";
  } else {
    type = catalog_.Load(schema->second.name, schema->second.data, 0, &problem);
    if (type == nullptr) {
      const std::string cleaned = WithoutSingularPacked(schema->second.data);
      std::string ignored;
      if (!cleaned.empty())
        type = catalog_.Load(schema->second.name, cleaned, 0, &ignored);
    }
  }
  if (type == nullptr) {
    notes_.push_back("topic '" + c.topic + "' is not played: " + problem);
  } else {
    auto& output = outputs_[std::make_pair(topic, type->type_hash)];
    if (!output) {
      output = std::make_unique<Output>();
      output->type = type;
      output->publisher = std::make_shared<quessa::PublisherImpl>(
          topic, QosFromMetadata(c.metadata), type->descriptor, type->operations, 0, node_.name(),
          node_.domain());
    }
    result = output.get();
  }
  by_channel_[channel_id] = result;
  return result;
}

std::vector<std::string> BagPlayer::Prepare(std::chrono::milliseconds match_wait) {
  const std::set<std::string> wanted(options_.topics.begin(), options_.topics.end());
  for (const auto& entry : channels_) {
    if (wanted.empty() || wanted.count(entry.second.topic) != 0)
      OutputFor(entry.first);
  }
  // Subscribers that discovery lists must have matched before the first message goes.
  const auto deadline = std::chrono::steady_clock::now() + match_wait;
  BusSnapshot snapshot;
  BusSnapshot::TakeSettled(&snapshot, std::chrono::milliseconds(300), match_wait);
  std::vector<std::pair<std::string, Output*>> waiting;
  for (const auto& entry : outputs_)
    waiting.emplace_back(entry.first.first, entry.second.get());
  bool any_expected = false;
  for (;;) {
    std::vector<std::string> unmatched;
    for (const auto& [topic, output] : waiting) {
      const TopicRef* seen = snapshot.FindTopic(topic);
      const int expected = seen ? static_cast<int>(seen->subscribers.size()) : 0;
      any_expected = any_expected || expected > 0;
      if (output->publisher->MatchedSubscribers() < expected)
        unmatched.push_back(topic);
    }
    if (unmatched.empty()) {
      // A match is seen by the writer first; a volatile reader that has not yet seen the
      // writer in its turn skips what the writer sends meanwhile. There is no telling from
      // here when it has: a moment's grace, as for `topic pub`.
      if (any_expected)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
      break;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      for (const std::string& topic : unmatched)
        notes_.push_back("topic '" + topic + "': not every subscriber matched in time");
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return TakeNotes();
}

void BagPlayer::Play() {
  if (!scheduler_)
    return;
  mcap::ScheduledMessage next;
  while (scheduler_->Next(&next)) {
    Output* output = OutputFor(next.message.channel_id);
    if (output == nullptr) {
      ++skipped_;
      continue;
    }
    std::shared_ptr<google::protobuf::Message> message = output->type->operations->New();
    if (!message->ParseFromArray(next.message.data.data(),
                                 static_cast<int>(next.message.data.size()))) {
      ++failed_;
      continue;
    }
    const int64_t sent = clock_->Now();
    if (output->publisher->Publish(message)) {
      published_.fetch_add(1, std::memory_order_relaxed);
    } else {
      ++failed_;
    }
    if (errors_ns_.size() < kMaxErrorSamples)
      errors_ns_.push_back(sent - next.due);
    if (next.message.log_time >= start_time_)
      position_ns_.store(next.message.log_time - start_time_, std::memory_order_relaxed);
  }
}

std::vector<std::string> BagPlayer::TakeNotes() {
  std::vector<std::string> notes;
  notes.swap(notes_);
  return notes;
}

void BagPlayer::Stop() {
  if (scheduler_)
    scheduler_->Stop();
}

PlayerStats BagPlayer::stats() const {
  PlayerStats out;
  out.published = published_.load();
  out.failed = failed_;
  out.skipped = skipped_;
  std::vector<int64_t> errors = errors_ns_;
  out.median_error_ns = Percentile(&errors, 0.5);
  out.p99_error_ns = Percentile(&errors, 0.99);
  out.max_error_ns =
      errors.empty() ? 0 : static_cast<double>(*std::max_element(errors.begin(), errors.end()));
  return out;
}

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
