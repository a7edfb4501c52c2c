#include "korvan/tools/dynamic_endpoints.h"

#include <google/protobuf/descriptor.h>

#include "korvan/bus/bus_param.h"
#include "korvan/bus/delivery_context.h"
#include "korvan/tools/wire_scan.h"
#include "tarvikdds/bus/stamp_fields.h"
#include "tarvikdds/lumis_interface.h"
#include "tarvikdds/messaging/dds_node.h"

namespace tarvik {
namespace korvan {
namespace tools {
namespace {

using google::protobuf::Message;

Received Describe(const DynamicType& type, const Message& message) {
  Received info;
  const bus::StampFieldSet stamps(type.descriptor);
  const auto* reflection = message.GetReflection();
  if (stamps.counter && reflection->HasField(message, stamps.counter)) {
    info.has_counter = true;
    info.counter = bus::ReadStampInteger(message, stamps.counter);
  }
  if (stamps.publisher_id)
    info.publisher_id = bus::ReadStampString(message, stamps.publisher_id);
  if (stamps.publish_ts && reflection->HasField(message, stamps.publish_ts)) {
    info.has_publish_time = true;
    info.publish_time_ns = bus::ReadStampInteger(message, stamps.publish_ts);
  }
  info.crc_checked = stamps.crc != nullptr;
  return info;
}

// Operations that leave received samples undecoded: every sample "parses" into one shared
// placeholder that nobody reads, and the publish time is picked from the wire bytes.
class ArrivalOperations : public message::DynamicMessageOperations {
 public:
  ArrivalOperations(const google::protobuf::Descriptor* descriptor, const Message* prototype)
      : DynamicMessageOperations(descriptor, prototype),
        placeholder_(New()),
        has_publish_time_(bus::StampFieldSet(descriptor).publish_ts != nullptr) {}

  bool parseMessage(std::shared_ptr<void>& dst, const void* data, int size, bool is_object,
                    bool flag) override {
    if (!is_object)
      return true;
    // A sample of this process, handed over as an object: copied like any other subscriber.
    dst = New();
    return DynamicMessageOperations::parseMessage(dst, data, size, is_object, flag);
  }
  bool HasAllocator() override { return true; }
  std::shared_ptr<void> Allocate() override { return placeholder_; }
  bool InspectWire(const std::shared_ptr<void>&, const void* data, size_t size,
                   uint64_t* check) const override {
    return has_publish_time_ && ReadPublishTime(data, size, check);
  }

