#include "korvan/mcap/playback.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "infra/mutex.h"

namespace tarvik::korvan::mcap {

namespace {

using inf::CondVar;
using inf::Mutex;
using inf::MutexLock;

class SteadyPlaybackClock : public PlaybackClock {
 public:
  int64_t Now() override {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }

  void WaitUntil(int64_t deadline) override {
    MutexLock lock(&mutex_);
    if (!woken_) {
      if (deadline == kWaitForever)
        wake_.Wait(&mutex_);
      else
        wake_.WaitUntil(&mutex_,
                        std::chrono::steady_clock::time_point(std::chrono::nanoseconds(deadline)));
    }
    woken_ = false;
  }

  void Wake() override {
    MutexLock lock(&mutex_);
    woken_ = true;
    wake_.SignalAll();
  }

 private:
  Mutex mutex_;
  CondVar wake_;
  bool woken_ KORVAN_GUARDED_BY(mutex_) = false;
};

}  // namespace

std::unique_ptr<PlaybackClock> MakeSteadyPlaybackClock() {
  return std::make_unique<SteadyPlaybackClock>();
}

Timestamp IndexedPlaybackSource::start_time() const {
  if (const Statistics* stats = reader_->statistics(); stats != nullptr)
    return stats->message_start_time;
  Timestamp start = kMaxTimestamp;
  for (const ChunkIndex& index : reader_->chunk_indexes())
    start = std::min(start, index.message_start_time);
  return start == kMaxTimestamp ? 0 : start;
}

const Channel* IndexedPlaybackSource::FindChannel(uint16_t id) const {
  auto it = reader_->channels().find(id);
  return it != reader_->channels().end() ? &it->second : nullptr;
}

std::optional<TopicRemap> ParseTopicRemap(std::string_view text) {
  size_t at = text.find(":=");
  if (at == std::string_view::npos || at == 0 || at + 2 == text.size())
    return std::nullopt;
  TopicRemap remap{std::string(text.substr(0, at)), std::string(text.substr(at + 2))};
  if (remap.to.find(":=") != std::string::npos)
    return std::nullopt;
  return remap;
}

PlaybackScheduler::PlaybackScheduler(PlaybackSource* source, PlaybackClock* clock,
                                     PlaybackOptions options)
    : source_(source), clock_(clock), options_(std::move(options)) {
  if (!(options_.rate > 0) || !std::isfinite(options_.rate))
    status_ = Status::Error("the playback rate must be a positive number");
  else if (!(options_.start_offset_s >= 0) || !std::isfinite(options_.start_offset_s))
    status_ = Status::Error("the start offset must be zero or more seconds");
  for (const TopicRemap& remap : options_.remaps)
    remaps_[remap.from] = remap.to;
}

void PlaybackScheduler::Restart() {
  source_->Rewind(first_time_);
  anchor_log_ = first_time_;
  anchor_clock_ = clock_->Now();
  pass_had_messages_ = false;
}

bool PlaybackScheduler::Fetch(ScheduledMessage* out) {
  while (source_->Next(&out->message)) {
    const Channel* channel = source_->FindChannel(out->message.channel_id);
    if (channel == nullptr)
      continue;
    if (!options_.topics.empty() && std::find(options_.topics.begin(), options_.topics.end(),
                                              channel->topic) == options_.topics.end())
      continue;
    out->channel = channel;
    auto remap = remaps_.find(channel->topic);
    out->topic = remap != remaps_.end() ? remap->second : channel->topic;
    return true;
  }
  return false;
}

bool PlaybackScheduler::Next(ScheduledMessage* out) {
  if (!status_.ok() || stopped_)
    return false;
  if (!started_) {
    started_ = true;
    const double offset_ns = options_.start_offset_s * 1e9;
    const Timestamp start = source_->start_time();
    first_time_ = offset_ns >= static_cast<double>(kMaxTimestamp - start)
                      ? kMaxTimestamp
                      : start + static_cast<Timestamp>(offset_ns);
    Restart();
  }
  while (!Fetch(out)) {
    // A pass without a message would loop for ever.
    if (!options_.loop || !pass_had_messages_)
      return false;
    ++pass_;
    Restart();
  }
  pass_had_messages_ = true;
  out->pass = pass_;

  // Messages before the anchor (out of order in the file) are due at once.
  const Timestamp log_time = out->message.log_time;
  const double offset =
      log_time > anchor_log_ ? static_cast<double>(log_time - anchor_log_) / options_.rate : 0;
  const int64_t offset_ns = offset >= 9.2e18 ? kWaitForever / 2 : static_cast<int64_t>(offset);
  while (true) {
    if (stopped_)
      return false;
    if (paused_) {
      const int64_t paused_at = clock_->Now();
      while (paused_ && !stopped_)
        clock_->WaitUntil(kWaitForever);
      anchor_clock_ += clock_->Now() - paused_at;
      continue;
    }
    out->due = anchor_clock_ + offset_ns;
    if (clock_->Now() >= out->due)
      return true;
    clock_->WaitUntil(out->due);
  }
}

void PlaybackScheduler::Pause() {
  paused_ = true;
  clock_->Wake();
}

void PlaybackScheduler::Resume() {
  paused_ = false;
  clock_->Wake();
}

void PlaybackScheduler::Stop() {
  stopped_ = true;
  clock_->Wake();
}

}  // namespace tarvik::korvan::mcap
