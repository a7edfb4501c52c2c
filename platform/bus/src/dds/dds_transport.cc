#include "dds/dds_transport.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <set>
#include <tuple>

#include "core/qos_rules.h"
#include "core/sequence_gaps.h"
#include "dds/cyclone_config.h"
#include "dds/dds_names.h"
#include "korvan/bus/transport_registry.h"
#include "korvan_wire.h"
#include "trevam/log.h"

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

constexpr char kModule[] = "korvan_bus";
constexpr char kEntityTopic[] = "korvan_discovery/entities";
constexpr char kTypeTopic[] = "korvan_discovery/types";
constexpr size_t kTakeBatch = 32;
constexpr size_t kMaxListedEntities = 16384;

// Owns a dds_qos_t.
class DdsQos {
 public:
  DdsQos() : qos_(dds_create_qos()) {}
  ~DdsQos() { dds_delete_qos(qos_); }
  DdsQos(const DdsQos&) = delete;
  DdsQos& operator=(const DdsQos&) = delete;
  dds_qos_t* get() const { return qos_; }

 private:
  dds_qos_t* qos_;
};

// Owns a dds_listener_t.
class Listener {
 public:
  explicit Listener(void* arg) : listener_(dds_create_listener(arg)) {}
  ~Listener() { dds_delete_listener(listener_); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  dds_listener_t* get() const { return listener_; }

 private:
  dds_listener_t* listener_;
};

// The bus QoS in DDS terms. Writers and readers get the same settings so they match.
void ApplyQos(const bus::Qos& qos, const std::string& partition, dds_qos_t* out) {
  if (qos.reliability() == kReliabilityReliable) {
    dds_qset_reliability(out, DDS_RELIABILITY_RELIABLE, DDS_MSECS(kMaxBlockingMs));
  } else {
    dds_qset_reliability(out, DDS_RELIABILITY_BEST_EFFORT, 0);
  }
  if (qos.history() == kHistoryKeepAll) {
    dds_qset_history(out, DDS_HISTORY_KEEP_ALL, 0);
  } else {
    dds_qset_history(out, DDS_HISTORY_KEEP_LAST, static_cast<int32_t>(qos.depth()));
  }
  if (qos.durability() == kDurabilityTransientLocal) {
    dds_qset_durability(out, DDS_DURABILITY_TRANSIENT_LOCAL);
    // What a late joiner receives follows the durability service's history, not the
    // writer's history: keep the last `depth` samples.
    dds_qset_durability_service(out, 0, DDS_HISTORY_KEEP_LAST,
                                static_cast<int32_t>(DurableHistoryDepth(qos)),
                                DDS_LENGTH_UNLIMITED, DDS_LENGTH_UNLIMITED, DDS_LENGTH_UNLIMITED);
  } else {
    dds_qset_durability(out, DDS_DURABILITY_VOLATILE);
  }
  if (qos.lifespan_ms() > 0) {
    dds_qset_lifespan(out, DDS_MSECS(qos.lifespan_ms()));
  }
  if (!partition.empty()) {
    dds_qset_partition1(out, partition.c_str());
  }
}

char* Chars(const std::string& s) {
  return const_cast<char*>(s.c_str());
}

class DdsWriter : public TransportWriter {
 public:
  DdsWriter(std::shared_ptr<DdsTransport> owner, const EndpointDescription& endpoint)
      : owner_(std::move(owner)),
        topic_(endpoint.topic),
        type_hash_(endpoint.type_hash),
        writer_key_(WriterKey(endpoint.entity_id)),
        durable_(endpoint.config.qos().durability() == kDurabilityTransientLocal),
        batched_(endpoint.config.write_batching()),
        on_match_change_(endpoint.on_match_change) {}

  ~DdsWriter() override {
    if (writer_ > 0) {
      if (batched_)
        owner_->RemoveBatchedWriter(writer_);
      dds_delete(writer_);
    }
  }

  bool Open(dds_entity_t topic, const EndpointDescription& endpoint) {
    DdsQos qos;
    ApplyQos(endpoint.config.qos(), endpoint.config.partition(), qos.get());
    Listener listener(this);
    dds_lset_publication_matched(listener.get(), &DdsWriter::OnMatched);
    writer_ = dds_create_writer(owner_->participant(), topic, qos.get(), listener.get());
    if (writer_ < 0) {
      TREVAM_ERROR(kModule) << "topic '" << topic_
                            << "': cannot create DDS writer: " << DdsErrorText(writer_);
      return false;
    }
    if (batched_)
      owner_->AddBatchedWriter(writer_);
    return true;
  }

