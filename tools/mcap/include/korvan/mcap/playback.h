// Timing of `korvan bag play`: hands out a recording's messages, in log-time order, each when
// its recorded offset from the start, divided by the rate, has passed on a clock. It filters
// and renames topics, loops, starts at an offset, and pauses. Publishing is the caller's job.
//
// Threads: one playback thread calls Next; Pause, Resume and Stop may come from any thread.
// Time comes from a PlaybackClock, so tests run on a fake one.
#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "korvan/mcap/reader.h"
#include "korvan/mcap/types.h"

namespace tarvik::korvan::mcap {

inline constexpr int64_t kWaitForever = std::numeric_limits<int64_t>::max();

class PlaybackClock {
 public:
  virtual ~PlaybackClock() = default;
  // Monotonic nanoseconds.
  virtual int64_t Now() = 0;
  // Returns once Now() >= deadline (kWaitForever: never), or when Wake() was called since the
  // last return (before this call included), or spuriously. Called by the playback thread.
  virtual void WaitUntil(int64_t deadline) = 0;
  // Makes the current or the next WaitUntil return. Any thread.
  virtual void Wake() = 0;
};

// The machine's monotonic clock.
std::unique_ptr<PlaybackClock> MakeSteadyPlaybackClock();

// Messages in log-time order, with their channels. The message's data stays valid until the
// next call.
class PlaybackSource {
 public:
  virtual ~PlaybackSource() = default;
  // Log time of the recording's first message.
  virtual Timestamp start_time() const = 0;
  // Restarts at the first message whose log time is at least `from`.
  virtual void Rewind(Timestamp from) = 0;
  virtual bool Next(Message* message) = 0;
  // Null for a channel the recording does not define.
  virtual const Channel* FindChannel(uint16_t id) const = 0;
};

// Plays an indexed recording (the reader stays the caller's and must outlive the source).
class IndexedPlaybackSource : public PlaybackSource {
 public:
  explicit IndexedPlaybackSource(IndexedReader* reader) : reader_(reader) {}
  Timestamp start_time() const override;
  void Rewind(Timestamp from) override { reader_->Seek(from); }
  bool Next(Message* message) override { return reader_->Next(message); }
  const Channel* FindChannel(uint16_t id) const override;

 private:
  IndexedReader* reader_;
};

struct TopicRemap {
  std::string from;
  std::string to;
};

// Parses "FROM:=TO" (both non-empty); nullopt otherwise.
std::optional<TopicRemap> ParseTopicRemap(std::string_view text);

struct PlaybackOptions {
  // 2.0 plays twice as fast; must be positive.
  double rate = 1.0;
  // Starts again from the start offset after the last message.
  bool loop = false;
  // Skips this many seconds of log time from the recording's start.
  double start_offset_s = 0;
  // Recorded topic names to play; all when empty.
  std::vector<std::string> topics;
  // Renames applied to the topics played.
  std::vector<TopicRemap> remaps;
};

struct ScheduledMessage {
  Message message;                   // data valid until the next Next
  const Channel* channel = nullptr;  // the recorded channel
  std::string topic;                 // the topic to publish on, after remapping
  int64_t due = 0;                   // clock time the message was due at
  uint64_t pass = 0;                 // 0 on the first pass, then one more per loop
};

class PlaybackScheduler {
 public:
  // Both the source and the clock stay the caller's and must outlive the scheduler.
  PlaybackScheduler(PlaybackSource* source, PlaybackClock* clock, PlaybackOptions options);

  // Why the options cannot be used; Next returns false at once when not ok.
  const Status& status() const { return status_; }

  // Blocks until the next message is due and returns it; false after the last message (when
  // not looping), or once Stop() was called. Time spent paused does not count.
  bool Next(ScheduledMessage* out);

  void Pause();
  void Resume();
  // Ends playback: a blocked or later Next returns false.
  void Stop();
  bool paused() const { return paused_.load(); }

 private:
  bool Fetch(ScheduledMessage* out);  // the next message that passes the filter
  void Restart();

  PlaybackSource* source_;
  PlaybackClock* clock_;
  PlaybackOptions options_;
  Status status_;
  std::map<std::string, std::string> remaps_;

  // Owned by the playback thread.
  bool started_ = false;
  Timestamp first_time_ = 0;  // log time playback starts from
  Timestamp anchor_log_ = 0;  // log time that was due at anchor_clock_
  int64_t anchor_clock_ = 0;
  uint64_t pass_ = 0;
  bool pass_had_messages_ = false;

  // Set by any thread; the playback thread reacts after the clock wakes it.
  std::atomic<bool> paused_{false};
  std::atomic<bool> stopped_{false};
};

}  // namespace tarvik::korvan::mcap
