// The in-process transport: delivers to readers in this process by handing them the
// message object itself (each reader copies it through the object path of parseMessage), so
// nothing is serialised. Keeps the discovery records of this process.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "infra/mutex.h"
#include "korvan/bus/transport.h"

namespace tarvik {
namespace korvan {
namespace bus {

class InProcessTransport : public Transport,
                           public std::enable_shared_from_this<InProcessTransport> {
 public:
  InProcessTransport();
  ~InProcessTransport() override;

  const char* Name() const override { return "in-process"; }
  std::unique_ptr<TransportWriter> CreateWriter(const EndpointDescription& endpoint) override;
  std::unique_ptr<TransportReader> CreateReader(const EndpointDescription& endpoint,
                                                std::shared_ptr<ReaderSink> sink) override;
  void Announce(const EntityRecord& record) override;
  void Withdraw(const std::string& entity_id) override;
  bool ListEntities(std::vector<EntityRecord>* out) override;

 private:
  class Writer;
  class Reader;
  struct Topic {
    std::vector<Writer*> writers;
    std::vector<Reader*> readers;
  };

  static std::string TopicKey(const EndpointDescription& endpoint);
  // The match listeners of every endpoint of `topic`, to be called once mutex_ is released
  // (a listener may take locks of its own).
  static std::vector<std::function<void()>> MatchListeners(const Topic& topic);
  static void Notify(const std::vector<std::function<void()>>& listeners);
  void Remove(Writer* writer);
  void Remove(Reader* reader);
  int Deliver(Writer* writer, OutboundSample& sample);
  int CountReaders(const Writer* writer);
  int CountWriters(const Reader* reader);

  inf::SharedMutex mutex_;  // deliveries hold it shared
  std::unordered_map<std::string, Topic> topics_ KORVAN_GUARDED_BY(mutex_);

  inf::Mutex entities_mutex_;
  std::map<uint64_t, EntityRecord> entities_  // by creation sequence
      KORVAN_GUARDED_BY(entities_mutex_);
  std::unordered_map<std::string, uint64_t> entity_sequence_ KORVAN_GUARDED_BY(entities_mutex_);
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
