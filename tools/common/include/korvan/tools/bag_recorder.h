// Records topics of the bus into an MCAP file, as `korvan bag record` does: every message as
// the bytes it came in, logged at its receive time, with its publish time and counter read
// from its stamps where the type declares them; one channel per topic and description, whose
// schema is the description that travels with the bus (a protobuf FileDescriptorSet).
//
// Threads: the owner calls Start, Subscribe (as often as it likes: topics that appear later
// are picked up), stats and Stop from one thread. Each subscription's bus delivery thread
// queues the bytes; a writer thread of the recorder's own writes them, closes the open chunk
// every flush interval (so a killed recorder loses at most that much), and resolves each new
// (topic, description) into a channel. A writer that falls behind by max_pending_bytes makes
// the recorder drop what arrives (counted in RecorderStats::dropped) rather than hold the
// bus's delivery threads, whose queues have no bound in bytes.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "infra/mutex.h"
#include "infra/thread_annotations.h"
#include "korvan/bus/type_description.h"
#include "korvan/mcap/split_writer.h"
#include "korvan/mcap/writer.h"
#include "korvan/tools/bus_snapshot.h"
#include "korvan/tools/type_catalog.h"
#include "korvan/tools/wire_stamps.h"
#include "tarvikdds/messaging/qos.h"

namespace tarvik {
namespace quessa {
class Node;
}  // namespace quessa

namespace korvan {
namespace tools {

class RawSubscriber;

struct RecorderOptions {
  bool all_topics = false;          // every topic with a publisher, as it appears
  std::vector<std::string> topics;  // else these
  // The file; with splitting, the base of <base>_0.mcap, <base>_1.mcap, ...
  std::string output;
  mcap::WriterOptions writer;
  mcap::SplitOptions split;  // all zero: one file, named exactly `output`
  std::chrono::milliseconds flush_interval{1000};
  // Received bytes waiting for the writer beyond which arrivals are dropped.
  size_t max_pending_bytes = size_t{512} << 20;
  // Depth of each subscription's queue in the bus (keep-last), 0 for keep-all. Keep-all (the
  // default) drops nothing in the transport: its queue only grows while a delivery thread,
  // whose work is a move into the recorder's queue, is kept off the CPU.
  uint32_t queue_depth = 0;
};

struct RecorderStats {
  uint64_t received = 0;       // messages handed over by the bus
  uint64_t messages = 0;       // written
  uint64_t message_bytes = 0;  // their payload bytes
  // Messages missing by the publishers' counters: per publisher (types with a publisher_id)
  // or per channel (a counter without an identity), the gaps between consecutive counters.
  uint64_t lost = 0;
  uint64_t dropped = 0;     // received, but the writer was max_pending_bytes behind
  uint64_t file_bytes = 0;  // written to the files so far
  size_t topics = 0;        // subscribed
  int publishers = 0;       // matched by the subscriptions (the bus's count, both transports)
  size_t channels = 0;
};

class BagRecorder {
 public:
  // `node` and `catalog` must outlive the recorder.
  BagRecorder(quessa::Node& node, TypeCatalog& catalog, RecorderOptions options);
  // Stops if still running (errors are lost: call Stop to see them).
  ~BagRecorder();
  BagRecorder(const BagRecorder&) = delete;
  BagRecorder& operator=(const BagRecorder&) = delete;

  // Opens the output and starts the writer thread.
  mcap::Status Start();

  // Subscribes to the wanted topics not subscribed yet (named topics at once, with -a those
  // with a publisher in `snapshot`), and learns the descriptions the snapshot holds. Returns
  // the topics subscribed now, as "topic [type]" (or "topic" when no publisher is known).
  std::vector<std::string> Subscribe(const BusSnapshot& snapshot);

  // Unsubscribes, writes everything received and closes the recording. The status is the
  // first write error, if any.
  mcap::Status Stop();

  // The owner's thread only (it counts the subscriptions' matches).
  RecorderStats stats() const;
  // Files written so far (one unless splitting).
  std::vector<std::string> files() const;
  // The first write error so far (ok while writing works).
  mcap::Status status() const;

