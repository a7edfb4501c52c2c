// SubscriberImpl: the receiving end of a topic. Runs the checks that the message type
// declares on every delivered message (CRC, counter per publisher, transmit delay, update
// gap) and then calls the user's callback, or, without a callback, keeps the newest `depth`
// messages for ReadReceived. Messages that fail the CRC or counter check are not delivered;
// they go to a bounded list of rejected messages.
//
// OnMessage, collectMsg and the callbacks run on the bus's delivery thread of this
// subscriber. ReadReceived, HasReceived and validateMsgForRead may be called from any thread
// (the received queue and the rejected list have their own mutexes). The user's callback runs
// without any of the subscriber's locks held.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "infra/mutex.h"
#include "korvan/bus/korvan_message_interface.h"
#include "korvan/bus/subscriber_strategy.h"
#include "tarvikdds/messaging/dds_participant.h"
#include "tarvikdds/messaging/qos.h"

namespace tarvik {
namespace quessa {

class SubscriberImpl : public Participant {
 public:
  using MessageCallback = std::function<void(const std::shared_ptr<void>&)>;
  using CrcErrorCallback = std::function<void(uint32_t expected, uint32_t actual)>;
  using SequenceErrorCallback =
      std::function<void(const std::shared_ptr<void>& msg, uint64_t last, uint64_t received)>;

  // The two name strings are the owning node's (node name, domain).
  SubscriberImpl(const std::string& topic, const MessageCallback& callback, const QoS& qos,
                 std::shared_ptr<korvan::bus::korvan_message_interface> operations,
                 uint32_t fault_threshold, const std::string& node_name, const std::string& domain);
  SubscriberImpl(const std::string& topic, const MessageCallback& callback, const QoS& qos,
                 const google::protobuf::Descriptor* descriptor,
                 std::shared_ptr<korvan::bus::korvan_message_interface> operations,
                 uint32_t fault_threshold, const std::string& node_name, const std::string& domain);
  ~SubscriberImpl() override;

  // Creates the strategy; an empty callback selects collectMsg (queue for ReadReceived).
  void Init(const MessageCallback& callback, const QoS& qos,
            const google::protobuf::Descriptor* descriptor, const std::string& node_name,
            const std::string& domain);

  // Entry of every delivered message.
  void OnMessage(const std::shared_ptr<void>& msg);
  // Keeps the newest `depth` messages.
  void collectMsg(const std::shared_ptr<void>& msg);
  // Moves the queued messages into `out`, oldest first.
  void ReadReceived(std::vector<std::shared_ptr<void>>& out);
  bool HasReceived();
  bool ReaderExist() const { return strategy_ != nullptr; }
  void SetDepth(uint32_t depth) { depth_.store(depth, std::memory_order_relaxed); }
  std::string GetName() const { return topic_; }
  void SetCRCErrorCallback(const CrcErrorCallback& callback) { crc_error_callback_ = callback; }
  void SetSequenceErrorCallback(const SequenceErrorCallback& callback) {
    sequence_error_callback_ = callback;
  }
  // Switches every receive check off for good.
  void MannualInitParticipant();

  bool ValidateSeq(uint64_t counter, const std::shared_ptr<void>& msg);
  bool ValidateSeq(uint64_t counter, const std::string& publisher_id,
                   const std::shared_ptr<void>& msg);
  bool validateSeq(uint64_t counter, uint64_t& last, const std::shared_ptr<void>& msg);
  bool validateMsgSeq(const std::shared_ptr<void>& msg);
  // False exactly when `msg` itself is in the rejected list (it then leaves the list).
  bool validateMsgForRead(const std::shared_ptr<void>& msg);

  // Publishers currently matched, in this process and elsewhere.
  int MatchedPublishers() const;
  // Messages meant for this subscriber that it lost before its checks and callback: see
  // korvan::bus::SubscriberStrategy::droppedSamples. 0 without a strategy. Any thread.
  uint64_t DroppedSamples() const;
  size_t RejectedCount();

 private:
  static constexpr uint64_t kNoCounter = ~uint64_t{0};

  // A publisher identity as a map key: a canonical UUID (what publishers use) packed into
  // 128 bits, so the per-message lookup hashes two words instead of 36 characters.
  struct PublisherKey {
    uint64_t high = 0;
    uint64_t low = 0;
    bool operator==(const PublisherKey& other) const {
      return high == other.high && low == other.low;
    }
  };
  struct PublisherKeyHash {
    size_t operator()(const PublisherKey& key) const {
      return static_cast<size_t>(key.high * 0x9E3779B97F4A7C15ULL ^ key.low);
    }
  };
  static bool PackUuid(const std::string& id, PublisherKey* key);
  bool CrcCheckedOnTheWire(const std::shared_ptr<void>& msg);

  CrcErrorCallback crc_error_callback_;
  MessageCallback message_callback_;
  SequenceErrorCallback sequence_error_callback_;
  korvan::inf::Mutex sequence_lock_;
  std::unordered_map<PublisherKey, uint64_t, PublisherKeyHash> publisher_counters_
      KORVAN_GUARDED_BY(sequence_lock_);
  std::unordered_map<std::string, uint64_t> other_publisher_counters_  // not UUIDs
      KORVAN_GUARDED_BY(sequence_lock_);
  uint64_t last_counter_ = kNoCounter;
  korvan::inf::Mutex rejected_lock_;
  std::list<std::shared_ptr<void>> rejected_ KORVAN_GUARDED_BY(rejected_lock_);
  size_t rejected_count_ KORVAN_GUARDED_BY(rejected_lock_) = 0;
  korvan::inf::Mutex received_lock_;
  std::list<std::shared_ptr<void>> received_ KORVAN_GUARDED_BY(received_lock_);
  size_t received_count_ KORVAN_GUARDED_BY(received_lock_) = 0;
  std::atomic<uint32_t> depth_{1};  // set by any thread, read under either list's lock
  uint64_t receive_interval_ = 0;
  uint64_t last_receive_time_ = 0;
  int64_t last_callback_cost_ = 0;
  std::shared_ptr<korvan::bus::SubscriberStrategy> strategy_;
  bool own_configuration_ = false;
  std::shared_ptr<korvan::bus::korvan_message_interface> operations_;
};

}  // namespace quessa
}  // namespace tarvik
