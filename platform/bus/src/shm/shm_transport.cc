#include "shm/shm_transport.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <map>

#include "core/qos_rules.h"
#include "infra/env.h"
#include "korvan/bus/transport_registry.h"
#include "shm/shm_segment.h"
#include "trevam/log.h"

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr char kModule[] = "korvan_bus";
constexpr auto kBlockingTime = 1s;      // as the DDS writer's reliability blocking time
constexpr auto kReapInterval = 1s;      // how often a writer looks for dead readers
constexpr auto kWatchInterval = 100ms;  // how often readers look for new writers
constexpr auto kSweepInterval = 3s;
constexpr auto kDoorbellTimeout = 100ms;
constexpr auto kHoldPoll = 5ms;
constexpr auto kSwitchHold = 1s;  // longest wait for the network to deliver what it carried
constexpr uint32_t kKeepAllRing = 16;
// The ring of a reliable writer that does not wait keeps, beyond its depth, what some reader
// has not taken yet: up to this many samples and bytes. Over the network the kernel's socket
// buffers absorb a reader that is not scheduled for a moment; here the ring is all there is.
constexpr uint32_t kUnreadRing = 256;
constexpr uint64_t kUnreadBytes = 4 << 20;
constexpr uint32_t kMaxRing = 4096;

std::atomic<uint64_t> g_writer_count{0};

bool SharedMemoryEnabled() {
  const char* value = inf::Env::Current()->GetVariable("KORVAN_SHARED_MEMORY");
  if (value == nullptr || *value == '\0')
    return true;
  const std::string text = value;
  return !(text == "0" || text == "off" || text == "false" || text == "no");
}

std::string HostName() {
  char host[256] = {0};
  if (::gethostname(host, sizeof(host) - 1) != 0)
    return "unknown";
  return host;
}

void CopyText(char* out, size_t capacity, const std::string& in) {
  const size_t n = std::min(in.size(), capacity - 1);
  std::memcpy(out, in.data(), n);
  out[n] = '\0';
}

std::string Text(const char* in, size_t capacity) {
  return std::string(in, ::strnlen(in, capacity));
}

// The samples a writer's ring keeps for a reader that has not taken them, whatever their size.
uint32_t RingDepth(const Qos& qos) {
  if (qos.history() == kHistoryKeepAll)
    return kKeepAllRing;
  return std::clamp<uint32_t>(qos.depth(), 1, kMaxRing);
}

// Reliable keep-all: the writer waits for readers here that are behind. Not when it keeps
// history: it sends every sample over the network too, and there the network holds it back;
// readers here take what they can and leave gaps to it.
bool WaitsForReaders(const Qos& qos) {
  return qos.history() == kHistoryKeepAll && qos.reliability() == kReliabilityReliable &&
         qos.durability() != kDurabilityTransientLocal;
}

// A writer that waits for its readers needs no more; a reliable one that does not keeps what a
// reader has not taken yet.
uint32_t RingCapacity(const Qos& qos) {
  if (qos.reliability() != kReliabilityReliable || WaitsForReaders(qos))
    return RingDepth(qos);
  return std::max(RingDepth(qos), kUnreadRing);
}

// The writer's QoS as stored in its segment, for the matching rules.
Qos OfferedQos(const shm::ControlHeader& header) {
  Qos qos;
  qos.set_reliability(header.reliability);
  qos.set_history(header.history);
  qos.set_durability(header.durability);
  qos.set_depth(header.depth);
  qos.set_lifespan_ms(header.lifespan_ms);
  return qos;
}

class ShmWriter : public TransportWriter {
 public:
  explicit ShmWriter(const EndpointDescription& endpoint)
      : topic_(endpoint.topic),
        qos_(endpoint.config.qos()),
        keep_all_(WaitsForReaders(qos_)),
        no_readers_(std::make_shared<const std::vector<std::string>>()),
        served_(no_readers_),
        last_served_(no_readers_) {}

  ~ShmWriter() override {
    if (header_ == nullptr)
      return;
    {
      inf::MutexLock lock(&mutex_);
      Linger();
    }
    header_->closed.store(1, std::memory_order_seq_cst);
    RingEveryDoorbell();
    // Readers keep what they mapped; the names go now.
    for (uint32_t slot = 0; slot < data_.size(); ++slot) {
      if (data_[slot].map)
        ::shm_unlink(shm::DataObjectName(name_, slot, data_[slot].generation).c_str());
    }
    ::shm_unlink(name_.c_str());
  }

  // False when the segment cannot be made; the writer then serves nobody.
  bool Open(const EndpointDescription& endpoint, std::string* problem) {
    name_ = shm::ProcessPrefix() + std::to_string(g_writer_count.fetch_add(1));
    ring_depth_ = RingDepth(qos_);
    ring_capacity_ = RingCapacity(qos_);
    // Each reader holds at most one slot at a time, so a free one is always left.
    slot_count_ = ring_capacity_ + shm::kMaxReaders + 1;
    *problem = control_.Create(name_, shm::ControlBytes(ring_capacity_, slot_count_));
    if (!problem->empty())
      return false;
    auto* header = static_cast<shm::ControlHeader*>(control_.data());
    header->layout_version = shm::kLayoutVersion;
    header->uid = static_cast<uint32_t>(::getuid());
    header->pid = static_cast<int32_t>(::getpid());
    header->start_time = shm::OwnStartTime();
    header->ring_capacity = ring_capacity_;
    header->slot_count = slot_count_;
    header->reliability = qos_.reliability();
    header->history = qos_.history();
    header->durability = qos_.durability();
    header->depth = qos_.depth();
    header->lifespan_ms = qos_.lifespan_ms();
    header->type_hash = endpoint.type_hash;
    CopyText(header->writer_id, sizeof(header->writer_id), endpoint.entity_id);
    CopyText(header->partition, sizeof(header->partition), endpoint.config.partition());
    __atomic_store_n(&header->magic, shm::kMagic, __ATOMIC_RELEASE);
    header_ = header;
    ring_ = shm::Ring(header_);
    slots_ = shm::Slots(header_);
    data_.resize(slot_count_);
    slot_at_.assign(ring_capacity_, -1);
    size_at_.assign(ring_capacity_, 0);
    in_ring_.assign(slot_count_, false);
    last_reap_ = Clock::now();
    return true;
  }

