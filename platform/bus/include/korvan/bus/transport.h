// The port between the bus and whatever moves its samples. The bus runs up to three transports
// side by side: the in-process transport, which hands message objects to readers in the same
// process; the shared-memory transport, which serves readers in other processes on the same
// host; and the network transport (Cyclone DDS), which reaches every other process and host
// and ignores readers in its own process. A reader served through shared memory gets a
// writer's samples from there only: the bus leaves it out of the network path (see
// TransportWriter::ReachedReaders and ReaderSink::ServedDirectly), so every reader gets every
// sample exactly once. Transports are made by name (transport_registry.h). Tests wrap a
// transport (TransportWrapper) to inject faults.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "korvan/bus/endpoint_description.h"
#include "korvan/bus/entity_record.h"
#include "korvan/bus/inbound_sample.h"
#include "korvan/bus/outbound_sample.h"
#include "korvan/bus/type_description.h"

namespace tarvik {
namespace korvan {
namespace bus {

// Where a reader's samples go. Implemented by the bus, which bounds what a reader holds and
// counts what it loses; every transport keeps the same contract:
//  - a reader holds at most ReaderSampleLimit(qos) samples (the depth for keep-last,
//    max_samples for keep-all) in each place samples wait: the sink's queue, and the
//    transport's own buffer for samples that wait to be taken;
//  - keep-last overwrites the oldest; keep-all refuses more: a reliable writer waits for room
//    up to its blocking time (kMaxBlockingMs) and then fails the write, a best-effort one
//    loses the sample;
//  - every sample meant for a reader that it will not get is counted (OnDropped, or by the
//    sink itself for pushed samples), so none is lost silently.
class ReaderSink {
 public:
  virtual ~ReaderSink() = default;
  // A sample pushed by the transport, on the writer's thread. The sink copies what it keeps
  // before returning. A push that began before the reader was destroyed may still arrive
  // after; a sink stops accepting before its reader goes. A full keep-all sink makes a
  // reliable writer wait until room is made or sample.wait_until passes. False when the sink
  // refused the sample for want of room and the writer should report the write as failed.
  virtual bool OnSample(const InboundSample& sample) = 0;
  // Samples wait in the reader; the sink collects them with TransportReader::Take on its own
  // thread. Called on a transport thread; must return quickly.
  virtual void OnReadable() = 0;
  // `count` samples meant for this reader will never reach it: overwritten in a keep-last
  // history, lost on a best-effort path, refused by a full reader, or never sent because the
  // write failed. Called by transports that learn of such losses; any thread.
  virtual void OnDropped(uint64_t count) { (void)count; }

  // Same-host paths tell the sink which samples they carry, on their own threads. From when
  // `started` returns true, the samples of `writer_key` numbered from its `from_sequence` on
  // come through the direct path. The sink asks `started` when a copy from another path
  // arrives, until DirectPathClosed. When `network_carries_all` (the writer keeps history, so
  // it sends every sample over the network too), each sample is delivered from whichever path
  // brings it first and the other copy is dropped; the direct path may then skip samples and
  // leave them to the network. Otherwise network copies from `from_sequence` on are dropped.
  virtual void DirectPathOpening(uint64_t writer_key, bool network_carries_all,
                                 std::function<bool(uint64_t* from_sequence)> started) {
    (void)writer_key;
    (void)network_carries_all;
    (void)started;
  }
  // The direct path of `writer_key` is gone (the writer left or died). What the sink learnt
  // of the writer's samples stays, so that network copies in flight are not delivered twice.
  virtual void DirectPathClosed(uint64_t writer_key) { (void)writer_key; }
  // One past the highest sequence of `writer_key` that arrived through another path; 0 for
  // none. A direct path holds its first samples back until the other path caught up to it,
  // so that order per writer holds across the switch, and so it does at a gap the other path
  // is to fill.
  virtual uint64_t OtherPathReached(uint64_t writer_key) {
    (void)writer_key;
    return 0;
  }
};

class TransportReader {
 public:
  // After destruction the transport starts no further call of the sink (see OnSample).
  virtual ~TransportReader() = default;
  // Hands up to `max` waiting samples to `fn`, oldest first; returns how many.
  virtual size_t Take(size_t max, const std::function<void(const InboundSample&)>& fn) = 0;
  // Writers currently matched with this reader.
  virtual int MatchedWriters() = 0;
};

class TransportWriter {
 public:
  virtual ~TransportWriter() = default;
  // Sends `sample` to the matched readers. Greater than 0 when done (also when no reader is
  // matched), 0 or less when it failed.
  virtual int Write(OutboundSample& sample) = 0;
  // Readers currently matched with this writer.
  virtual int MatchedReaders() = 0;

  // The discovery ids of the readers this writer reaches, and a number that changes whenever
  // the set does. False when it cannot tell (then it is never left out).
  virtual bool ReachedReaders(uint64_t* version, std::vector<std::string>* ids) {
    (void)version;
    (void)ids;
    return false;
  }
  // Same-host writers: the readers the last Write reached through this writer's own path
  // (sorted), which the bus then leaves out of the network path. Null for other writers.
  virtual std::shared_ptr<const std::vector<std::string>> ServedByLastWrite() { return nullptr; }
  // Same-host writers: the bus sent samples up to `end` (exclusive) over the network to
  // `audience` (sorted ids). A reader of the audience that switches to this writer's path
  // then waits for those before it delivers from here.
  virtual void NoteNetworkSent(std::shared_ptr<const std::vector<std::string>> audience,
                               uint64_t end) {
    (void)audience;
    (void)end;
  }
  // Same-host writers: where readers find this writer (EntityRecord::shared_memory).
  virtual std::string Locator() const { return std::string(); }
};

class Transport {
 public:
  virtual ~Transport() = default;
  virtual const char* Name() const = 0;
  // Null when the endpoint cannot be created (the transport logs why).
  virtual std::unique_ptr<TransportWriter> CreateWriter(const EndpointDescription& endpoint) = 0;
  virtual std::unique_ptr<TransportReader> CreateReader(const EndpointDescription& endpoint,
                                                        std::shared_ptr<ReaderSink> sink) = 0;
  // Discovery: make an entity of this process known, or withdraw it.
  virtual void Announce(const EntityRecord& record) = 0;
  virtual void Withdraw(const std::string& entity_id) = 0;
  // The entities this transport knows of: for the in-process transport those of this process,
  // for the network transport those of every other process. False when it cannot tell.
  virtual bool ListEntities(std::vector<EntityRecord>* out) = 0;
  // Type descriptions: make one of this process known to the others (once per type), and list
  // those that other processes made known. Transports that reach no other process keep the
  // defaults.
  virtual void AnnounceType(const TypeDescription& description) { (void)description; }
  virtual bool ListTypes(std::vector<TypeDescription>* out) {
    (void)out;
    return true;
  }
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
