// A message on its way to the transports. A typed message is serialised only when a transport
// needs bytes, and at most once however many transports ask; the in-process transport hands
// the object itself to its readers.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "korvan/bus/korvan_message_interface.h"

namespace tarvik {
namespace korvan {
namespace bus {

// Service plumbing carried next to the payload; all zero/empty for plain topics.
struct Correlation {
  uint64_t request_id = 0;
  std::string origin;  // identity of the calling client
  uint32_t flags = 0;  // kCorrelation* bits
};

inline constexpr uint32_t kCorrelationNoResponse = 1;  // the service produced no response

class OutboundSample {
 public:
  // A typed message of `operations`' type (not owned; must outlive the sample).
  OutboundSample(std::shared_ptr<void> message, korvan_message_interface* operations,
                 const std::string& type_name)
      : message_(std::move(message)), operations_(operations), type_name_(type_name) {}
  // A typed message together with its wire form, made already by the caller.
  OutboundSample(std::shared_ptr<void> message, korvan_message_interface* operations,
                 const std::string& type_name, std::string bytes)
      : message_(std::move(message)),
        operations_(operations),
        type_name_(type_name),
        bytes_(std::make_shared<std::string>(std::move(bytes))) {}
  // Bytes serialised already (service requests and responses).

  OutboundSample(std::string bytes, const std::string& type_name)
      : type_name_(type_name), bytes_(std::make_shared<std::string>(std::move(bytes))) {}

  const std::shared_ptr<void>& message() const { return message_; }
  korvan_message_interface* operations() const { return operations_; }
  const std::string& type_name() const { return type_name_; }

  // A typed message whose wire form nobody asked for yet can be serialised straight into
  // memory of the caller's (a same-host transport's segment), without the copy Bytes() makes.
  bool CanSerializeDirectly() const {
    return !bytes_ && !serialise_failed_ && operations_ != nullptr && message_ != nullptr;
  }
  size_t DirectSize() const { return operations_->ByteSizeLong(message_); }
  // Serialises into `buffer` of `size` bytes (DirectSize(), taken right before).
  bool SerializeDirectly(void* buffer, size_t size) const {
    return operations_->SerializeToArray(message_, buffer, static_cast<int>(size));
  }

  // The wire form; null when serialising failed (then every later call is null too).
  const std::string* Bytes() {
    if (!bytes_ && !serialise_failed_) {
      bytes_ = std::make_shared<std::string>();
      if (operations_ == nullptr || !operations_->SerializeToString(message_, bytes_)) {
        bytes_.reset();
        serialise_failed_ = true;
      }
    }
    return bytes_.get();
  }

  Correlation correlation;
  // Set by the bus before the transports see the sample: its number within the writing
  // endpoint, counting from 0, the same on every path.
  uint64_t sequence = 0;

 private:
  std::shared_ptr<void> message_;
  korvan_message_interface* operations_ = nullptr;
  const std::string& type_name_;
  std::shared_ptr<std::string> bytes_;
  bool serialise_failed_ = false;
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