  std::string Locator() const override { return header_ != nullptr ? name_ : std::string(); }
  int MatchedReaders() override { return 0; }  // the network transport counts them

  std::shared_ptr<const std::vector<std::string>> ServedByLastWrite() override {
    inf::MutexLock lock(&mutex_);
    return last_served_;
  }

  void NoteNetworkSent(std::shared_ptr<const std::vector<std::string>> audience,
                       uint64_t end) override {
    inf::MutexLock lock(&mutex_);
    audience_ = std::move(audience);
    network_end_ = end;
  }

  int Write(OutboundSample& sample) override {
    inf::MutexLock lock(&mutex_);
    last_served_ = no_readers_;
    if (header_ == nullptr)
      return 1;
    const auto now = Clock::now();
    if (now - last_reap_ >= kReapInterval) {
      Reap();
      last_reap_ = now;
    }
    Refresh(sample.sequence);
    if (active_ == 0)
      return 1;  // nobody on this host to serve
    // Serialised straight into the slot when nobody needed the bytes yet: one copy less.
    const bool direct = sample.CanSerializeDirectly();
    const std::string* bytes = direct ? nullptr : sample.Bytes();
    if (!direct && bytes == nullptr)
      return 0;  // the network path reports it
    const size_t size = direct ? sample.DirectSize() : bytes->size();
    if (size > static_cast<size_t>(INT32_MAX)) {
      ReportFailure("a sample of " + std::to_string(size) + " bytes is too large");
      return 0;
    }
    const uint64_t position = header_->write_ring.load(std::memory_order_relaxed);
    if (!WaitForSpace(position)) {
      ReportFailure("readers on this host took no sample for 1 s; one was not sent to them");
      return 0;
    }
    if (active_ == 0)
      return 1;  // they died while we waited
    MakeRoom(position, size);
    const uint32_t index = static_cast<uint32_t>(position % ring_capacity_);
    shm::RingEntry& entry = ring_[index];
    const int slot = ClaimSlot();
    if (slot < 0) {
      ReportFailure("no free shared-memory slot; a sample was not sent to readers on this host");
      return 0;
    }
    shm::SlotHeader& header = slots_[slot];
    std::string problem = Fill(static_cast<uint32_t>(slot), sample, bytes, size, position);
    if (!problem.empty()) {
      header.holders.fetch_and(~shm::kWriterBit, std::memory_order_release);
      ReportFailure("cannot place a sample of " + std::to_string(size) +
                    " bytes in shared memory (" + problem +
                    "); it was not sent to readers on "
                    "this host");
      return 0;
    }
    entry.slot.store(static_cast<uint32_t>(slot), std::memory_order_relaxed);
    entry.position_plus1.store(position + 1, std::memory_order_release);
    slot_at_[index] = slot;
    size_at_[index] = size;
    ring_bytes_ += size;
    in_ring_[static_cast<size_t>(slot)] = true;
    header.holders.fetch_and(~shm::kWriterBit, std::memory_order_release);
    header_->write_ring.store(position + 1, std::memory_order_seq_cst);
    for (uint32_t i = 0; i < shm::kMaxReaders; ++i) {
      if ((active_ & (1u << i)) == 0)
        continue;
      shm::ReaderEntry& reader = header_->readers[i];
      reader.doorbell.fetch_add(1, std::memory_order_seq_cst);
      if (reader.sleeping.load(std::memory_order_seq_cst) != 0)
        shm::FutexWakeAll(&reader.doorbell);
    }
    last_served_ = served_;
    return 1;
  }

 private:
  struct Data {
    shm::Mapping map;
    uint32_t generation = 0;
  };

  // Starts serving readers that asked, forgets those that left.
  void Refresh(uint64_t sample_number) {
    const uint32_t changes = header_->table_changes.load(std::memory_order_acquire);
    if (changes == seen_changes_ && seen_once_)
      return;
    seen_changes_ = changes;
    seen_once_ = true;
    bool changed = false;
    const uint64_t position = header_->write_ring.load(std::memory_order_relaxed);
    for (uint32_t i = 0; i < shm::kMaxReaders; ++i) {
      shm::ReaderEntry& entry = header_->readers[i];
      const uint32_t state = entry.state.load(std::memory_order_acquire);
      const uint32_t bit = 1u << i;
      if (state == shm::kEntryRequested) {
        const std::string id = Text(entry.reader_id, sizeof(entry.reader_id));
        entry.start_ring = position;
        entry.start_sample = sample_number;
        // What the network path sent this reader, it must see delivered before our first.
        const bool sent =
            !audience_ || std::binary_search(audience_->begin(), audience_->end(), id);
        entry.network_until = sent ? network_end_ : 0;
        entry.read_ring.store(position, std::memory_order_relaxed);
        entry.state.store(shm::kEntryActive, std::memory_order_release);
        active_ |= bit;
        changed = true;
      } else if (state != shm::kEntryActive && (active_ & bit) != 0) {
        active_ &= ~bit;
        changed = true;
      }
    }
    if (changed)
      RebuildServed();
  }

