// Publisher<T>: a typed publisher of protobuf messages T, created by Node::CreatePublisher.
// Stamp fields that T declares are filled in on every Publish.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "tarvikdds/bus/korvan_message_traits.h"
#include "tarvikdds/messaging/dds_publisher_impl.h"

namespace tarvik {
namespace quessa {

template <typename T>
class Publisher {
 public:
  Publisher(const std::string& topic, const QoS& qos, uint32_t fault_threshold,
            const std::string& node_name, const std::string& domain)
      : operations_(korvan::bus::MakeStampingOperations<T>()),
        impl_(std::make_shared<PublisherImpl>(topic, qos, T::descriptor(), operations_,
                                              fault_threshold, node_name, domain)) {}
  // Wraps an implementation built elsewhere, e.g. one made without a descriptor so that
  // Publish stamps nothing.
  Publisher(std::shared_ptr<korvan::bus::korvan_message_operations<T>> operations,
            std::shared_ptr<PublisherImpl> impl)
      : operations_(std::move(operations)), impl_(std::move(impl)) {}

  // Stamps `msg` in place and sends it; false when it could not be sent.
  bool Publish(const std::shared_ptr<T>& msg) { return impl_->Publish(msg); }
  int MatchedSubscribers() const { return impl_->MatchedSubscribers(); }
  const std::shared_ptr<PublisherImpl>& impl() const { return impl_; }

 private:
  std::shared_ptr<korvan::bus::korvan_message_operations<T>> operations_;
  std::shared_ptr<PublisherImpl> impl_;
};

}  // namespace quessa
}  // namespace tarvik
