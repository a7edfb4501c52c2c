// Publishers, subscribers and service clients for types a tool learnt at run time
// (DynamicType). They are the library's own PublisherImpl / SubscriberImpl underneath, so they
// stamp, and check stamps, exactly like compiled programs do.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <google/protobuf/message.h>

#include "korvan/tools/type_catalog.h"
#include "tarvikdds/messaging/dds_publisher_impl.h"
#include "tarvikdds/messaging/dds_subscriber_impl.h"
#include "tarvikdds/messaging/qos.h"

namespace tarvik {
namespace quessa {
class Node;
}  // namespace quessa

namespace korvan {
namespace tools {

// What a tool knows about one received message besides its content.
struct Received {
  uint64_t receive_time_ns = 0;  // Unix epoch
  uint64_t type_hash = 0;        // description it was written with
  size_t wire_size = 0;          // bytes on the wire (its serialised size in-process)
  // Stamps, where the type declares them.
  bool has_counter = false;
  uint64_t counter = 0;
  std::string publisher_id;
  bool has_publish_time = false;
  uint64_t publish_time_ns = 0;  // publish_ts
  bool crc_checked = false;      // the type has a crc and it matched
};

// Subscribes to a topic with one dynamic type. `on_message` runs on the bus's delivery thread
// of this subscriber; `on_rejected` (optional) for messages that failed a stamp check, with a
// short reason ("crc mismatch: carried x, computed y", "counter went back: ...").
class DynamicSubscriber {
 public:
  using OnMessage =
      std::function<void(const std::shared_ptr<google::protobuf::Message>&, const Received&)>;
  using OnRejected = std::function<void(const std::string& reason)>;

  // `node` must outlive the subscriber.
  DynamicSubscriber(quessa::Node& node, const std::string& topic, const DynamicType& type,
                    const quessa::QoS& qos, OnMessage on_message, OnRejected on_rejected = nullptr);
  ~DynamicSubscriber();

  bool ok() const { return impl_ && impl_->ReaderExist(); }
  int MatchedPublishers() const { return impl_ ? impl_->MatchedPublishers() : 0; }

 private:
  const DynamicType& type_;
  OnMessage on_message_;
  OnRejected on_rejected_;
  std::shared_ptr<quessa::SubscriberImpl> impl_;
};

// What a tool learns of one arrival without decoding it.
struct Arrival {
  uint64_t receive_time_ns = 0;  // Unix epoch
  size_t wire_size = 0;          // bytes on the wire
  bool has_publish_time = false;
  uint64_t publish_time_ns = 0;  // the publish_ts stamp, read from the wire bytes
};

// Subscribes to a topic for its arrivals only, for rate, bandwidth and delay: samples are not
// decoded (the publish time of a stamped type is read from the bytes) and no stamp is checked,
// so it keeps up with publishers far faster than a decoding subscriber. Samples written with
// another description than `type` are not delivered, as with DynamicSubscriber. `on_arrival`
// runs on the bus's delivery thread of this subscriber.
class ArrivalSubscriber {
 public:
  using OnArrival = std::function<void(const Arrival&)>;

  // `node` must outlive the subscriber.
  ArrivalSubscriber(quessa::Node& node, const std::string& topic, const DynamicType& type,
                    const quessa::QoS& qos, OnArrival on_arrival);
  ~ArrivalSubscriber();

  int MatchedPublishers() const { return impl_ ? impl_->MatchedPublishers() : 0; }

 private:
  OnArrival on_arrival_;
  std::shared_ptr<quessa::SubscriberImpl> impl_;
};

class DynamicPublisher {
 public:
  DynamicPublisher(quessa::Node& node, const std::string& topic, const DynamicType& type,
                   const quessa::QoS& qos);
  // A copy of `message` is stamped (where the type declares stamps) and sent.
  bool Publish(const google::protobuf::Message& message);
  int MatchedSubscribers() const { return impl_->MatchedSubscribers(); }
  bool ok() const;

 private:
  const DynamicType& type_;
  std::shared_ptr<quessa::PublisherImpl> impl_;
};

// A client of a service whose request and response types are dynamic.
class DynamicClient {
 public:
  DynamicClient(quessa::Node& node, const std::string& service, const DynamicType& request,
                const DynamicType& response);
  ~DynamicClient();
  bool ok() const { return object_ != nullptr; }
  bool WaitForService(std::chrono::milliseconds wait);
  // The response, or null on time-out, failure or a service that gave none.
  std::shared_ptr<google::protobuf::Message> Call(const google::protobuf::Message& request,
                                                  std::chrono::milliseconds timeout);

 private:
  const DynamicType& request_;
  const DynamicType& response_;
  std::shared_ptr<void> object_;
};

// The QoS a tool subscribes with to hear every publisher of a topic: reliable and
// transient-local only when every publisher offers it, and a deep keep-last queue so a busy
// tool drops rather than slowing the publishers down.
quessa::QoS ListeningQos(int32_t all_reliable, int32_t all_durable, uint32_t depth = 1000);

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