  int Write(OutboundSample& sample) override {
    // Nobody outside this process listens and nothing is kept for late joiners.
    if (!durable_ && matched_.load(std::memory_order_relaxed) == 0)
      return 1;
    const std::string* bytes = sample.Bytes();
    if (bytes == nullptr) {
      ReportFailure("cannot serialise a message of type " + sample.type_name());
      return 0;
    }
    korvan_wire_Envelope envelope{};
    envelope.type_name = Chars(sample.type_name());
    envelope.type_hash = type_hash_;
    envelope.request_id = sample.correlation.request_id;
    envelope.origin = Chars(sample.correlation.origin);
    envelope.flags = sample.correlation.flags;
    envelope.writer_key = writer_key_;
    envelope.writer_sequence = sample.sequence;
    envelope.payload._maximum = static_cast<uint32_t>(bytes->size());
    envelope.payload._length = static_cast<uint32_t>(bytes->size());
    envelope.payload._buffer = reinterpret_cast<uint8_t*>(const_cast<char*>(bytes->data()));
    envelope.payload._release = false;
    dds_return_t rc;
    {
      // Numbers go out in order, so a reader's gap is a loss, not a race between writers. A
      // write that fails keeps its number: readers count it as missed.
      inf::MutexLock lock(&write_mutex_);
      envelope.sample_number = ++sequence_;
      rc = dds_write(writer_, &envelope);
    }
    if (rc != DDS_RETCODE_OK) {
      ReportFailure("DDS write failed: " + DdsErrorText(rc));
      return rc == DDS_RETCODE_TIMEOUT ? 0 : -1;
    }
    if (!batched_ && owner_->batching())
      dds_write_flush(writer_);
    return 1;
  }

  int MatchedReaders() override { return matched_.load(std::memory_order_relaxed); }

  // From the readers' user data, which holds their discovery ids; read again only when the
  // matches changed.
  bool ReachedReaders(uint64_t* version, std::vector<std::string>* ids) override {
    const uint64_t now = match_version_.load(std::memory_order_acquire);
    if (now == *version && now != 0)
      return reached_known_.load(std::memory_order_relaxed);
    *version = now;
    std::vector<dds_instance_handle_t> handles(kTakeBatch);
    dds_return_t n = dds_get_matched_subscriptions(writer_, handles.data(), handles.size());
    if (n > static_cast<dds_return_t>(handles.size())) {
      handles.resize(static_cast<size_t>(n));
      n = dds_get_matched_subscriptions(writer_, handles.data(), handles.size());
    }
    bool known = n >= 0;
    for (dds_return_t i = 0; known && i < n && i < static_cast<dds_return_t>(handles.size()); ++i) {
      dds_builtintopic_endpoint_t* reader = dds_get_matched_subscription_data(writer_, handles[i]);
      void* data = nullptr;
      size_t size = 0;
      if (reader == nullptr || !dds_qget_userdata(reader->qos, &data, &size) || size == 0) {
        known = false;
      } else {
        ids->emplace_back(static_cast<const char*>(data), size);
      }
      dds_free(data);
      if (reader != nullptr)
        dds_builtintopic_free_endpoint(reader);
    }
    reached_known_.store(known, std::memory_order_relaxed);
    return known;
  }

 private:
  static void OnMatched(dds_entity_t, const dds_publication_matched_status_t status, void* arg) {
    auto* writer = static_cast<DdsWriter*>(arg);
    writer->matched_.store(static_cast<int>(status.current_count));
    writer->match_version_.fetch_add(1, std::memory_order_acq_rel);
    if (writer->on_match_change_)
      writer->on_match_change_();
  }

  // One line per writer and kind of failure, so a broken link does not flood the log.
  void ReportFailure(const std::string& what) {
    inf::MutexLock lock(&failure_mutex_);
    if (what == last_failure_)
      return;
    last_failure_ = what;
    TREVAM_ERROR(kModule) << "topic '" << topic_ << "': " << what;
  }

