#include "korvan/tools/raw_subscriber.h"

#include <google/protobuf/message.h>

#include <cstring>

#include "korvan/bus/delivery_context.h"
#include "korvan/bus/korvan_bus_manager.h"
#include "korvan/bus/singleton.h"
#include "tarvikdds/bus/stamp_fields.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/messaging/topic_config.h"

namespace tarvik {
namespace korvan {
namespace tools {
namespace {

RawBytes* Cast(const std::shared_ptr<void>& msg) {
  return static_cast<RawBytes*>(msg.get());
}

}  // namespace

size_t RawBytesOperations::ByteSizeLong(const std::shared_ptr<void>& msg) {
  return msg ? Cast(msg)->bytes.size() : 0;
}

void RawBytesOperations::CopyFrom(std::shared_ptr<void> dst, const void* src) {
  if (dst && src != nullptr)
    Cast(dst)->bytes = static_cast<const RawBytes*>(src)->bytes;
}

bool RawBytesOperations::SerializeToString(const std::shared_ptr<void>& msg,
                                           std::shared_ptr<std::string>& out) {
  if (!msg)
    return false;
  if (!out)
    out = std::make_shared<std::string>();
  *out = Cast(msg)->bytes;
  return true;
}

bool RawBytesOperations::ParseFromString(const std::shared_ptr<std::string>& in,
                                         std::shared_ptr<void>& msg) {
  if (!in)
    return false;
  if (!msg)
    msg = std::make_shared<RawBytes>();
  Cast(msg)->bytes = *in;
  return true;
}

bool RawBytesOperations::SerializeToArray(const std::shared_ptr<void>& msg, void* buf, int size) {
  if (!msg || buf == nullptr || size < 0 || static_cast<size_t>(size) < Cast(msg)->bytes.size())
    return false;
  std::memcpy(buf, Cast(msg)->bytes.data(), Cast(msg)->bytes.size());
  return true;
}

bool RawBytesOperations::ParseFromArray(const void* buf, int size, std::shared_ptr<void> msg) {
  if (!msg || size < 0 || (buf == nullptr && size > 0))
    return false;
  Cast(msg)->bytes.assign(static_cast<const char*>(buf), static_cast<size_t>(size));
  return true;
}

bool RawBytesOperations::parseMessage(std::shared_ptr<void>& dst, const void* data, int size,
                                      bool is_object, bool) {
  if (!dst)
    dst = std::make_shared<RawBytes>();
  if (!is_object)
    return ParseFromArray(data, size, dst);
  // Every in-process publisher of a protobuf topic hands over a protobuf message.
  if (data == nullptr)
    return false;
  return bus::SerializeDeterministic(*static_cast<const google::protobuf::Message*>(data),
                                     &Cast(dst)->bytes);
}

int RawBytesOperations::NewMessage(std::shared_ptr<void>& msg, const std::string&) {
  msg = std::make_shared<RawBytes>();
  return 0;
}

RawSubscriber::RawSubscriber(quessa::Node& node, const std::string& topic,
                             const std::string& type_name, const quessa::QoS& qos, OnBytes on_bytes,
                             std::chrono::milliseconds sample_interval)
    : topic_(topic), on_bytes_(std::move(on_bytes)) {
  bool configured = false;
  bus::TopicConfig config =
      quessa::TopicConfigFor(topic, qos, node.name(), node.domain(), &configured);
  if (sample_interval.count() > 0 && !config.has_sample_interval_ms())
    config.set_sample_interval_ms(static_cast<uint32_t>(sample_interval.count()));
  strategy_ = utils::Singleton<bus::KorvanBusManager>::Instance()->createSubscriberStrategy(
      config, std::make_shared<RawBytesOperations>(type_name),
      [this](const std::shared_ptr<void>& raw, uint64_t) {
        if (!raw || !on_bytes_)
          return;
        RawReceived info;
        if (const bus::DeliveryContext* context = bus::CurrentDelivery()) {
          info.receive_time_ns = context->receive_time_ns;
          info.type_hash = context->type_hash;
          info.from_wire = context->from_wire;
          info.writer_key = context->writer_key;
          info.sequence = context->sequence;
        }
        on_bytes_(std::move(static_cast<RawBytes*>(raw.get())->bytes), info);
      },
      nullptr, nullptr);
}

RawSubscriber::~RawSubscriber() {
  strategy_.reset();  // stops delivery before the callback's state goes
}

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