  void RebuildServed() {
    auto ids = std::make_shared<std::vector<std::string>>();
    for (uint32_t i = 0; i < shm::kMaxReaders; ++i) {
      if ((active_ & (1u << i)) != 0)
        ids->push_back(Text(header_->readers[i].reader_id, sizeof(header_->readers[i].reader_id)));
    }
    std::sort(ids->begin(), ids->end());
    served_ = std::move(ids);
  }

  // Wakes every reader, asleep or not.
  void RingEveryDoorbell() {
    for (auto& entry : header_->readers) {
      entry.doorbell.fetch_add(1, std::memory_order_seq_cst);
      shm::FutexWakeAll(&entry.doorbell);
    }
  }

  // Readers whose process died lose their entry and their holds.
  void Reap() {
    bool changed = false;
    for (uint32_t i = 0; i < shm::kMaxReaders; ++i) {
      shm::ReaderEntry& entry = header_->readers[i];
      const uint32_t state = entry.state.load(std::memory_order_acquire);
      // A claimed entry is still being filled in: its pid and start time may not match yet,
      // and freeing it under the reader would leave the reader served by nobody.
      if (state == shm::kEntryFree || state == shm::kEntryClaimed)
        continue;
      if (shm::ProcessAlive(entry.pid, entry.start_time))
        continue;
      const uint64_t bit = 1ull << i;
      for (uint32_t slot = 0; slot < slot_count_; ++slot)
        slots_[slot].holders.fetch_and(~bit, std::memory_order_acq_rel);
      entry.pid = 0;
      entry.state.store(shm::kEntryFree, std::memory_order_release);
      if ((active_ & (1u << i)) != 0) {
        active_ &= ~(1u << i);
        changed = true;
      }
    }
    if (changed)
      RebuildServed();
  }

  // Before writing at `position`: the oldest samples leave the ring once it is full, once
  // every reader took them, or, beyond the newest ring_depth_, once they hold too many bytes.
  // Taken samples leave at once so that their slots are used again: a writer of large
  // messages then maps and touches a few slots, not one per ring entry.
  void MakeRoom(uint64_t position, size_t size) KORVAN_REQUIRES(mutex_) {
    uint64_t unread_from = position;
    for (uint32_t i = 0; i < shm::kMaxReaders; ++i) {
      if ((active_ & (1u << i)) == 0)
        continue;
      // A keep-last reader skips to its newest keep_last anyway.
      const shm::ReaderEntry& reader = header_->readers[i];
      const uint64_t skipped_to = position - std::min<uint64_t>(position, reader.keep_last);
      unread_from = std::min(
          unread_from, std::max(skipped_to, reader.read_ring.load(std::memory_order_acquire)));
    }
    for (; oldest_ < position; ++oldest_) {
      const uint64_t held = position - oldest_;
      if (held < ring_capacity_ && oldest_ >= unread_from &&
          (held < ring_depth_ || ring_bytes_ + size <= kUnreadBytes))
        break;
      // Readers that have not started on it skip it and count it lost.
      const uint32_t index = static_cast<uint32_t>(oldest_ % ring_capacity_);
      if (slot_at_[index] < 0)
        continue;
      ring_[index].position_plus1.store(0, std::memory_order_release);
      in_ring_[static_cast<size_t>(slot_at_[index])] = false;
      slot_at_[index] = -1;
      ring_bytes_ -= size_at_[index];
    }
  }

  // Reliable keep-all: waits until every such reader has room, at most the blocking time.
  bool WaitForSpace(uint64_t position) KORVAN_REQUIRES(mutex_) {
    if (!keep_all_)
      return true;
    return WaitForReaders(Clock::now() + kBlockingTime, 100ms, [&] {
      for (uint32_t i = 0; i < shm::kMaxReaders; ++i) {
        const shm::ReaderEntry& entry = header_->readers[i];
        if ((active_ & (1u << i)) != 0 && entry.keep_all != 0 &&
            position - entry.read_ring.load(std::memory_order_seq_cst) >= ring_capacity_)
          return false;
      }
      return true;
    });
  }

  // Waits, at most the blocking time, until the readers served took all that was written:
  // a reader that has not mapped a sample's object yet cannot once its name is gone. This is
  // the network writer's linger for unacknowledged samples, as the last words of a process
  // (a finalize signal, a one-shot publish) matter most.
  void Linger() KORVAN_REQUIRES(mutex_) {
    RingEveryDoorbell();  // a sampling reader looks now, not at its next glance
    WaitForReaders(Clock::now() + kBlockingTime, 20ms, [&] {
      const uint64_t written = header_->write_ring.load(std::memory_order_relaxed);
      for (uint32_t i = 0; i < shm::kMaxReaders; ++i) {
        const shm::ReaderEntry& entry = header_->readers[i];
        if ((active_ & (1u << i)) != 0 &&
            entry.state.load(std::memory_order_acquire) == shm::kEntryActive &&
            entry.read_ring.load(std::memory_order_seq_cst) < written)
          return false;
      }
      return true;
    });
  }