  std::shared_ptr<DdsTransport> owner_;
  const std::string topic_;
  const uint64_t type_hash_;
  const uint64_t writer_key_;
  const bool durable_;
  const bool batched_;
  const std::function<void()> on_match_change_;
  dds_entity_t writer_ = 0;
  std::atomic<int> matched_{0};
  std::atomic<uint64_t> match_version_{1};
  std::atomic<bool> reached_known_{false};
  inf::Mutex write_mutex_;
  uint64_t sequence_ KORVAN_GUARDED_BY(write_mutex_) = 0;
  inf::Mutex failure_mutex_;
  std::string last_failure_ KORVAN_GUARDED_BY(failure_mutex_);
};

class DdsReader : public TransportReader {
 public:
  DdsReader(std::shared_ptr<DdsTransport> owner, const EndpointDescription& endpoint,
            std::shared_ptr<ReaderSink> sink)
      : owner_(std::move(owner)),
        topic_(endpoint.topic),
        sink_(std::move(sink)),
        on_match_change_(endpoint.on_match_change) {}

  // dds_delete waits for listener calls in progress, so the sink is not called afterwards.
  ~DdsReader() override {
    if (reader_ > 0)
      dds_delete(reader_);
  }

  bool Open(dds_entity_t topic, const EndpointDescription& endpoint) {
    DdsQos qos;
    ApplyQos(endpoint.config.qos(), endpoint.config.partition(), qos.get());
    // Writers in this process reach this reader through the in-process transport.
    dds_qset_ignorelocal(qos.get(), DDS_IGNORELOCAL_PARTICIPANT);
    if (endpoint.config.qos().history() == kHistoryKeepAll) {
      // A full keep-all reader refuses samples: Cyclone then keeps a reliable writer's samples
      // unacknowledged, and the writer blocks; a best-effort writer's are lost (and counted).
      dds_qset_resource_limits(qos.get(),
                               static_cast<int32_t>(ReaderSampleLimit(endpoint.config.qos())),
                               DDS_LENGTH_UNLIMITED, DDS_LENGTH_UNLIMITED);
    }
    // Writers learn who they reach (DdsWriter::ReachedReaders).
    dds_qset_userdata(qos.get(), endpoint.entity_id.data(), endpoint.entity_id.size());
    Listener listener(this);
    dds_lset_data_available(listener.get(), &DdsReader::OnDataAvailable);
    dds_lset_subscription_matched(listener.get(), &DdsReader::OnMatched);
    reader_ = dds_create_reader(owner_->participant(), topic, qos.get(), listener.get());
    if (reader_ < 0) {
      TREVAM_ERROR(kModule) << "topic '" << topic_
                            << "': cannot create DDS reader: " << DdsErrorText(reader_);
      return false;
    }
    return true;
  }

  // Several delivery threads may take at once: everything here is per call, except the
  // count of lost samples, taken in order under take_mutex_.
  size_t Take(size_t max, const std::function<void(const InboundSample&)>& fn) override {
    std::string type_name;
    Correlation correlation;
    size_t total = 0;
    while (total < max) {
      void* samples[kTakeBatch] = {nullptr};
      dds_sample_info_t infos[kTakeBatch];
      const size_t want = std::min(kTakeBatch, max - total);
      dds_return_t n;
      uint64_t lost = 0;
      {
        inf::MutexLock lock(&take_mutex_);
        n = dds_take(reader_, samples, infos, want, static_cast<uint32_t>(want));
        for (dds_return_t i = 0; i < n; ++i) {
          if (infos[i].valid_data) {
            lost +=
                gaps_.Observe(infos[i].publication_handle,
                              static_cast<const korvan_wire_Envelope*>(samples[i])->sample_number);
          }
        }
      }
      if (lost > 0)
        sink_->OnDropped(lost);
      if (n <= 0)
        break;
      for (dds_return_t i = 0; i < n; ++i) {
        if (!infos[i].valid_data)
          continue;
        const auto* envelope = static_cast<const korvan_wire_Envelope*>(samples[i]);
        if (type_name != envelope->type_name)
          type_name = envelope->type_name;
        correlation.request_id = envelope->request_id;
        correlation.origin = envelope->origin;
        correlation.flags = envelope->flags;
        InboundSample in;
        in.data = envelope->payload._buffer;
        in.size = envelope->payload._length;
        in.type_name = &type_name;
        in.type_hash = envelope->type_hash;
        in.correlation = &correlation;
        in.writer_key = envelope->writer_key;
        in.sequence = envelope->writer_sequence;
        fn(in);
      }
      dds_return_loan(reader_, samples, n);
      total += static_cast<size_t>(n);
      if (static_cast<size_t>(n) < want)
        break;
    }
    return total;
  }