  // Called on the writer thread with remarks for the user: a channel recorded without a
  // schema, a type whose stamps cannot be read.
  void set_on_note(std::function<void(const std::string&)> on_note) {
    on_note_ = std::move(on_note);
  }

 private:
  struct Pending {
    uint32_t topic = 0;  // index into topics_
    uint64_t type_hash = 0;
    uint64_t receive_time_ns = 0;
    std::string bytes;
  };
  struct TopicState {
    std::string name;
    std::string type_name;                // of the first publisher seen; "" before
    std::vector<EndpointRef> publishers;  // as last seen
  };
  struct ChannelState {
    uint16_t id = 0;
    StampLayout layout;
    uint32_t next_sequence = 0;
    std::unordered_map<std::string, uint64_t> last_counter;  // by publisher identity
  };

  void Push(uint32_t topic, std::string&& bytes, uint64_t type_hash, uint64_t receive_time_ns);
  void WriterLoop();
  void WriteOne(Pending& item);
  ChannelState* ResolveChannel(uint32_t topic, uint64_t type_hash);
  bool FindDescription(uint64_t type_hash, const std::string& type_name, bus::TypeDescription* out);
  mcap::Status OutputAddSchema(const mcap::Schema& schema);
  mcap::Status OutputAddChannel(const mcap::Channel& channel);
  mcap::Status OutputWrite(const mcap::Message& message);
  mcap::Status OutputFlush();
  mcap::Status OutputClose();
  void Note(const std::string& text);
  void SetError(const mcap::Status& status);

  quessa::Node& node_;
  TypeCatalog& catalog_;
  const RecorderOptions options_;
  std::function<void(const std::string&)> on_note_;

  struct Subscription {
    std::unique_ptr<RawSubscriber> subscriber;
    uint32_t topic = 0;  // index into topics_
    bool blind = false;  // made before any publisher was seen: reliable and volatile
  };

  // Owner's thread.
  std::map<std::string, Subscription> subscribers_;
  bool started_ = false;
  bool stopped_ = false;

  // Topics and descriptions: appended by the owner, read by the writer thread.
  mutable inf::Mutex known_mutex_;
  std::deque<TopicState> topics_ KORVAN_GUARDED_BY(known_mutex_);
  std::map<uint64_t, bus::TypeDescription> descriptions_ KORVAN_GUARDED_BY(known_mutex_);
  std::vector<std::string> files_ KORVAN_GUARDED_BY(known_mutex_);
  mcap::Status status_ KORVAN_GUARDED_BY(known_mutex_);

  // Received messages on their way to the writer thread.
  inf::Mutex queue_mutex_;
  inf::CondVar queue_ready_;  // the writer has something to do
  std::vector<Pending> queue_ KORVAN_GUARDED_BY(queue_mutex_);
  size_t queue_bytes_ KORVAN_GUARDED_BY(queue_mutex_) = 0;
  bool stopping_ KORVAN_GUARDED_BY(queue_mutex_) = false;

  // Writer thread.
  std::thread writer_thread_;
  std::unique_ptr<mcap::Writer> single_;
  std::unique_ptr<mcap::SplitWriter> split_;
  std::map<std::pair<uint32_t, uint64_t>, ChannelState> channels_;
  std::map<uint64_t, uint16_t> schema_ids_;  // by description fingerprint
  std::set<uint64_t> unknown_descriptions_;  // looked for in vain, not again

  std::atomic<uint64_t> received_{0};
  std::atomic<uint64_t> messages_{0};
  std::atomic<uint64_t> message_bytes_{0};
  std::atomic<uint64_t> lost_{0};
  std::atomic<uint64_t> dropped_{0};
  std::atomic<uint64_t> file_bytes_{0};
  std::atomic<size_t> channel_count_{0};
};

// The QoS of a recorded channel's publisher as channel metadata ("reliability": "reliable" or
// "best_effort", "durability": "volatile" or "transient_local", "history": "keep_last" or
// "keep_all", "depth"), and back: playback offers what the recording's publishers offered.
std::map<std::string, std::string> QosMetadata(const EndpointRef& publisher);
quessa::QoS QosFromMetadata(const std::map<std::string, std::string>& metadata);

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