  // Sleeps on the readers' progress until `done` holds (true) or `deadline` passes (false),
  // waking at least every `poll`. A reader that died meanwhile holds nothing back.
  template <typename Done>
  bool WaitForReaders(Clock::time_point deadline, Clock::duration poll, Done done)
      KORVAN_REQUIRES(mutex_) {
    auto next_reap = Clock::now() + 100ms;
    for (;;) {
      const uint32_t seen = header_->space.load(std::memory_order_acquire);
      header_->writer_waiting.store(1, std::memory_order_seq_cst);
      const bool finished = done();
      const auto now = Clock::now();
      if (finished || now >= deadline) {
        header_->writer_waiting.store(0, std::memory_order_relaxed);
        return finished;
      }
      const auto wait = std::min<Clock::duration>(deadline - now, poll);
      shm::FutexWait(&header_->space, seen,
                     std::chrono::duration_cast<std::chrono::microseconds>(wait));
      if (Clock::now() >= next_reap) {
        Reap();
        next_reap = Clock::now() + 100ms;
      }
    }
  }

  // The lowest free slot, held by the writer; -1 when none is free.
  int ClaimSlot() {
    for (uint32_t slot = 0; slot < slot_count_; ++slot) {
      if (in_ring_[slot])
        continue;
      uint64_t expected = 0;
      if (slots_[slot].holders.compare_exchange_strong(expected, shm::kWriterBit,
                                                       std::memory_order_acq_rel)) {
        return static_cast<int>(slot);
      }
    }
    return -1;
  }

  // Copies the sample into `slot`, growing its data object when the sample does not fit.
  // `bytes` null: serialise the message into the slot.
  std::string Fill(uint32_t slot, const OutboundSample& sample, const std::string* bytes,
                   size_t size, uint64_t position) {
    shm::SlotHeader& header = slots_[slot];
    Data& data = data_[slot];
    if (!data.map || data.map.size() < size) {
      size_t capacity = shm::kMinSlotBytes;
      while (capacity < size)
        capacity *= 2;
      const uint32_t generation = data.generation + 1;
      shm::Mapping grown;
      std::string problem = grown.Create(shm::DataObjectName(name_, slot, generation), capacity);
      if (!problem.empty())
        return problem;
      if (data.map)
        ::shm_unlink(shm::DataObjectName(name_, slot, data.generation).c_str());
      data.map = std::move(grown);
      data.generation = generation;
      header.capacity = capacity;
      header.generation.store(generation, std::memory_order_relaxed);
    }
    if (bytes != nullptr) {
      std::memcpy(data.map.data(), bytes->data(), size);
    } else if (!sample.SerializeDirectly(data.map.data(), size)) {
      return "cannot serialise the message";
    }
    header.size = size;
    header.sample_number = sample.sequence;
    header.written_ns = shm::MonotonicNs();
    header.request_id = sample.correlation.request_id;
    header.flags = sample.correlation.flags;
    header.origin_length =
        static_cast<uint32_t>(std::min(sample.correlation.origin.size(), sizeof(header.origin)));
    std::memcpy(header.origin, sample.correlation.origin.data(), header.origin_length);
    header.type_length =
        static_cast<uint32_t>(std::min(sample.type_name().size(), sizeof(header.type_name)));
    std::memcpy(header.type_name, sample.type_name().data(), header.type_length);
    header.position_plus1.store(position + 1, std::memory_order_release);
    return std::string();
  }

  void ReportFailure(const std::string& what) {
    if (what == last_failure_)
      return;
    last_failure_ = what;
    TREVAM_ERROR(kModule) << "topic '" << topic_ << "': " << what;
  }

  const std::string topic_;
  const Qos qos_;
  const bool keep_all_;
  std::string name_;
  shm::Mapping control_;
  shm::ControlHeader* header_ = nullptr;
  shm::RingEntry* ring_ = nullptr;
  shm::SlotHeader* slots_ = nullptr;
  uint32_t ring_depth_ = 0;
  uint32_t ring_capacity_ = 0;
  uint32_t slot_count_ = 0;

  inf::Mutex mutex_;  // one write at a time; guards everything below
  std::vector<Data> data_;
  std::vector<int> slot_at_;       // ring index -> slot, -1 none
  std::vector<uint64_t> size_at_;  // ring index -> bytes of its sample
  uint64_t ring_bytes_ = 0;        // of the samples in the ring
  uint64_t oldest_ = 0;            // the oldest position that may still be in the ring
  std::vector<bool> in_ring_;      // slot -> referenced by the ring
  uint32_t active_ = 0;            // bits of the entries served
  uint32_t seen_changes_ = 0;
  bool seen_once_ = false;
  Clock::time_point last_reap_;
  const std::shared_ptr<const std::vector<std::string>> no_readers_;
  std::shared_ptr<const std::vector<std::string>> served_;
  std::shared_ptr<const std::vector<std::string>> last_served_;
  std::shared_ptr<const std::vector<std::string>> audience_;  // null: unknown, maybe anyone
  uint64_t network_end_ = 0;
  std::string last_failure_;
};

}  // namespace

enum PathBreak : int {
  kPathWorks = 0,
  kPathEvicted,     // the writer stopped serving the entry: attach again
  kPathUnreadable,  // a sample could not be mapped: read this writer over the network
};

