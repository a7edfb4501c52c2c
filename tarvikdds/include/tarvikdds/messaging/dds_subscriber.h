// Subscriber<T>: a typed subscriber of protobuf messages T, created by Node::CreateSubscriber.
// With a callback, each accepted message is handed to it on the bus's delivery thread of this
// subscriber; without one, messages are kept for ReadReceived (the newest SetDepth() of them).
// Destroying the subscriber waits for a callback that is running; it must not be destroyed
// from inside its own callback.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tarvikdds/bus/korvan_message_traits.h"
#include "tarvikdds/messaging/dds_subscriber_impl.h"

namespace tarvik {
namespace quessa {

template <typename T>
class Subscriber {
 public:
  using Callback = std::function<void(const std::shared_ptr<T>&)>;

  Subscriber(const std::string& topic, const Callback& callback, const QoS& qos,
             uint32_t fault_threshold, const std::string& node_name, const std::string& domain)
      : operations_(korvan::bus::MakeStampingOperations<T>()),
        impl_(std::make_shared<SubscriberImpl>(topic, Wrap(callback), qos, T::descriptor(),
                                               operations_, fault_threshold, node_name, domain)) {}

  // Moves the kept messages into `out`, oldest first, leaving out those that failed a check.
  void ReadReceived(std::vector<std::shared_ptr<T>>& out) {
    std::vector<std::shared_ptr<void>> received;
    impl_->ReadReceived(received);
    out.clear();
    for (auto& msg : received) {
      if (impl_->validateMsgForRead(msg))
        out.push_back(std::static_pointer_cast<T>(msg));
    }
  }
  bool HasReceived() { return impl_->HasReceived(); }
  void SetDepth(uint32_t depth) { impl_->SetDepth(depth); }
  int MatchedPublishers() const { return impl_->MatchedPublishers(); }
  // Messages this subscriber lost for want of room or on the way (keep-last overwrites,
  // refusals of a full keep-all subscriber, best-effort losses): none is lost uncounted.
  uint64_t DroppedSamples() const { return impl_->DroppedSamples(); }
  const std::shared_ptr<SubscriberImpl>& impl() const { return impl_; }

 private:
  static SubscriberImpl::MessageCallback Wrap(const Callback& callback) {
    if (!callback)
      return nullptr;  // selects collectMsg
    return [callback](const std::shared_ptr<void>& msg) {
      callback(std::static_pointer_cast<T>(msg));
    };
  }

  std::shared_ptr<korvan::bus::korvan_message_operations<T>> operations_;
  std::shared_ptr<SubscriberImpl> impl_;
};

}  // namespace quessa
}  // namespace tarvik
