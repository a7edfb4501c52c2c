// What the bus knows about the message it is delivering on the calling thread.
//
// Valid inside a subscriber strategy's MessageCallback (the bus's delivery thread, or the
// publishing thread for inline delivery); null on any other thread and outside the callback.
// Lets a subscriber learn facts about a message that the message itself does not hold: when
// it arrived, which description it was written with, and what ReceiveHooks found in its
// wire bytes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tarvik {
namespace korvan {
namespace bus {

struct DeliveryContext {
  const void* message = nullptr;  // the message object being delivered
  uint64_t type_hash = 0;         // the description the publisher wrote it with; 0 unknown
  uint64_t receive_time_ns = 0;   // real time (Unix epoch) at which the bus received it
  bool from_wire = false;         // it came as bytes from another process
  size_t wire_size = 0;           // and was this many bytes long (0 in-process)
  bool shared_memory = false;     // through shared memory, from a process on this host
  // The publisher (a key of its discovery id) and the message's number within it; 0 and 0
  // when the path does not tell (inside the process).
  uint64_t writer_key = 0;
  uint64_t sequence = 0;
  bool has_wire_check = false;  // ReceiveHooks::InspectWire ran and gave wire_check
  uint64_t wire_check = 0;
};

// The context of the delivery running on this thread, or null.
const DeliveryContext* CurrentDelivery();

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