// One writer's segment as a reader of this process uses it.
struct ShmAttachment {
  std::string writer_id;
  uint64_t writer_key = 0;
  bool network_carries_all = false;  // the writer keeps history: it sends everything there too
  std::string control_name;
  shm::Mapping control;
  shm::ControlHeader* header = nullptr;
  shm::ReaderEntry* entry = nullptr;
  uint64_t bit = 0;
  std::atomic<bool> stop{false};
  std::atomic<bool> holding{false};
  // Set when this path can no longer serve the reader; the watcher then detaches it, so that
  // the writer and the reader go back to the network path.
  std::atomic<int> broken{kPathWorks};
  std::thread waiter;

  inf::Mutex take_mutex;  // one taker at a time
  std::vector<shm::Mapping> data KORVAN_GUARDED_BY(take_mutex);
  std::vector<uint32_t> data_generation KORVAN_GUARDED_BY(take_mutex);
  bool started KORVAN_GUARDED_BY(take_mutex) = false;
  uint64_t next KORVAN_GUARDED_BY(take_mutex) = 0;
  uint64_t network_until KORVAN_GUARDED_BY(take_mutex) = 0;
  Clock::time_point hold_until KORVAN_GUARDED_BY(take_mutex);
  std::string type_name KORVAN_GUARDED_BY(take_mutex);
  Correlation correlation KORVAN_GUARDED_BY(take_mutex);
  // The writer's sequence this path is to deliver next: from the first sample the path carries
  // on, a gap is counted as lost (overwritten in a keep-last ring, expired, or a write that
  // timed out); the network drops its copies of those.
  uint64_t expected KORVAN_GUARDED_BY(take_mutex) = 0;
};

class ShmReader : public TransportReader {
 public:
  ShmReader(std::shared_ptr<ShmTransport> owner, const EndpointDescription& endpoint,
            std::shared_ptr<ReaderSink> sink)
      : owner_(std::move(owner)),
        endpoint_(endpoint),
        sink_(std::move(sink)),
        keep_all_(endpoint.config.qos().history() == kHistoryKeepAll &&
                  endpoint.config.qos().reliability() == kReliabilityReliable) {}

  ~ShmReader() override {
    owner_->Remove(this);  // the watcher attaches nothing more
    std::map<std::string, std::shared_ptr<ShmAttachment>> attachments;
    {
      inf::MutexLock lock(&mutex_);
      attachments.swap(attachments_);
    }
    for (auto& entry : attachments)
      Detach(*entry.second);
  }

  int MatchedWriters() override { return 0; }  // the network transport counts them

  size_t Take(size_t max, const std::function<void(const InboundSample&)>& fn) override {
    std::vector<std::shared_ptr<ShmAttachment>> attachments;
    {
      inf::MutexLock lock(&mutex_);
      for (auto& entry : attachments_)
        attachments.push_back(entry.second);
    }
    size_t total = 0;
    for (auto& attachment : attachments) {
      if (!attachment->take_mutex.TryLock())
        continue;  // another delivery thread takes from it
      inf::MutexLock lock(&attachment->take_mutex, inf::kAdoptLock);
      total += TakeFrom(*attachment, max - total, fn);
      if (total >= max)
        break;
    }
    return total;
  }

  // On the watcher thread: attaches to the matching writers of `entities` on this host, except
  // those of process `pid`, and lets go of those that left.
  void Update(const std::vector<EntityRecord>& entities, const std::string& host, int32_t pid) {
    std::map<std::string, const EntityRecord*> wanted;
    for (const auto& record : entities) {
      if (record.role_type == kRolePublisher && record.topic_name == endpoint_.topic &&
          !record.shared_memory.empty() && record.host_name == host && record.process_id != pid)
        wanted[record.entity_id] = &record;
    }
    std::vector<std::shared_ptr<ShmAttachment>> leaving;
    {
      inf::MutexLock lock(&mutex_);
      for (auto it = attachments_.begin(); it != attachments_.end();) {
        const int broken = it->second->broken.load();
        if (broken == kPathUnreadable)
          refused_.insert(it->first);
        if (wanted.count(it->first) == 0 || broken != kPathWorks) {
          leaving.push_back(it->second);
          it = attachments_.erase(it);
        } else {
          ++it;
        }
      }
    }
    for (auto& attachment : leaving)
      Detach(*attachment);
    for (const auto& item : wanted) {
      {
        inf::MutexLock lock(&mutex_);
        if (attachments_.count(item.first) != 0 || refused_.count(item.first) != 0)
          continue;
      }
      std::string problem;
      auto attachment = Attach(*item.second, &problem);
      inf::MutexLock lock(&mutex_);
      if (attachment) {
        // Listed before its thread runs, so that the first OnReadable finds it.
        ShmAttachment* raw = attachment.get();
        attachments_[item.first] = std::move(attachment);
        raw->waiter = std::thread([this, raw] { Wait(*raw); });
      } else {
        // Served over the network instead; not tried again.
        refused_.insert(item.first);
        if (!problem.empty()) {
          TREVAM_INFO(kModule) << "topic '" << endpoint_.topic << "': writer of "
                               << item.second->app_name << " (pid " << item.second->process_id
                               << ") is read over the network: " << problem;
        }
      }
    }
  }

