// Shared-memory objects of the same-host transport (private to the bus).
//
// Each writer owns one control segment and one data object per slot, all POSIX shared memory
// of mode 0600 named "/korvan.<uid>.<pid>.<start time>.<writer>[.<slot>.<generation>]". The
// control segment holds the writer's description, a table of attached readers, a ring of the
// last published samples (ring position -> slot) and the slots' headers. A slot's data object
// is replaced by a larger one (the next generation) when a sample does not fit it.
//
// Who writes what: the writer alone writes the ring, the slots and each reader entry's
// activation; a reader writes its own entry's request and position; both set and clear their
// own bit in a slot's `holders` (bit 63 is the writer's). A slot whose holders include another
// party is never written, so a reader never sees a sample change under it; a writer killed
// half way leaves the ring without that sample, so no reader sees a torn one.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace tarvik {
namespace korvan {
namespace bus {
namespace shm {

inline constexpr uint64_t kMagic = 0x6b6f7276616e3031ull;  // "korvan01"
inline constexpr uint32_t kLayoutVersion = 1;
inline constexpr uint32_t kMaxReaders = 32;
inline constexpr uint64_t kWriterBit = 1ull << 63;
inline constexpr size_t kIdBytes = 64;
inline constexpr size_t kTypeBytes = 256;
inline constexpr size_t kPartitionBytes = 128;
inline constexpr size_t kOriginBytes = 128;
inline constexpr size_t kMinSlotBytes = 4096;

enum EntryState : uint32_t {
  kEntryFree = 0,
  kEntryClaimed = 1,    // a reader is filling it in
  kEntryRequested = 2,  // waiting for the writer to start serving it
  kEntryActive = 3,     // served from `start_ring` on
};

struct ReaderEntry {
  std::atomic<uint32_t> state;
  int32_t pid;
  uint64_t start_time;  // of the reader's process, so a reused pid is not taken for it
  char reader_id[kIdBytes];
  uint32_t keep_all;   // a reliable keep-all reader: the writer waits for it
  uint32_t keep_last;  // otherwise: how many samples it keeps when it falls behind
  // Written by the writer before it makes the entry active.
  uint64_t start_ring;              // first ring position the reader takes
  uint64_t start_sample;            // the sample number at that position
  uint64_t network_until;           // samples before this went to the reader over the network
  std::atomic<uint64_t> read_ring;  // next ring position the reader takes
  std::atomic<uint32_t> doorbell;   // bumped by the writer on every sample (futex word)
  std::atomic<uint32_t> sleeping;   // the reader waits on the doorbell
};

struct RingEntry {
  std::atomic<uint64_t> position_plus1;  // ring position + 1 of the sample here; 0 none
  std::atomic<uint32_t> slot;
  uint32_t reserved;
};

struct SlotHeader {
  std::atomic<uint64_t> holders;
  std::atomic<uint64_t> position_plus1;  // the ring position + 1 of the sample it holds
  std::atomic<uint32_t> generation;      // of the data object
  uint32_t type_length;
  uint64_t capacity;  // of the data object of this generation
  uint64_t size;
  uint64_t sample_number;
  int64_t written_ns;  // CLOCK_MONOTONIC, for lifespan
  uint64_t request_id;
  uint32_t flags;
  uint32_t origin_length;
  char type_name[kTypeBytes];
  char origin[kOriginBytes];
};

struct ControlHeader {
  uint64_t magic;
  uint32_t layout_version;
  uint32_t uid;
  int32_t pid;
  uint32_t ring_capacity;
  uint64_t start_time;
  uint32_t slot_count;
  // The writer's QoS (bus numbers) and partition.
  int32_t reliability;
  int32_t history;
  int32_t durability;
  uint32_t depth;
  uint32_t lifespan_ms;
  uint64_t type_hash;
  char writer_id[kIdBytes];
  char partition[kPartitionBytes];
  std::atomic<uint64_t> write_ring;      // next ring position to be written
  std::atomic<uint32_t> table_changes;   // bumped by readers when they (de)register
  std::atomic<uint32_t> space;           // bumped by readers as they move on (futex word)
  std::atomic<uint32_t> writer_waiting;  // the writer waits on `space`
  std::atomic<uint32_t> closed;          // the writer is gone
  ReaderEntry readers[kMaxReaders];
  // RingEntry ring[ring_capacity]; SlotHeader slots[slot_count]; follow.
};

static_assert(std::atomic<uint64_t>::is_always_lock_free, "shared atomics must be lock-free");
static_assert(std::atomic<uint32_t>::is_always_lock_free, "shared atomics must be lock-free");

size_t ControlBytes(uint32_t ring_capacity, uint32_t slot_count);
RingEntry* Ring(ControlHeader* header);
SlotHeader* Slots(ControlHeader* header);

// A mapping of a shared-memory object; unmaps when destroyed.
class Mapping {
 public:
  Mapping() = default;
  ~Mapping();
  Mapping(Mapping&& other) noexcept;
  Mapping& operator=(Mapping&& other) noexcept;
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  // Creates `name` (0600, fails if it exists) with `size` bytes reserved, so that touching it
  // later cannot fault for want of space. Empty string on success, else the reason.
  std::string Create(const std::string& name, size_t size);
  // Maps an existing object; `writable` for the control segment.
  std::string Open(const std::string& name, bool writable);

  void* data() const { return data_; }
  size_t size() const { return size_; }
  explicit operator bool() const { return data_ != nullptr; }

 private:
  void* data_ = nullptr;
  size_t size_ = 0;
};

// A process's start time (clock ticks since boot); 0 when it is gone or cannot be read.
uint64_t ProcessStartTime(pid_t pid);
// This process's start time, read once.
uint64_t OwnStartTime();
// Whether process `pid` that started at `start_time` still runs. A process whose start time
// cannot be read counts as alive: taking a live process for dead unlinks its objects.
bool ProcessAlive(pid_t pid, uint64_t start_time);

// "/korvan.<uid>.<pid>.<start>." for this process; writer segments append a number.
std::string ProcessPrefix();
std::string DataObjectName(const std::string& control, uint32_t slot, uint32_t generation);
// Unlinks the objects of this user's processes that died; returns how many.
int SweepDeadObjects();

// Futex on a word in shared memory. Wait returns after a wake, a change, or `timeout`.
void FutexWait(std::atomic<uint32_t>* word, uint32_t expected, std::chrono::microseconds timeout);
void FutexWakeAll(std::atomic<uint32_t>* word);

int64_t MonotonicNs();

}  // namespace shm
}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