  int MatchedWriters() override { return matched_.load(std::memory_order_relaxed); }

 private:
  static void OnDataAvailable(dds_entity_t, void* arg) {
    auto* reader = static_cast<DdsReader*>(arg);
    if (reader->joining_count_.load(std::memory_order_relaxed) > 0)
      reader->NoteWhereWritersStart();
    reader->sink_->OnReadable();
  }
  static void OnMatched(dds_entity_t, const dds_subscription_matched_status_t status, void* arg) {
    auto* reader = static_cast<DdsReader*>(arg);
    reader->matched_.store(static_cast<int>(status.current_count));
    {
      inf::MutexLock lock(&reader->take_mutex_);
      if (status.current_count_change > 0) {
        reader->joining_.insert(status.last_publication_handle);
      } else if (status.current_count_change < 0) {
        reader->joining_.erase(status.last_publication_handle);
      }
      reader->joining_count_.store(reader->joining_.size(), std::memory_order_relaxed);
    }
    if (reader->on_match_change_)
      reader->on_match_change_();
  }

  // Where this reader joins a new writer's stream is its first sample to arrive, not the first
  // taken: a keep-last history may overwrite samples before the first take, and those count
  // as lost too. So until each new writer's first sample is seen, arrivals are read here (on
  // Cyclone's thread; reading marks them read, and they are still taken as usual).
  void NoteWhereWritersStart() {
    inf::MutexLock lock(&take_mutex_);
    void* samples[kTakeBatch] = {nullptr};
    dds_sample_info_t infos[kTakeBatch];
    const dds_return_t n =
        dds_read_mask(reader_, samples, infos, kTakeBatch, kTakeBatch,
                      DDS_NOT_READ_SAMPLE_STATE | DDS_ANY_VIEW_STATE | DDS_ANY_INSTANCE_STATE);
    for (dds_return_t i = 0; i < n; ++i) {
      if (infos[i].valid_data && joining_.erase(infos[i].publication_handle) > 0) {
        gaps_.Start(infos[i].publication_handle,
                    static_cast<const korvan_wire_Envelope*>(samples[i])->sample_number);
      }
    }
    if (n > 0)
      dds_return_loan(reader_, samples, n);
    joining_count_.store(joining_.size(), std::memory_order_relaxed);
  }

  std::shared_ptr<DdsTransport> owner_;
  const std::string topic_;
  std::shared_ptr<ReaderSink> sink_;
  const std::function<void()> on_match_change_;
  dds_entity_t reader_ = 0;
  std::atomic<int> matched_{0};
  inf::Mutex take_mutex_;
  SequenceGaps gaps_ KORVAN_GUARDED_BY(take_mutex_);
  // Matched writers whose first sample is awaited.
  std::set<dds_instance_handle_t> joining_ KORVAN_GUARDED_BY(take_mutex_);
  std::atomic<size_t> joining_count_{0};
};

const bool registered = RegisterTransport(kNetworkTransport, [](const TransportContext& context,
                                                                std::string* problem) {
  return std::shared_ptr<Transport>(DdsTransport::Start(context.config->lumis_config(), problem));
});

// Whether the domain starts without a participant index when it would not start with one:
// then every index was taken, by as many processes as the limit allows.
bool AllIndicesTaken(const LumisConfig& lumis) {
  const CycloneSettings probe = MakeCycloneSettings(lumis, false);
  const dds_entity_t domain = dds_create_domain(probe.domain_id, probe.xml.c_str());
  if (domain < 0)
    return false;
  dds_delete(domain);
  return true;
}

}  // namespace

std::string DdsErrorText(dds_return_t rc) {
  return std::string(dds_strretcode(rc)) + " (" + std::to_string(rc) + ")";
}