 private:
  std::shared_ptr<ShmAttachment> Attach(const EntityRecord& record, std::string* problem) {
    auto attachment = std::make_shared<ShmAttachment>();
    *problem = attachment->control.Open(record.shared_memory, true);
    if (!problem->empty())
      return nullptr;
    if (attachment->control.size() < sizeof(shm::ControlHeader)) {
      *problem = "segment too small";
      return nullptr;
    }
    auto* header = static_cast<shm::ControlHeader*>(attachment->control.data());
    if (__atomic_load_n(&header->magic, __ATOMIC_ACQUIRE) != shm::kMagic ||
        header->layout_version != shm::kLayoutVersion ||
        attachment->control.size() < shm::ControlBytes(header->ring_capacity, header->slot_count)) {
      *problem = "segment of another layout";
      return nullptr;
    }
    // Same name, other host or other /dev/shm: the writer must be the one discovery lists.
    if (Text(header->writer_id, sizeof(header->writer_id)) != record.entity_id ||
        header->pid != record.process_id || header->uid != ::getuid()) {
      *problem = "segment of another writer";
      return nullptr;
    }
    if (Text(header->partition, sizeof(header->partition)) != endpoint_.config.partition() ||
        !QosCompatible(OfferedQos(*header), endpoint_.config.qos())) {
      return nullptr;  // the network transport does not match them either
    }
    int index = -1;
    for (uint32_t i = 0; i < shm::kMaxReaders; ++i) {
      uint32_t expected = shm::kEntryFree;
      if (header->readers[i].state.compare_exchange_strong(expected, shm::kEntryClaimed,
                                                           std::memory_order_acq_rel)) {
        index = static_cast<int>(i);
        break;
      }
    }
    if (index < 0) {
      *problem = "the writer serves " + std::to_string(shm::kMaxReaders) + " readers already";
      return nullptr;
    }
    shm::ReaderEntry& entry = header->readers[index];
    entry.pid = static_cast<int32_t>(::getpid());
    entry.start_time = shm::OwnStartTime();
    CopyText(entry.reader_id, sizeof(entry.reader_id), endpoint_.entity_id);
    entry.keep_all = keep_all_ ? 1 : 0;
    entry.keep_last = endpoint_.config.qos().history() == kHistoryKeepAll
                          ? header->ring_capacity
                          : std::max<uint32_t>(1, endpoint_.config.qos().depth());
    entry.sleeping.store(0, std::memory_order_relaxed);
    entry.state.store(shm::kEntryRequested, std::memory_order_release);
    header->table_changes.fetch_add(1, std::memory_order_acq_rel);

    attachment->writer_id = record.entity_id;
    attachment->writer_key = WriterKey(record.entity_id);
    attachment->network_carries_all = header->durability == kDurabilityTransientLocal;
    attachment->control_name = record.shared_memory;
    attachment->header = header;
    attachment->entry = &entry;
    attachment->bit = 1ull << index;
    {
      inf::MutexLock lock(&attachment->take_mutex);  // not shared yet; for the analysis
      attachment->data.resize(header->slot_count);
      attachment->data_generation.assign(header->slot_count, 0);
    }
    sink_->DirectPathOpening(
        attachment->writer_key, attachment->network_carries_all, [attachment](uint64_t* from) {
          if (attachment->entry->state.load(std::memory_order_acquire) != shm::kEntryActive)
            return false;
          *from = attachment->entry->start_sample;
          return true;
        });
    return attachment;
  }

  void Detach(ShmAttachment& attachment) {
    attachment.stop.store(true);
    attachment.entry->doorbell.fetch_add(1, std::memory_order_seq_cst);
    shm::FutexWakeAll(&attachment.entry->doorbell);
    if (attachment.waiter.joinable())
      attachment.waiter.join();
    sink_->DirectPathClosed(attachment.writer_key);
    inf::MutexLock lock(&attachment.take_mutex);
    shm::ControlHeader* header = attachment.header;
    if (shm::ProcessAlive(header->pid, header->start_time)) {
      // An entry the writer took back (pid 0) may serve another reader by now.
      shm::ReaderEntry& entry = *attachment.entry;
      if (entry.pid == ::getpid() &&
          Text(entry.reader_id, sizeof(entry.reader_id)) == endpoint_.entity_id) {
        entry.pid = 0;
        entry.state.store(shm::kEntryFree, std::memory_order_release);
        header->table_changes.fetch_add(1, std::memory_order_acq_rel);
      }
    } else {
      // Its writer died: nobody else removes the objects it left until the next sweep.
      for (uint32_t slot = 0; slot < header->slot_count; ++slot) {
        const uint32_t generation = shm::Slots(header)[slot].generation.load();
        if (generation != 0)
          ::shm_unlink(shm::DataObjectName(attachment.control_name, slot, generation).c_str());
      }
      ::shm_unlink(attachment.control_name.c_str());
    }
  }

