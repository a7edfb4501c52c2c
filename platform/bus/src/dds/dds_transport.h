// The network transport on Cyclone DDS: one participant per process, one DDS topic per bus
// topic carrying korvan::wire::Envelope samples, and a keyed discovery topic of
// korvan::wire::EntityRecord. Readers ignore writers of their own participant: those reach
// them through the in-process transport.
#pragma once

#include <dds/dds.h>

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "infra/mutex.h"
#include "korvan/bus/korvan_bus_config.pb.h"
#include "korvan/bus/transport.h"

namespace tarvik {
namespace korvan {
namespace bus {

class DdsTransport : public Transport, public std::enable_shared_from_this<DdsTransport> {
 public:
  // Null, with `problem` filled, when Cyclone cannot start with these settings.
  static std::shared_ptr<DdsTransport> Start(const LumisConfig& lumis, std::string* problem);
  ~DdsTransport() override;

  const char* Name() const override { return "dds"; }
  std::unique_ptr<TransportWriter> CreateWriter(const EndpointDescription& endpoint) override;
  std::unique_ptr<TransportReader> CreateReader(const EndpointDescription& endpoint,
                                                std::shared_ptr<ReaderSink> sink) override;
  void Announce(const EntityRecord& record) override;
  void Withdraw(const std::string& entity_id) override;
  bool ListEntities(std::vector<EntityRecord>* out) override;
  void AnnounceType(const TypeDescription& description) override;
  bool ListTypes(std::vector<TypeDescription>* out) override;

  dds_entity_t participant() const { return participant_; }
  uint32_t domain_id() const { return domain_id_; }

  // Batched writers are flushed by a background thread every millisecond; other writers
  // flush after each write once batching is on (Cyclone's switch is process-wide).
  void AddBatchedWriter(dds_entity_t writer);
  void RemoveBatchedWriter(dds_entity_t writer);
  bool batching() const { return batching_.load(std::memory_order_relaxed); }

 private:
  DdsTransport() = default;
  dds_entity_t Topic(const std::string& bus_topic, std::string* problem);
  void Flush();

  uint32_t domain_id_ = 0;
  dds_entity_t domain_ = 0;
  dds_entity_t participant_ = 0;
  dds_entity_t entity_writer_ = 0;
  dds_entity_t entity_reader_ = 0;
  dds_entity_t type_writer_ = 0;
  dds_entity_t type_reader_ = 0;

  inf::Mutex topics_mutex_;
  std::unordered_map<std::string, dds_entity_t> topics_ KORVAN_GUARDED_BY(topics_mutex_);

  std::atomic<bool> batching_{false};
  inf::Mutex batch_mutex_;
  inf::CondVar batch_wake_;
  std::set<dds_entity_t> batched_writers_ KORVAN_GUARDED_BY(batch_mutex_);
  bool stop_flusher_ KORVAN_GUARDED_BY(batch_mutex_) = false;
  std::thread flusher_ KORVAN_GUARDED_BY(batch_mutex_);
};

// DDS return codes to text, in one place.
std::string DdsErrorText(dds_return_t rc);

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