std::shared_ptr<DdsTransport> DdsTransport::Start(const LumisConfig& lumis, std::string* problem) {
  std::shared_ptr<DdsTransport> transport(new DdsTransport());
  CycloneSettings settings = MakeCycloneSettings(lumis);
  transport->domain_id_ = settings.domain_id;
  dds_entity_t domain = dds_create_domain(settings.domain_id, settings.xml.c_str());
  if (domain < 0 && domain != DDS_RETCODE_PRECONDITION_NOT_MET) {
    *problem = "cannot start DDS domain " + std::to_string(settings.domain_id) + ": " +
               DdsErrorText(domain);
    if (AllIndicesTaken(lumis)) {
      const std::string limit = std::to_string(settings.max_processes);
      *problem = "cannot join DDS domain " + std::to_string(settings.domain_id) + ": all " + limit +
                 " participant indices of this host are taken " +
                 "(lumis_config.max_processes_per_host is " + limit +
                 "); raise it, up to 119, in the bus configuration file " +
                 "(KORVAN_BUS_CONFIG_PATH) of every process on the bus";
    }
    return nullptr;
  }
  // PRECONDITION_NOT_MET: the domain exists already in this process; join it as it is.
  transport->domain_ = domain > 0 ? domain : 0;
  transport->participant_ = dds_create_participant(settings.domain_id, nullptr, nullptr);
  if (transport->participant_ < 0) {
    *problem = "cannot create a DDS participant in domain " + std::to_string(settings.domain_id) +
               ": " + DdsErrorText(transport->participant_);
    transport->participant_ = 0;
    return nullptr;
  }

  dds_entity_t topic = dds_create_topic(transport->participant_, &korvan_wire_EntityRecord_desc,
                                        kEntityTopic, nullptr, nullptr);
  if (topic < 0) {
    *problem = "cannot create the discovery topic: " + DdsErrorText(topic);
    return nullptr;
  }
  DdsQos qos;
  dds_qset_reliability(qos.get(), DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
  dds_qset_durability(qos.get(), DDS_DURABILITY_TRANSIENT_LOCAL);
  dds_qset_history(qos.get(), DDS_HISTORY_KEEP_LAST, 1);
  dds_qset_writer_data_lifecycle(qos.get(), true);
  transport->entity_writer_ = dds_create_writer(transport->participant_, topic, qos.get(), nullptr);
  dds_qset_ignorelocal(qos.get(), DDS_IGNORELOCAL_PARTICIPANT);
  // Entities of dead or departed processes leave the reader at once.
  dds_qset_reader_data_lifecycle(qos.get(), 0, 0);
  transport->entity_reader_ = dds_create_reader(transport->participant_, topic, qos.get(), nullptr);
  if (transport->entity_writer_ < 0 || transport->entity_reader_ < 0) {
    *problem = "cannot create the discovery endpoints: " +
               DdsErrorText(std::min(transport->entity_writer_, transport->entity_reader_));
    return nullptr;
  }

  // Type descriptions: every process using a type writes the same instance and never disposes
  // it, so the instance lives while any of them does.
  dds_entity_t type_topic = dds_create_topic(transport->participant_, &korvan_wire_TypeRecord_desc,
                                             kTypeTopic, nullptr, nullptr);
  if (type_topic < 0) {
    *problem = "cannot create the type description topic: " + DdsErrorText(type_topic);
    return nullptr;
  }
  DdsQos type_qos;
  dds_qset_reliability(type_qos.get(), DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
  dds_qset_durability(type_qos.get(), DDS_DURABILITY_TRANSIENT_LOCAL);
  dds_qset_history(type_qos.get(), DDS_HISTORY_KEEP_LAST, 1);
  dds_qset_writer_data_lifecycle(type_qos.get(), false);
  transport->type_writer_ =
      dds_create_writer(transport->participant_, type_topic, type_qos.get(), nullptr);
  dds_qset_ignorelocal(type_qos.get(), DDS_IGNORELOCAL_PARTICIPANT);
  dds_qset_reader_data_lifecycle(type_qos.get(), 0, 0);
  transport->type_reader_ =
      dds_create_reader(transport->participant_, type_topic, type_qos.get(), nullptr);
  if (transport->type_writer_ < 0 || transport->type_reader_ < 0) {
    *problem = "cannot create the type description endpoints: " +
               DdsErrorText(std::min(transport->type_writer_, transport->type_reader_));
    return nullptr;
  }
  TREVAM_INFO(kModule) << "DDS started in domain " << settings.domain_id << ": " << settings.xml;
  return transport;
}

DdsTransport::~DdsTransport() {
  std::thread flusher;
  {
    inf::MutexLock lock(&batch_mutex_);
    stop_flusher_ = true;
    flusher = std::move(flusher_);
  }
  batch_wake_.SignalAll();
  if (flusher.joinable())
    flusher.join();
  // Deleting the participant (or the domain we created) deletes everything below it.
  if (domain_ > 0) {
    dds_delete(domain_);
  } else if (participant_ > 0) {
    dds_delete(participant_);
  }
}

dds_entity_t DdsTransport::Topic(const std::string& bus_topic, std::string* problem) {
  const std::string name = DdsTopicName(bus_topic);
  inf::MutexLock lock(&topics_mutex_);
  auto it = topics_.find(name);
  if (it != topics_.end())
    return it->second;
  dds_entity_t topic =
      dds_create_topic(participant_, &korvan_wire_Envelope_desc, name.c_str(), nullptr, nullptr);
  if (topic < 0) {
    *problem = "cannot create DDS topic '" + name + "': " + DdsErrorText(topic);
    return topic;
  }
  topics_[name] = topic;
  return topic;
}

std::unique_ptr<TransportWriter> DdsTransport::CreateWriter(const EndpointDescription& endpoint) {
  std::string problem;
  dds_entity_t topic = Topic(endpoint.topic, &problem);
  if (topic < 0) {
    TREVAM_ERROR(kModule) << "topic '" << endpoint.topic << "': " << problem;
    return nullptr;
  }
  auto writer = std::make_unique<DdsWriter>(shared_from_this(), endpoint);
  if (!writer->Open(topic, endpoint))
    return nullptr;
  return writer;
}

std::unique_ptr<TransportReader> DdsTransport::CreateReader(const EndpointDescription& endpoint,
                                                            std::shared_ptr<ReaderSink> sink) {
  std::string problem;
  dds_entity_t topic = Topic(endpoint.topic, &problem);
  if (topic < 0) {
    TREVAM_ERROR(kModule) << "topic '" << endpoint.topic << "': " << problem;
    return nullptr;
  }
  auto reader = std::make_unique<DdsReader>(shared_from_this(), endpoint, std::move(sink));
  if (!reader->Open(topic, endpoint))
    return nullptr;
  return reader;
}

void DdsTransport::Announce(const EntityRecord& record) {
  korvan_wire_EntityRecord sample{};
  sample.entity_id = Chars(record.entity_id);
  sample.role_type = record.role_type;
  sample.app_name = Chars(record.app_name);
  sample.soc_name = Chars(record.soc_name);
  sample.node_name = Chars(record.node_name);
  sample.topic_name = Chars(record.topic_name);
  sample.type_name = Chars(record.type_name);
  sample.host_name = Chars(record.host_name);
  sample.process_id = record.process_id;
  sample.creation_order = record.sequence;
  sample.type_hash = record.type_hash;
  sample.history = record.history;
  sample.depth = record.depth;
  sample.durability = record.durability;
  sample.reliability = record.reliability;
  sample.shared_memory = Chars(record.shared_memory);
  dds_return_t rc = dds_write(entity_writer_, &sample);
  if (rc != DDS_RETCODE_OK) {
    TREVAM_ERROR(kModule) << "cannot announce '" << record.topic_name << record.node_name
                          << "' to discovery: " << DdsErrorText(rc);
  }
}

void DdsTransport::Withdraw(const std::string& entity_id) {
  const std::string empty;
  korvan_wire_EntityRecord key{};
  key.entity_id = Chars(entity_id);
  key.app_name = key.soc_name = key.node_name = key.topic_name = key.type_name = key.host_name =
      key.shared_memory = Chars(empty);
  dds_dispose(entity_writer_, &key);
  dds_unregister_instance(entity_writer_, &key);
}

bool DdsTransport::ListEntities(std::vector<EntityRecord>* out) {
  std::vector<void*> samples(kMaxListedEntities, nullptr);
  std::vector<dds_sample_info_t> infos(kMaxListedEntities);
  dds_return_t n =
      dds_read_mask(entity_reader_, samples.data(), infos.data(), samples.size(),
                    static_cast<uint32_t>(samples.size()),
                    DDS_ANY_SAMPLE_STATE | DDS_ANY_VIEW_STATE | DDS_ALIVE_INSTANCE_STATE);
  if (n < 0) {
    TREVAM_ERROR(kModule) << "cannot read discovery: " << DdsErrorText(n);
    return false;
  }
  std::vector<EntityRecord> remote;
  for (dds_return_t i = 0; i < n; ++i) {
    if (!infos[i].valid_data)
      continue;
    const auto* s = static_cast<const korvan_wire_EntityRecord*>(samples[i]);
    EntityRecord record;
    record.entity_id = s->entity_id;
    record.role_type = s->role_type;
    record.app_name = s->app_name;
    record.soc_name = s->soc_name;
    record.node_name = s->node_name;
    record.topic_name = s->topic_name;
    record.type_name = s->type_name;
    record.host_name = s->host_name;
    record.process_id = s->process_id;
    record.sequence = s->creation_order;
    record.type_hash = s->type_hash;
    record.history = s->history;
    record.depth = s->depth;
    record.durability = s->durability;
    record.reliability = s->reliability;
    record.shared_memory = s->shared_memory;
    remote.push_back(std::move(record));
  }
  if (n > 0)
    dds_return_loan(entity_reader_, samples.data(), n);
  // Stable order: by process, then by creation within the process.
  std::sort(remote.begin(), remote.end(), [](const EntityRecord& a, const EntityRecord& b) {
    return std::tie(a.host_name, a.process_id, a.sequence) <
           std::tie(b.host_name, b.process_id, b.sequence);
  });
  out->insert(out->end(), remote.begin(), remote.end());
  return true;
}

void DdsTransport::AnnounceType(const TypeDescription& description) {
  korvan_wire_TypeRecord sample{};
  sample.type_name = Chars(description.type_name);
  sample.type_hash = description.type_hash;
  sample.app_name = Chars(description.app_name);
  sample.host_name = Chars(description.host_name);
  sample.process_id = description.process_id;
  sample.descriptor_set._maximum = static_cast<uint32_t>(description.descriptor_set.size());
  sample.descriptor_set._length = sample.descriptor_set._maximum;
  sample.descriptor_set._buffer =
      reinterpret_cast<uint8_t*>(const_cast<char*>(description.descriptor_set.data()));
  sample.descriptor_set._release = false;
  dds_return_t rc = dds_write(type_writer_, &sample);
  if (rc != DDS_RETCODE_OK) {
    TREVAM_ERROR(kModule) << "cannot make the description of " << description.type_name
                          << " known: " << DdsErrorText(rc);
  }
}

bool DdsTransport::ListTypes(std::vector<TypeDescription>* out) {
  // One sample per distinct description on the bus: few, so one read takes them all.
  std::vector<void*> all(kMaxListedEntities, nullptr);
  std::vector<dds_sample_info_t> all_infos(kMaxListedEntities);
  dds_return_t n = dds_read_mask(
      type_reader_, all.data(), all_infos.data(), all.size(), static_cast<uint32_t>(all.size()),
      DDS_ANY_SAMPLE_STATE | DDS_ANY_VIEW_STATE | DDS_ALIVE_INSTANCE_STATE);
  if (n < 0) {
    TREVAM_ERROR(kModule) << "cannot read type descriptions: " << DdsErrorText(n);
    return false;
  }
  for (dds_return_t i = 0; i < n; ++i) {
    if (!all_infos[i].valid_data)
      continue;
    const auto* s = static_cast<const korvan_wire_TypeRecord*>(all[i]);
    TypeDescription description;
    description.type_name = s->type_name;
    description.type_hash = s->type_hash;
    description.app_name = s->app_name;
    description.host_name = s->host_name;
    description.process_id = s->process_id;
    description.descriptor_set.assign(reinterpret_cast<const char*>(s->descriptor_set._buffer),
                                      s->descriptor_set._length);
    out->push_back(std::move(description));
  }
  if (n > 0)
    dds_return_loan(type_reader_, all.data(), n);
  return true;
}

void DdsTransport::AddBatchedWriter(dds_entity_t writer) {
  inf::MutexLock lock(&batch_mutex_);
  batched_writers_.insert(writer);
  if (!batching_.exchange(true)) {
    dds_write_set_batch(true);
    flusher_ = std::thread([this] { Flush(); });
  }
}

void DdsTransport::RemoveBatchedWriter(dds_entity_t writer) {
  inf::MutexLock lock(&batch_mutex_);
  batched_writers_.erase(writer);
}

void DdsTransport::Flush() {
  inf::MutexLock lock(&batch_mutex_);
  while (!stop_flusher_) {
    for (dds_entity_t writer : batched_writers_)
      dds_write_flush(writer);
    batch_wake_.WaitFor(&batch_mutex_, std::chrono::milliseconds(1));
  }
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
