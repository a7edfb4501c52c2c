// The same-host transport: a writer publishes into shared memory of its own (shm_segment.h)
// and readers of other processes on this host take the samples from there, with one copy in
// and none on the way out but the parse. Discovery stays with the network transport: a
// publisher's record names its segment (EntityRecord::shared_memory), and a watcher thread
// attaches this process's readers to the segments of matching writers. Wake-ups are futexes
// on words in the segment; each attachment has a thread that waits on its doorbell and tells
// the reader's sink.
//
// QoS as over DDS: a reliable keep-all writer waits (up to 1 s) for reliable keep-all readers;
// otherwise the writer overwrites the oldest sample and a slow reader skips it; lifespan is
// checked when a sample is taken; history for late joiners comes over the network path,
// which the bus keeps for transient-local topics. A reader that dies holding a sample loses
// its hold when the writer notices (within a second).
#pragma once

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "infra/mutex.h"
#include "korvan/bus/transport.h"

namespace tarvik {
namespace korvan {
namespace bus {

class ShmReader;

class ShmTransport : public Transport, public std::enable_shared_from_this<ShmTransport> {
 public:
  // `network` lists the entities of other processes. Readers attach to writers of other
  // processes only (those of this one are the in-process transport's), unless
  // `serve_own_process` (for tests).
  explicit ShmTransport(std::shared_ptr<Transport> network, bool serve_own_process = false);
  ~ShmTransport() override;

  const char* Name() const override { return "shared-memory"; }
  std::unique_ptr<TransportWriter> CreateWriter(const EndpointDescription& endpoint) override;
  std::unique_ptr<TransportReader> CreateReader(const EndpointDescription& endpoint,
                                                std::shared_ptr<ReaderSink> sink) override;
  // Discovery is the network transport's: nothing of its own to list.
  void Announce(const EntityRecord&) override {}
  void Withdraw(const std::string&) override {}
  bool ListEntities(std::vector<EntityRecord>*) override { return true; }

  void Remove(ShmReader* reader);
  // A reader's attachment broke: look at the readers now rather than at the next round.
  void WakeWatcher() { wake_.SignalAll(); }

 private:
  void Watch();
  void Refresh();

  std::shared_ptr<Transport> network_;
  const std::string host_name_;
  const bool serve_own_process_;

  inf::Mutex mutex_;
  inf::CondVar wake_;
  std::set<ShmReader*> readers_ KORVAN_GUARDED_BY(mutex_);
  bool stop_ KORVAN_GUARDED_BY(mutex_) = false;
  std::thread watcher_;
  // Serialises Refresh with reader removal, so a reader is never attached while it goes.
  inf::Mutex refresh_mutex_;
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
