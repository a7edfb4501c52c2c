#include "core/subscriber_endpoint.h"

#include <atomic>
#include <mutex>
#include <set>

#include "core/qos_rules.h"
#include "trevam/log.h"

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

constexpr char kModule[] = "korvan_bus";

// What the delivery threads need. Shared with them, so that a subscriber destroyed from inside
// its own callback leaves the running thread valid state to return to.
struct Receiver {
  std::string topic;
  std::string type_name;
  bool accepts_any = false;
  std::shared_ptr<korvan_message_interface> operations;
  SubscriberStrategy::MessageCallback callback;
  SubscriberStrategy::Allocator allocator;
  SubscriberStrategy::Deallocator deallocator;
  std::atomic<uint64_t> arrivals{0};
  std::mutex foreign_mutex;
  std::set<std::string> foreign_types;  // publisher types already warned about

  std::shared_ptr<void> NewMessage() {
    std::shared_ptr<void> message;
    if (allocator)
      message = allocator();
    if (!message && operations->HasAllocator())
      message = operations->Allocate();
    if (!message)
      operations->NewMessage(message, type_name);
    return message;
  }

  bool Convert(const InboundSample& sample, DeliveryItem* item) {
    const std::string& sender_type = *sample.type_name;
    // A raw envelope reader takes any type on purpose (event triggers, raw subscriptions).
    if (!sample.is_object && sender_type != type_name && sender_type != "*" && !accepts_any) {
      std::lock_guard<std::mutex> lock(foreign_mutex);
      if (foreign_types.insert(sender_type).second) {
        TREVAM_WARNING(kModule) << "topic '" << topic << "': a publisher sends " << sender_type
                                << ", this subscriber reads " << type_name
                                << "; fields are matched by number";
      }
    }
    item->message = NewMessage();
    if (!operations->parseMessage(item->message, sample.data, static_cast<int>(sample.size),
                                  sample.is_object, false)) {
      TREVAM_ERROR(kModule) << "topic '" << topic << "': dropped a " << sender_type
                            << " message that does not parse (" << sample.size << " bytes)";
      return false;
    }
    return true;
  }

  void Deliver(DeliveryItem& item) {
    const uint64_t n = arrivals.fetch_add(1, std::memory_order_relaxed) + 1;
    operations->OnRecvCallback(item.message, n);
    if (callback)
      callback(item.message, n);
    if (deallocator) {
      deallocator(item.message);
    } else if (operations->HasDeallocator()) {
      operations->Deallocate(item.message);
    }
  }
};

}  // namespace

std::shared_ptr<SubscriberEndpoint> SubscriberEndpoint::Create(
    const std::shared_ptr<BusCore>& core, const TopicConfig& config,
    std::shared_ptr<korvan_message_interface> operations, MessageCallback callback,
    Allocator allocator, Deallocator deallocator) {
  auto receiver = std::make_shared<Receiver>();
  receiver->topic = config.name();
  receiver->type_name = operations->MessageType();
  receiver->accepts_any = receiver->type_name.find("RawMessage") != std::string::npos;

  receiver->operations = std::move(operations);
  receiver->callback = std::move(callback);
  receiver->allocator = std::move(allocator);
  receiver->deallocator = std::move(deallocator);

  const Qos& qos = config.qos();
  const size_t keep_last = qos.history() == kHistoryKeepAll ? 0 : qos.depth();
  auto queue = std::make_shared<DeliveryQueue>(
      config.name(), keep_last,
      [receiver](const InboundSample& sample, DeliveryItem* item) {
        return receiver->Convert(sample, item);
      },
      [receiver](DeliveryItem& item) { receiver->Deliver(item); }, config.inline_delivery());

  std::shared_ptr<SubscriberEndpoint> endpoint(new SubscriberEndpoint());
  endpoint->channel_ =
      ChannelReader::Open(core, config, receiver->type_name,
                          core->BusNameOf(config.node_name(), config.node_domain()), queue);
  if (!endpoint->channel_)
    return nullptr;
  return endpoint;
}

int SubscriberEndpoint::matchedPublishers() {
  return channel_->MatchedWriters();
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
