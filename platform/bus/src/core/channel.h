// The two halves every bus endpoint is made of (private to the bus): a writer on each
// transport of a topic, or a reader on each transport feeding one delivery queue; either
// listed in discovery while it lives.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/bus_core.h"
#include "core/delivery_queue.h"
#include "infra/mutex.h"

namespace tarvik {
namespace korvan {
namespace bus {

class ChannelWriter {
 public:
  // Null when a transport could not create its writer. `config` must be complete.
  // `descriptor` (may be null) is the type's, whose description the bus makes known.
  // `on_match_change` (optional) runs whenever MatchedReaders() may have changed.
  static std::unique_ptr<ChannelWriter> Open(const std::shared_ptr<BusCore>& core,
                                             const TopicConfig& config,
                                             const std::string& type_name,
                                             const google::protobuf::Descriptor* descriptor,
                                             const std::string& node_name,
                                             std::function<void()> on_match_change = nullptr);
  // 1 when every transport took the sample, 0 otherwise. Numbers the sample. A reader that a
  // same-host writer served is left out of the network path, unless the topic keeps history
  // for late joiners (they may come from other hosts).
  int Write(OutboundSample& sample);
  int MatchedReaders();

 private:
  // Whether every reader `writer` reaches is in `served` (sorted); refreshes the cached set.
  bool Covered(size_t index, const std::vector<std::string>& served) KORVAN_REQUIRES(write_mutex_);

  // Destroyed after the writers: readers on this host hold on to a writer while it is listed,
  // and a leaving writer first lets them take what it wrote.
  std::unique_ptr<EntityRegistration> registration_;
  std::vector<std::unique_ptr<TransportWriter>> writers_;
  bool durable_ = false;
  bool has_direct_ = false;  // one of the writers serves readers on this host itself
  std::atomic<uint64_t> next_sequence_{0};
  // With a direct writer, writes are serialised: the path of each reader is chosen against the
  // set that the same write saw.
  inf::Mutex write_mutex_;
  struct Reached {
    uint64_t version = 0;
    bool known = false;
    std::shared_ptr<const std::vector<std::string>> ids;
  };
  std::vector<Reached> reached_ KORVAN_GUARDED_BY(write_mutex_);
};

class ChannelReader {
 public:
  // Null when a transport could not create its reader. Starts `queue` with the configured
  // number of delivery threads. `on_match_change` (optional) runs whenever MatchedWriters()
  // may have changed.
  static std::unique_ptr<ChannelReader> Open(
      const std::shared_ptr<BusCore>& core, const TopicConfig& config, const std::string& type_name,
      const google::protobuf::Descriptor* descriptor, const std::string& node_name,
      std::shared_ptr<DeliveryQueue> queue, std::function<void()> on_match_change = nullptr);
  // Stops delivery before the readers go.
  ~ChannelReader();
  int MatchedWriters();
  // Samples lost to this reader (see DeliveryQueue::dropped).
  uint64_t Dropped() const { return queue_ ? queue_->dropped() : 0; }

 private:
  std::shared_ptr<DeliveryQueue> queue_;
  std::vector<std::unique_ptr<TransportReader>> readers_;
  std::unique_ptr<EntityRegistration> registration_;
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
