#include "tarvikdds/fault_reporter.h"

#include <unordered_map>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include "infra/mutex.h"
#include "infra/time.h"
#include "tarvikdds/application/init.h"
#include "tarvikdds/bus/korvan_message_traits.h"
#include "tarvikdds/bus/stamp_fields.h"

#include "tarvikdds/messaging/dds_publisher_impl.h"
#include "tarvikdds/messaging/qos.h"

namespace tarvik {
namespace quessa {
namespace {

namespace bus = korvan::bus;
using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using korvan::Time;
using messages::internal::RawMessage;

// The one process-wide lock every operation takes.
korvan::inf::Mutex s_lock;
std::unordered_map<std::string, std::shared_ptr<MsgInfo>> s_map_topic_msginfo
    KORVAN_GUARDED_BY(s_lock);

bool Declares(const Descriptor* descriptor, const char* name, int number) {
  return bus::FindStampField(descriptor, name, number) != nullptr;
}

// The field numbered `number` of `descriptor` when it can hold the stamp, else null. The flags
// of a topic come from its first message type, so a later type may have anything there.
const FieldDescriptor* Stampable(const Descriptor* descriptor, int number, bool is_string) {
  return bus::WritableStampField(descriptor->FindFieldByNumber(number), is_string);
}

void StampInteger(google::protobuf::Message& msg, int number, uint64_t value) {
  if (const FieldDescriptor* field = Stampable(msg.GetDescriptor(), number, false))
    bus::WriteStampInteger(&msg, field, value);
}

std::shared_ptr<MsgInfo> CreateMsgInfo(const std::string& topic, const Descriptor* descriptor) {
  auto info = std::make_shared<MsgInfo>();
  info->has_publish_ptp_ts = Declares(descriptor, bus::kPublishPtpTsName, bus::kPublishPtpTsNumber);
  info->has_publish_ts = Declares(descriptor, bus::kPublishTsName, bus::kPublishTsNumber);
  info->has_counter = Declares(descriptor, bus::kCounterName, bus::kCounterNumber);
  info->has_publisher_id = Declares(descriptor, bus::kPublisherIdName, bus::kPublisherIdNumber);

  // The reporter needs no node, so nothing else may have started the runtime yet.
  tarvikdds::Init("");
  // Built without a descriptor: the envelope has no stamp fields, the content is stamped here.
  auto operations = std::make_shared<bus::korvan_message_operations<RawMessage>>();
  const QoS qos{0, 10, 1, 1};
  auto impl = std::make_shared<PublisherImpl>(topic, qos, operations, 0, "", "");
  info->publisher = std::make_shared<Publisher<RawMessage>>(operations, impl);

  // Reports are fire and forget: give subscribers time to discover the new publisher before
  // the first one goes out.
  Time::Sleep(1000, Time::kMillisecond);
  if (info->has_publisher_id)
    info->publisher_id = impl->participant_id();
  return info;
}

}  // namespace

void FaultReporter::Init(Node*) {}

void FaultReporter::Report(const std::string& topic, google::protobuf::Message& msg) {
  korvan::inf::MutexLock lock(&s_lock);
  auto it = s_map_topic_msginfo.find(topic);
  if (it == s_map_topic_msginfo.end())
    it = s_map_topic_msginfo.emplace(topic, CreateMsgInfo(topic, msg.GetDescriptor())).first;
  MsgInfo& info = *it->second;

  if (info.has_publish_ptp_ts)
    StampInteger(msg, bus::kPublishPtpTsNumber, Time::Ptp(Time::kNanosecond));
  if (info.has_publish_ts)
    StampInteger(msg, bus::kPublishTsNumber, Time::Utc(Time::kNanosecond));
  if (info.has_counter) {
    StampInteger(msg, bus::kCounterNumber, static_cast<uint64_t>(int64_t{info.counter}));
    // Wraps instead of overflowing after 2^31 reports.
    info.counter = static_cast<int32_t>(static_cast<uint32_t>(info.counter) + 1u);
  }
  if (info.has_publisher_id) {
    if (const FieldDescriptor* field =
            Stampable(msg.GetDescriptor(), bus::kPublisherIdNumber, true)) {
      bus::WriteStampString(&msg, field, info.publisher_id);
    }
  }

  // The envelope declares only field 1; everything else of the report rides along as unknown
  // fields, so a subscriber of the envelope can parse the original type back out of it.
  // Partial: a report that misses a required field is still worth sending.
  std::string bytes;
  msg.SerializePartialToString(&bytes);
  auto envelope = std::make_shared<RawMessage>();
  envelope->ParseFromString(bytes);
  info.publisher->impl()->Publish(envelope);
}

void FaultReporter::Finalize() {
  korvan::inf::MutexLock lock(&s_lock);
  s_map_topic_msginfo.clear();
}

}  // namespace quessa
}  // namespace tarvik
