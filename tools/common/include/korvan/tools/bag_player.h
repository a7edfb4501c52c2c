// Plays a recording onto the bus, as `korvan bag play` does: each message at its recorded
// offset from the start (divided by the rate), on its topic (after remapping), decoded with
// the file's own schema (TypeCatalog::Load), so no type needs to be compiled in. Publishers
// are the library's own: stamped types are stamped afresh.
//
// A file with a summary is read through it; a file without one (a recorder that was killed,
// a damaged file) is played as far as a streaming read gets, and problems() says what was
// wrong where.
//
// Threads: the owner calls Open, Prepare and Play on one thread (Play blocks until the end);
// Pause, Resume, Stop and progress may come from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "infra/thread_annotations.h"
#include "korvan/mcap/io.h"
#include "korvan/mcap/playback.h"
#include "korvan/mcap/reader.h"
#include "korvan/tools/type_catalog.h"

namespace tarvik {
namespace quessa {
class Node;
class PublisherImpl;
}  // namespace quessa

namespace korvan {
namespace tools {

struct PlayerStats {
  uint64_t published = 0;
  uint64_t failed = 0;   // did not decode, or the bus refused them
  uint64_t skipped = 0;  // on channels that cannot be played (no usable schema)
  // Lateness of each publish against its due time (ns): median and 99th percentile of the
  // first few million messages.
  double median_error_ns = 0;
  double p99_error_ns = 0;
  double max_error_ns = 0;
};

class BagPlayer {
 public:
  // `node` and `catalog` must outlive the player.
  BagPlayer(quessa::Node& node, TypeCatalog& catalog);
  ~BagPlayer();
  BagPlayer(const BagPlayer&) = delete;
  BagPlayer& operator=(const BagPlayer&) = delete;

  // Opens the recording. Fails only when nothing can be played (the file cannot be opened,
  // the options are wrong, no readable message); damage short of that is in problems().
  mcap::Status Open(const std::string& path, const mcap::PlaybackOptions& options);
  // What the file's readers found wrong, with byte offsets. Reading goes on while playing
  // (a chunk whose CRC fails is met only then): call it from the playing thread or after Play.
  std::vector<mcap::Problem> problems() const;
  bool indexed() const { return indexed_; }

  // Creates a publisher per played channel, then waits up to `match_wait` until each has
  // matched the subscribers discovery lists for its topic, so the first messages reach
  // them. Returns remarks for the user (channels that cannot be played, subscribers that did
  // not match in time).
  std::vector<std::string> Prepare(std::chrono::milliseconds match_wait);

  // Publishes every message when it is due; returns after the last (never with loop) or after
  // Stop.
  void Play();

  void Pause() { scheduler_->Pause(); }
  void Resume() { scheduler_->Resume(); }
  void Stop();
  bool paused() const { return scheduler_ && scheduler_->paused(); }

  // Seconds of log time from the start to the message played last, and the span played.
  double position_s() const { return position_ns_.load() / 1e9; }
  double duration_s() const { return duration_s_; }
  uint64_t published() const { return published_.load(); }
  // Valid after Play.
  PlayerStats stats() const;
  // Remarks made while playing (channels met late that cannot be played), then cleared.
  std::vector<std::string> TakeNotes();

 private:
  struct Output {
    const DynamicType* type = nullptr;
    std::shared_ptr<quessa::PublisherImpl> publisher;
  };
  class StreamSource;

  // The publisher of a channel, made on first use; null when the channel cannot be played.
  Output* OutputFor(uint16_t channel_id);

  quessa::Node& node_;
  TypeCatalog& catalog_;
  mcap::PlaybackOptions options_;
  std::unique_ptr<mcap::FileSource> file_;
  std::unique_ptr<mcap::IndexedReader> indexed_reader_;
  std::unique_ptr<mcap::PlaybackSource> source_;
  std::unique_ptr<mcap::PlaybackClock> clock_;
  std::unique_ptr<mcap::PlaybackScheduler> scheduler_;
  bool indexed_ = false;
  std::vector<mcap::Problem> problems_;
  std::map<uint16_t, mcap::Channel> channels_;
  std::map<uint16_t, mcap::Schema> schemas_;
  double duration_s_ = 0;
  mcap::Timestamp start_time_ = 0;

  // Owner's thread. One publisher per (topic played on, description); channels by id, null
  // for those that cannot be played.
  std::map<std::pair<std::string, uint64_t>, std::unique_ptr<Output>> outputs_;
  std::map<uint16_t, Output*> by_channel_;
  std::vector<std::string> notes_;
  std::vector<int64_t> errors_ns_;
  uint64_t failed_ = 0;
  uint64_t skipped_ = 0;

  std::atomic<uint64_t> published_{0};
  std::atomic<uint64_t> position_ns_{0};
};

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