 private:
  const std::shared_ptr<Message> placeholder_;
  const bool has_publish_time_;
};

}  // namespace

ArrivalSubscriber::ArrivalSubscriber(quessa::Node& node, const std::string& topic,
                                     const DynamicType& type, const quessa::QoS& qos,
                                     OnArrival on_arrival)
    : on_arrival_(std::move(on_arrival)) {
  auto operations = std::make_shared<ArrivalOperations>(type.descriptor, type.prototype);
  // No descriptor for the checks: an undecoded sample has no stamps to check.
  impl_ = std::make_shared<quessa::SubscriberImpl>(
      topic,
      [this](const std::shared_ptr<void>&) {
        const bus::DeliveryContext* context = bus::CurrentDelivery();
        if (context == nullptr || !on_arrival_)
          return;
        Arrival arrival;
        arrival.receive_time_ns = context->receive_time_ns;
        arrival.wire_size = context->wire_size;
        arrival.has_publish_time = context->has_wire_check;
        arrival.publish_time_ns = context->wire_check;
        on_arrival_(arrival);
      },
      qos, nullptr, operations, 0, node.name(), node.domain());
}

ArrivalSubscriber::~ArrivalSubscriber() {
  impl_.reset();  // stops delivery before the callback's state goes
}

quessa::QoS ListeningQos(int32_t all_reliable, int32_t all_durable, uint32_t depth) {
  quessa::QoS qos;
  qos.history_type = 0;
  qos.history_depth = depth;
  qos.reliability = all_reliable ? 1 : 2;
  qos.durability = all_durable ? 2 : 1;
  return qos;
}

DynamicSubscriber::DynamicSubscriber(quessa::Node& node, const std::string& topic,
                                     const DynamicType& type, const quessa::QoS& qos,
                                     OnMessage on_message, OnRejected on_rejected)
    : type_(type), on_message_(std::move(on_message)), on_rejected_(std::move(on_rejected)) {
  impl_ = std::make_shared<quessa::SubscriberImpl>(
      topic,
      [this](const std::shared_ptr<void>& raw) {
        auto message = std::static_pointer_cast<Message>(raw);
        Received info = Describe(type_, *message);
        if (const bus::DeliveryContext* context = bus::CurrentDelivery()) {
          info.receive_time_ns = context->receive_time_ns;
          info.type_hash = context->type_hash;
          info.wire_size = context->wire_size;
        }
        if (info.wire_size == 0)
          info.wire_size = message->ByteSizeLong();
        if (on_message_)
          on_message_(message, info);
      },
      qos, type.descriptor, type.operations, 0, node.name(), node.domain());
  impl_->SetCRCErrorCallback([this](uint32_t carried, uint32_t computed) {
    if (on_rejected_) {
      on_rejected_("crc mismatch: carried " + std::to_string(carried) + ", computed " +
                   std::to_string(computed));
    }
  });
  impl_->SetSequenceErrorCallback(
      [this](const std::shared_ptr<void>&, uint64_t last, uint64_t received) {
        if (on_rejected_ && received <= last) {
          on_rejected_("counter " + std::to_string(received) + " after " + std::to_string(last) +
                       ": repeated or older, not delivered");
        }
      });
}

DynamicSubscriber::~DynamicSubscriber() {
  impl_.reset();  // stops delivery before the callbacks' state goes
}

DynamicPublisher::DynamicPublisher(quessa::Node& node, const std::string& topic,
                                   const DynamicType& type, const quessa::QoS& qos)
    : type_(type),
      impl_(std::make_shared<quessa::PublisherImpl>(topic, qos, type.descriptor, type.operations, 0,
                                                    node.name(), node.domain())) {}

bool DynamicPublisher::ok() const {
  return impl_ != nullptr;
}

bool DynamicPublisher::Publish(const Message& message) {
  std::shared_ptr<Message> copy = type_.operations->New();
  if (message.GetDescriptor() == copy->GetDescriptor()) {
    copy->CopyFrom(message);
  } else if (!copy->ParseFromString(message.SerializeAsString())) {
    return false;
  }
  return impl_->Publish(copy);
}

DynamicClient::DynamicClient(quessa::Node& node, const std::string& service,
                             const DynamicType& request, const DynamicType& response)
    : request_(request), response_(response) {
  std::shared_ptr<void> bus_node =
      quessa::lumis_interface::GetLumisNode(node.name(), node.domain());
  if (!bus_node)
    return;
  bus::BusParam param{};
  param.name = service;
  param.request_type = request.type_name;
  param.response_type = response.type_name;
  param.serializer = [](const void* msg, void* buf, int size) {
    return buf != nullptr && static_cast<const Message*>(msg)->SerializeToArray(buf, size);
  };
  param.size = [](const void* msg) {
    const size_t size = static_cast<const Message*>(msg)->ByteSizeLong();
    return size == 0 ? 32 : static_cast<int>(size);  // the bus never asks for 0 bytes
  };
  const DynamicType* response_type = &response_;
  param.deserializer = [response_type](const void* data, int size, std::shared_ptr<void>* out) {
    std::shared_ptr<Message> msg = response_type->operations->New();
    *out = msg;
    return data != nullptr && msg->ParseFromArray(data, size);
  };
  param.request_descriptor = request.descriptor;
  param.response_descriptor = response.descriptor;
  object_ = quessa::lumis_interface::GetLumisClientObject(bus_node.get(), &param);
}

DynamicClient::~DynamicClient() = default;

bool DynamicClient::WaitForService(std::chrono::milliseconds wait) {
  if (!object_)
    return false;
  long wait_ms = static_cast<long>(wait.count());
  bus::BusParam request{};
  request.arg = &wait_ms;
  return quessa::lumis_interface::SetLumisClientRequest("WaitForService", object_.get(),
                                                        &request) != nullptr;
}

std::shared_ptr<Message> DynamicClient::Call(const Message& request,
                                             std::chrono::milliseconds timeout) {
  if (!object_)
    return nullptr;
  std::shared_ptr<Message> copy = request_.operations->New();
  if (request.GetDescriptor() == copy->GetDescriptor()) {
    copy->CopyFrom(request);
  } else if (!copy->ParseFromString(request.SerializeAsString())) {
    return nullptr;
  }
  bus::CallArgument argument;
  argument.request = copy;
  argument.timeout_ms = static_cast<long>(timeout.count());
  bus::BusParam call{};
  call.arg = &argument;
  return std::static_pointer_cast<Message>(
      quessa::lumis_interface::SetLumisClientRequest("Call", object_.get(), &call));
}

}  // namespace tools
}  // namespace korvan
}  // namespace tarvik