  // The attachment's thread: turns doorbells into OnReadable, and notices a dead writer.
  void Wait(ShmAttachment& attachment) {
    shm::ControlHeader* header = attachment.header;
    shm::ReaderEntry& entry = *attachment.entry;
    uint64_t notified = 0;
    bool active = false;
    const std::chrono::microseconds sample_interval =
        std::chrono::milliseconds(endpoint_.config.sample_interval_ms());
    auto next_check = Clock::now() + kDoorbellTimeout;
    while (!attachment.stop.load()) {
      const uint32_t bell = entry.doorbell.load(std::memory_order_seq_cst);
      const bool now_active = entry.state.load(std::memory_order_acquire) == shm::kEntryActive;
      if (!active && now_active) {
        active = true;
        sink_->OnReadable();  // the switch may hold samples back: let the taker look
      } else if (active && !now_active && !attachment.stop.load()) {
        // The writer took this reader for gone; the sink drops network copies until detached.
        Break(attachment, kPathEvicted, "the writer stopped serving this reader");
        return;
      }
      // Until served it is woken like any reader, so that it starts at once.
      const bool sampling = active && sample_interval.count() > 0;
      const uint64_t written = header->write_ring.load(std::memory_order_seq_cst);
      if (active && written != notified) {
        notified = written;
        sink_->OnReadable();
        if (!sampling)
          continue;
      }
      const bool holding = attachment.holding.load();
      if (sampling) {
        // Never marked sleeping, so writes do not wake it; the writer's close and Detach
        // still do. The doorbell is read again: it moved while the taker ran.
        const uint32_t rung = entry.doorbell.load(std::memory_order_seq_cst);
        if (!attachment.stop.load()) {
          shm::FutexWait(&entry.doorbell, rung,
                         holding ? std::chrono::microseconds(kHoldPoll) : sample_interval);
        }
      } else {
        entry.sleeping.store(1, std::memory_order_seq_cst);
        if (header->write_ring.load(std::memory_order_seq_cst) == notified &&
            !attachment.stop.load()) {
          shm::FutexWait(&entry.doorbell, bell,
                         holding ? std::chrono::microseconds(kHoldPoll) : kDoorbellTimeout);
        }
        entry.sleeping.store(0, std::memory_order_relaxed);
      }
      if (holding)
        sink_->OnReadable();
      if (Clock::now() >= next_check) {
        next_check = Clock::now() + kDoorbellTimeout;
        if (header->closed.load() != 0 || !shm::ProcessAlive(header->pid, header->start_time))
          return;  // what is left in the ring can still be taken
      }
    }
  }

  size_t TakeFrom(ShmAttachment& a, size_t max, const std::function<void(const InboundSample&)>& fn)
      KORVAN_REQUIRES(a.take_mutex) {
    shm::ControlHeader* header = a.header;
    shm::ReaderEntry& entry = *a.entry;
    if (a.broken.load() != kPathWorks)
      return 0;
    if (!a.started) {
      if (entry.state.load(std::memory_order_acquire) != shm::kEntryActive)
        return 0;
      a.started = true;
      a.next = entry.start_ring;
      a.expected = entry.start_sample;
      a.network_until = entry.network_until;
      a.hold_until = Clock::now() + kSwitchHold;
      a.holding.store(a.network_until > 0);
    }
    if (a.holding.load()) {
      // Order per writer across the switch: what the network carried goes first.
      if (sink_->OtherPathReached(a.writer_key) < a.network_until && Clock::now() < a.hold_until)
        return 0;
      a.holding.store(false);
    }
    const uint32_t capacity = header->ring_capacity;
    shm::RingEntry* ring = shm::Ring(header);
    shm::SlotHeader* slots = shm::Slots(header);
    const uint64_t keep = std::min<uint64_t>(capacity, entry.keep_last);
    size_t taken = 0;
    const uint64_t first = a.next;
    while (taken < max) {
      const uint64_t written = header->write_ring.load(std::memory_order_acquire);
      if (a.next >= written)
        break;
      if (written - a.next > keep)
        a.next = written - keep;  // keep-last: the oldest are gone for a slow reader
      const uint64_t position = a.next++;
      shm::RingEntry& at = ring[position % capacity];
      if (at.position_plus1.load(std::memory_order_acquire) != position + 1)
        continue;  // overwritten meanwhile
      const uint32_t slot = at.slot.load(std::memory_order_relaxed);
      if (slot >= header->slot_count)
        continue;
      shm::SlotHeader& held = slots[slot];
      const uint64_t prior = held.holders.fetch_or(a.bit, std::memory_order_acq_rel);
      if ((prior & shm::kWriterBit) == 0 &&
          held.position_plus1.load(std::memory_order_acquire) == position + 1) {
        if (a.network_carries_all && held.sample_number > a.expected &&
            sink_->OtherPathReached(a.writer_key) < held.sample_number) {
          // A gap the network fills: its copies go first, so that order holds.
          held.holders.fetch_and(~a.bit, std::memory_order_release);
          a.next = position;
          a.network_until = held.sample_number;
          a.hold_until = Clock::now() + kSwitchHold;
          a.holding.store(true);
          a.expected = held.sample_number;  // waited for, once
          break;
        }
        if (Deliver(a, slot, held, fn))
          ++taken;
      }
      held.holders.fetch_and(~a.bit, std::memory_order_release);
      if (keep_all_)
        MoveOn(a);
    }
    if (!keep_all_ && a.next != first)
      MoveOn(a);
    return taken;
  }

  // Once per attachment: says why, and has the watcher detach it.
  void Break(ShmAttachment& a, PathBreak why, const std::string& problem) {
    int expected = kPathWorks;
    if (!a.broken.compare_exchange_strong(expected, why))
      return;
    TREVAM_WARNING(kModule) << "topic '" << endpoint_.topic << "': shared memory of writer "
                            << a.writer_id << ": " << problem
                            << (why == kPathEvicted ? "; attaching again"
                                                    : "; reading it over the network");
    owner_->WakeWatcher();
  }

  void MoveOn(ShmAttachment& a) KORVAN_REQUIRES(a.take_mutex) {
    a.entry->read_ring.store(a.next, std::memory_order_seq_cst);
    if (a.header->writer_waiting.load(std::memory_order_seq_cst) != 0) {
      a.header->space.fetch_add(1, std::memory_order_seq_cst);
      shm::FutexWakeAll(&a.header->space);
    }
  }

