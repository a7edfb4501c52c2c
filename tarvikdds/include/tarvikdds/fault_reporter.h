// FaultReporter: publishes a protobuf message of any generated type on a named topic, for code
// that owns no node or publisher (fault and status reports, fire and forget).
//
// The first report on a topic creates a raw-envelope publisher for it and waits one second so
// that subscribers can discover it; later reports only stamp and send. The message's header
// fields (publish_ts, publish_ptp_ts, counter, publisher_id, declared with the stamp numbers)
// are stamped in place and keep their values after the call. Keep one message type per topic:
// which header fields a topic has is decided by its first report.
//
// Every operation takes one process-wide lock, so reports on all topics are serialised and the
// first report of a topic holds the others up for its wait.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "tarvikdds/messaging/dds_publisher.h"
#include "tarvikdds/proto/raw_message.pb.h"

namespace google {
namespace protobuf {
class Message;
}  // namespace protobuf
}  // namespace google

namespace tarvik {
namespace quessa {

class Node;

// What the reporter keeps per topic.
struct MsgInfo {
  std::shared_ptr<Publisher<messages::internal::RawMessage>> publisher;
  bool has_publish_ptp_ts = false;
  bool has_publish_ts = false;
  bool has_counter = false;
  int32_t counter = 0;  // the next report's counter
  bool has_publisher_id = false;
  std::string publisher_id;
};

class FaultReporter {
 public:
  FaultReporter() = delete;

  // Does nothing: the reporter needs no node. Kept for callers that pass theirs.
  static void Init(Node* node);
  // Stamps `msg` and publishes it on `topic`. Failures pass silently.
  static void Report(const std::string& topic, google::protobuf::Message& msg);
  // Drops every topic's publisher; the next report on a topic starts afresh (counter 0).
  static void Finalize();
};

}  // namespace quessa
}  // namespace tarvik
