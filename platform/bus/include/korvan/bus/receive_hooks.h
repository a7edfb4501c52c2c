// Optional extras of a message operations object (korvan_message_interface) for the
// receiving side. The bus looks for them with dynamic_cast when a subscriber is created; an
// operations object that does not implement them gets the plain behaviour.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace tarvik {
namespace korvan {
namespace bus {

class ReceiveHooks {
 public:
  virtual ~ReceiveHooks() = default;

  // True: samples written with another description of the type (another type_hash) are
  // dropped and counted instead of being parsed field by field number. For readers that decode
  // with a description fetched from the bus, which must never apply to other data.
  virtual bool RequiresSameDescription() const { return false; }

  // Called on a bus thread right after `msg` was parsed from the `size` bytes at `data`,
  // while those bytes are still valid (never for in-process samples, which have no bytes).
  // Returning true hands `*check` to the subscriber's callback as
  // DeliveryContext::wire_check. Must be thread-safe.
  virtual bool InspectWire(const std::shared_ptr<void>& msg, const void* data, size_t size,
                           uint64_t* check) const {
    (void)msg;
    (void)data;
    (void)size;
    (void)check;
    return false;
  }
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