  bool Deliver(ShmAttachment& a, uint32_t slot, const shm::SlotHeader& held,
               const std::function<void(const InboundSample&)>& fn) KORVAN_REQUIRES(a.take_mutex) {
    const uint32_t generation = held.generation.load(std::memory_order_acquire);
    if (a.data_generation[slot] != generation) {
      shm::Mapping map;
      const std::string problem =
          map.Open(shm::DataObjectName(a.control_name, slot, generation), false);
      if (!problem.empty()) {
        Break(a, kPathUnreadable, "cannot map a sample: " + problem);
        return false;
      }
      a.data[slot] = std::move(map);
      a.data_generation[slot] = generation;
    }
    if (held.size > a.data[slot].size()) {
      Break(a, kPathUnreadable, "a sample is larger than its shared memory");
      return false;
    }
    const uint32_t lifespan_ms = a.header->lifespan_ms;
    if (lifespan_ms > 0 &&
        shm::MonotonicNs() - held.written_ns > static_cast<int64_t>(lifespan_ms) * 1000000)
      return false;
    const size_t type_length = std::min<size_t>(held.type_length, sizeof(held.type_name));
    if (a.type_name.compare(0, std::string::npos, held.type_name, type_length) != 0)
      a.type_name.assign(held.type_name, type_length);
    a.correlation.request_id = held.request_id;
    a.correlation.flags = held.flags;
    a.correlation.origin.assign(held.origin,
                                std::min<size_t>(held.origin_length, sizeof(held.origin)));
    InboundSample in;
    in.data = a.data[slot].data();
    in.size = held.size;
    in.type_name = &a.type_name;
    in.type_hash = a.header->type_hash;
    in.correlation = &a.correlation;
    in.writer_key = a.writer_key;
    in.sequence = held.sample_number;
    in.shared_memory = true;
    if (held.sample_number >= a.expected) {
      if (held.sample_number > a.expected && !a.network_carries_all)
        sink_->OnDropped(held.sample_number - a.expected);
      a.expected = held.sample_number + 1;
    }
    fn(in);
    return true;
  }

  std::shared_ptr<ShmTransport> owner_;
  const EndpointDescription endpoint_;
  std::shared_ptr<ReaderSink> sink_;
  const bool keep_all_;

  inf::Mutex mutex_;
  std::map<std::string, std::shared_ptr<ShmAttachment>> attachments_ KORVAN_GUARDED_BY(mutex_);
  std::set<std::string> refused_ KORVAN_GUARDED_BY(mutex_);
};

namespace {

const bool registered =
    RegisterTransport(kSharedMemoryTransport, [](const TransportContext& context, std::string*) {
      if (!context.network || !SharedMemoryEnabled())
        return std::shared_ptr<Transport>();
      return std::shared_ptr<Transport>(std::make_shared<ShmTransport>(context.network));
    });

}  // namespace

ShmTransport::ShmTransport(std::shared_ptr<Transport> network, bool serve_own_process)
    : network_(std::move(network)), host_name_(HostName()), serve_own_process_(serve_own_process) {
  shm::SweepDeadObjects();  // what killed processes of this user left behind
}

ShmTransport::~ShmTransport() {
  {
    inf::MutexLock lock(&mutex_);
    stop_ = true;
  }
  wake_.SignalAll();
  if (watcher_.joinable())
    watcher_.join();
}

std::unique_ptr<TransportWriter> ShmTransport::CreateWriter(const EndpointDescription& endpoint) {
  auto writer = std::make_unique<ShmWriter>(endpoint);
  std::string problem;
  if (!writer->Open(endpoint, &problem)) {
    // The topic still works: every reader is served over the network.
    TREVAM_WARNING(kModule) << "topic '" << endpoint.topic
                            << "': no shared memory for this writer: " << problem;
  }
  return writer;
}

std::unique_ptr<TransportReader> ShmTransport::CreateReader(const EndpointDescription& endpoint,
                                                            std::shared_ptr<ReaderSink> sink) {
  auto reader = std::make_unique<ShmReader>(shared_from_this(), endpoint, std::move(sink));
  {
    inf::MutexLock lock(&mutex_);
    readers_.insert(reader.get());
    if (!watcher_.joinable())
      watcher_ = std::thread([this] { Watch(); });
  }
  wake_.SignalAll();  // look for its writers now
  return reader;
}

void ShmTransport::Remove(ShmReader* reader) {
  inf::MutexLock refresh(&refresh_mutex_);
  inf::MutexLock lock(&mutex_);
  readers_.erase(reader);
}

void ShmTransport::Watch() {
  auto next_sweep = Clock::now() + kSweepInterval;
  for (;;) {
    {
      inf::MutexLock lock(&mutex_);
      if (stop_)
        return;
    }
    Refresh();
    if (Clock::now() >= next_sweep) {
      shm::SweepDeadObjects();
      next_sweep = Clock::now() + kSweepInterval;
    }
    inf::MutexLock lock(&mutex_);
    if (stop_)
      return;
    wake_.WaitFor(&mutex_, kWatchInterval);
  }
}

void ShmTransport::Refresh() {
  std::vector<EntityRecord> entities;
  {
    inf::MutexLock lock(&mutex_);
    if (readers_.empty())
      return;
  }
  if (!network_->ListEntities(&entities))
    return;
  inf::MutexLock refresh(&refresh_mutex_);
  std::set<ShmReader*> readers;
  {
    inf::MutexLock lock(&mutex_);
    readers = readers_;
  }
  for (ShmReader* reader : readers)
    reader->Update(entities, host_name_,
                   serve_own_process_ ? -1 : static_cast<int32_t>(::getpid()));
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
