#include "core/subscriber_endpoint.h"

#include <atomic>
#include <set>

#include "core/qos_rules.h"
#include "infra/mutex.h"
#include "infra/time.h"
#include "korvan/bus/receive_hooks.h"
#include "trevam/log.h"

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

constexpr char kModule[] = "korvan_bus";

// What the delivery threads need. Shared with them, so that a subscriber destroyed from inside
// its own callback leaves the running thread valid state to return to.
thread_local const DeliveryContext* t_delivery = nullptr;

// Makes `context` the current delivery of this thread for the scope's lifetime.
class DeliveryScope {
 public:
  explicit DeliveryScope(const DeliveryContext* context) : previous_(t_delivery) {
    t_delivery = context;
  }
  ~DeliveryScope() { t_delivery = previous_; }
  DeliveryScope(const DeliveryScope&) = delete;
  DeliveryScope& operator=(const DeliveryScope&) = delete;

 private:
  const DeliveryContext* previous_;
};

// "app (host h, pid p)" for the publishers of `topic` that write with `type_hash`.
std::string PublishersWith(BusCore& core, const std::string& topic, uint64_t type_hash) {
  std::vector<EntityRecord> entities;
  std::string who;
  if (!core.ListEntities(&entities))
    return "a publisher";
  for (const auto& e : entities) {
    if (e.role_type != kRolePublisher || e.topic_name != topic || e.type_hash != type_hash)
      continue;
    if (!who.empty())
      who += ", ";
    who += e.app_name + " (host " + e.host_name + ", pid " + std::to_string(e.process_id) + ")";
  }
  return who.empty() ? "a publisher" : who;
}

struct Receiver {
  std::shared_ptr<BusCore> core;
  std::string topic;
  std::string type_name;
  uint64_t type_hash = 0;
  bool accepts_any = false;
  const ReceiveHooks* hooks = nullptr;  // part of `operations`, when it offers them
  bool same_description_only = false;
  std::shared_ptr<korvan_message_interface> operations;
  SubscriberStrategy::MessageCallback callback;
  SubscriberStrategy::Allocator allocator;
  SubscriberStrategy::Deallocator deallocator;
  std::atomic<uint64_t> arrivals{0};
  std::atomic<uint64_t> foreign_dropped{0};  // samples of another description, not decoded
  inf::Mutex foreign_mutex;
  // Publisher types already warned about, and descriptions.
  std::set<std::string> foreign_types KORVAN_GUARDED_BY(foreign_mutex);
  std::set<uint64_t> foreign_descriptions KORVAN_GUARDED_BY(foreign_mutex);

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
      inf::MutexLock lock(&foreign_mutex);
      if (foreign_types.insert(sender_type).second) {
        TREVAM_WARNING(kModule) << "topic '" << topic << "': a publisher sends " << sender_type
                                << ", this subscriber reads " << type_name
                                << "; fields are matched by number";
      }
    }
    if (!accepts_any && type_hash != 0 && sample.type_hash != 0 && sample.type_hash != type_hash &&
        sender_type == type_name && !AcceptOtherDescription(sample.type_hash)) {
      return false;
    }
    item->message = NewMessage();
    if (!operations->parseMessage(item->message, sample.data, static_cast<int>(sample.size),
                                  sample.is_object, false)) {
      TREVAM_ERROR(kModule) << "topic '" << topic << "': dropped a " << sender_type
                            << " message that does not parse (" << sample.size << " bytes)";
      return false;
    }
    DeliveryContext& context = item->context;
    context.type_hash = sample.type_hash;
    context.receive_time_ns = Time::Utc(Time::kNanosecond);
    context.from_wire = !sample.is_object;
    context.wire_size = sample.is_object ? 0 : sample.size;
    context.shared_memory = sample.shared_memory;
    context.writer_key = sample.writer_key;
    context.sequence = sample.sequence;
    if (hooks != nullptr && !sample.is_object) {
      context.has_wire_check =
          hooks->InspectWire(item->message, sample.data, sample.size, &context.wire_check);
    }
    return true;
  }

  // A sample written with another description of our type: parsed by field number with one
  // warning per description, or dropped when this reader decodes with a fetched description.
  bool AcceptOtherDescription(uint64_t other) {
    bool first;
    {
      inf::MutexLock lock(&foreign_mutex);
      first = foreign_descriptions.insert(other).second;
    }
    if (same_description_only)
      foreign_dropped.fetch_add(1, std::memory_order_relaxed);
    if (first) {
      TREVAM_WARNING(kModule) << "topic '" << topic << "': " << PublishersWith(*core, topic, other)
                              << " sends " << type_name
                              << " with another description of the type than this subscriber's; "
                              << (same_description_only ? "those messages are not decoded"
                                                        : "fields are matched by number");
    }
    return !same_description_only;
  }

  void Deliver(DeliveryItem& item) {
    const uint64_t n = arrivals.fetch_add(1, std::memory_order_relaxed) + 1;
    item.context.message = item.message.get();
    DeliveryScope scope(&item.context);
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
  receiver->core = core;
  receiver->topic = config.name();
  receiver->type_name = operations->MessageType();
  receiver->accepts_any = receiver->type_name.find("RawMessage") != std::string::npos;
  receiver->type_hash = core->RegisterType(operations->GetDescriptor());
  receiver->hooks = dynamic_cast<const ReceiveHooks*>(operations.get());
  receiver->same_description_only =
      receiver->hooks != nullptr && receiver->hooks->RequiresSameDescription();

  receiver->operations = std::move(operations);
  receiver->callback = std::move(callback);
  receiver->allocator = std::move(allocator);
  receiver->deallocator = std::move(deallocator);

  auto queue = std::make_shared<DeliveryQueue>(
      config.name(), DeliveryQueue::Limits::For(config.qos()),
      [receiver](const InboundSample& sample, DeliveryItem* item) {
        return receiver->Convert(sample, item);
      },
      [receiver](DeliveryItem& item) { receiver->Deliver(item); }, config.inline_delivery());

  std::shared_ptr<SubscriberEndpoint> endpoint(new SubscriberEndpoint());
  endpoint->channel_ =
      ChannelReader::Open(core, config, receiver->type_name, receiver->operations->GetDescriptor(),
                          core->BusNameOf(config.node_name(), config.node_domain()), queue);
  if (!endpoint->channel_)
    return nullptr;
  return endpoint;
}

const DeliveryContext* CurrentDelivery() {
  return t_delivery;
}

int SubscriberEndpoint::matchedPublishers() {
  return channel_->MatchedWriters();
}

uint64_t SubscriberEndpoint::droppedSamples() {
  return channel_->Dropped();
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
