// A received sample as a transport hands it to a reader's sink. Everything it points at is
// valid only during the call it is passed to.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "korvan/bus/outbound_sample.h"

namespace tarvik {
namespace korvan {
namespace bus {

struct InboundSample {
  const void* data = nullptr;  // wire bytes, or a live protobuf message when is_object
  size_t size = 0;
  bool is_object = false;
  const std::string* type_name = nullptr;  // the writer's message type
  uint64_t type_hash = 0;                  // the writer's description of it, 0 when unknown
  const Correlation* correlation = nullptr;
  bool replayed = false;  // history for a late joiner, not a new sample
  // Pushed samples of a reliable writer: how long the writer may wait for room in a full
  // keep-all reader. The default (the clock's epoch) means it does not wait.
  std::chrono::steady_clock::time_point wait_until{};
  // The writing endpoint (WriterKey of its discovery id) and the sample's number within it,
  // the same on every path; 0 and 0 when the transport does not tell.
  uint64_t writer_key = 0;
  uint64_t sequence = 0;
  bool shared_memory = false;  // came through a same-host shared-memory path
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
