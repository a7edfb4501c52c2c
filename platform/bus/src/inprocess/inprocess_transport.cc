#include "inprocess/inprocess_transport.h"

#include <algorithm>
#include <deque>

#include "core/qos_rules.h"
#include "infra/env.h"
#include "korvan/bus/transport_registry.h"

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

const bool registered =
    RegisterTransport(kInProcessTransport, [](const TransportContext&, std::string*) {
      return std::shared_ptr<Transport>(std::make_shared<InProcessTransport>());
    });

}  // namespace

// A sample kept for readers that join later (transient-local durability).
struct HistoryItem {
  uint64_t written_ns = 0;       // monotonic
  std::shared_ptr<void> object;  // a copy of the message, or null for byte samples
  std::shared_ptr<const std::string> bytes;
  std::string type_name;
  Correlation correlation;
};

class InProcessTransport::Writer : public TransportWriter {
 public:
  Writer(std::shared_ptr<InProcessTransport> owner, const EndpointDescription& endpoint)
      : owner_(std::move(owner)), endpoint(endpoint), key(TopicKey(endpoint)) {}
  ~Writer() override { owner_->Remove(this); }

  int Write(OutboundSample& sample) override { return owner_->Deliver(this, sample); }
  int MatchedReaders() override { return owner_->CountReaders(this); }

  bool durable() const { return endpoint.config.qos().durability() == kDurabilityTransientLocal; }

  void Remember(OutboundSample& sample) {
    HistoryItem item;
    item.written_ns = inf::Env::Current()->NowNanos();
    item.type_name = sample.type_name();
    item.correlation = sample.correlation;
    if (sample.message() && sample.operations() != nullptr) {
      korvan_message_interface* ops = sample.operations();
      ops->NewMessage(item.object, sample.type_name());
      ops->parseMessage(item.object, sample.message().get(), 0, true, false);
    } else if (const std::string* bytes = sample.Bytes()) {
      item.bytes = std::make_shared<const std::string>(*bytes);
    } else {
      return;
    }
    inf::MutexLock lock(&history_mutex);
    history.push_back(std::move(item));
    while (history.size() > DurableHistoryDepth(endpoint.config.qos()))
      history.pop_front();
  }

  void Replay(ReaderSink* sink) {
    inf::MutexLock lock(&history_mutex);
    const uint32_t lifespan_ms = endpoint.config.qos().lifespan_ms();
    const uint64_t now_ns = inf::Env::Current()->NowNanos();
    for (const HistoryItem& item : history) {
      if (lifespan_ms > 0 && now_ns - item.written_ns > uint64_t{lifespan_ms} * 1000000)
        continue;
      InboundSample in;
      if (item.object) {
        in.is_object = true;
        in.data = item.object.get();
      } else {
        in.data = item.bytes->data();
        in.size = item.bytes->size();
      }
      in.type_name = &item.type_name;
      in.type_hash = endpoint.type_hash;
      in.correlation = &item.correlation;
      in.replayed = true;  // handed over under the transport's lock: never delivered inline
      sink->OnSample(in);
    }
  }

 private:
  std::shared_ptr<InProcessTransport> owner_;

 public:
  const EndpointDescription endpoint;
  const std::string key;
  inf::Mutex history_mutex;
  std::deque<HistoryItem> history KORVAN_GUARDED_BY(history_mutex);
};

class InProcessTransport::Reader : public TransportReader {
 public:
  Reader(std::shared_ptr<InProcessTransport> owner, const EndpointDescription& endpoint,
         std::shared_ptr<ReaderSink> sink)
      : owner_(std::move(owner)),
        endpoint(endpoint),
        key(TopicKey(endpoint)),
        sink(std::move(sink)) {}
  ~Reader() override { owner_->Remove(this); }

  // Samples of this transport are pushed, never waiting to be taken.
  size_t Take(size_t, const std::function<void(const InboundSample&)>&) override { return 0; }
  int MatchedWriters() override { return owner_->CountWriters(this); }

 private:
  std::shared_ptr<InProcessTransport> owner_;

 public:
  const EndpointDescription endpoint;
  const std::string key;
  const std::shared_ptr<ReaderSink> sink;
};

InProcessTransport::InProcessTransport() = default;
InProcessTransport::~InProcessTransport() = default;

std::string InProcessTransport::TopicKey(const EndpointDescription& endpoint) {
  return endpoint.topic + '\0' + endpoint.config.partition();
}

std::vector<std::function<void()>> InProcessTransport::MatchListeners(const Topic& topic) {
  std::vector<std::function<void()>> listeners;
  for (const Writer* writer : topic.writers) {
    if (writer->endpoint.on_match_change)
      listeners.push_back(writer->endpoint.on_match_change);
  }
  for (const Reader* reader : topic.readers) {
    if (reader->endpoint.on_match_change)
      listeners.push_back(reader->endpoint.on_match_change);
  }
  return listeners;
}

void InProcessTransport::Notify(const std::vector<std::function<void()>>& listeners) {
  for (const auto& listener : listeners)
    listener();
}

std::unique_ptr<TransportWriter> InProcessTransport::CreateWriter(
    const EndpointDescription& endpoint) {
  auto writer = std::make_unique<Writer>(shared_from_this(), endpoint);
  std::vector<std::function<void()>> listeners;
  {
    inf::WriterLock lock(&mutex_);
    Topic& topic = topics_[writer->key];
    topic.writers.push_back(writer.get());
    listeners = MatchListeners(topic);
  }
  Notify(listeners);
  return writer;
}

std::unique_ptr<TransportReader> InProcessTransport::CreateReader(
    const EndpointDescription& endpoint, std::shared_ptr<ReaderSink> sink) {
  auto reader = std::make_unique<Reader>(shared_from_this(), endpoint, std::move(sink));
  std::vector<std::function<void()>> listeners;
  {
    inf::WriterLock lock(&mutex_);
    Topic& topic = topics_[reader->key];
    topic.readers.push_back(reader.get());
    if (endpoint.config.qos().durability() == kDurabilityTransientLocal) {
      // A late joiner gets what durable writers kept, before anything newer (the lock holds
      // new deliveries back).
      for (Writer* writer : topic.writers) {
        if (writer->durable() &&
            QosCompatible(writer->endpoint.config.qos(), endpoint.config.qos())) {
          writer->Replay(reader->sink.get());
        }
      }
    }
    listeners = MatchListeners(topic);
  }
  Notify(listeners);
  return reader;
}

void InProcessTransport::Remove(Writer* writer) {
  std::vector<std::function<void()>> listeners;
  {
    inf::WriterLock lock(&mutex_);
    auto it = topics_.find(writer->key);
    if (it == topics_.end())
      return;
    auto& writers = it->second.writers;
    writers.erase(std::remove(writers.begin(), writers.end(), writer), writers.end());
    listeners = MatchListeners(it->second);
    if (writers.empty() && it->second.readers.empty())
      topics_.erase(it);
  }
  Notify(listeners);
}

void InProcessTransport::Remove(Reader* reader) {
  std::vector<std::function<void()>> listeners;
  {
    inf::WriterLock lock(&mutex_);
    auto it = topics_.find(reader->key);
    if (it == topics_.end())
      return;
    auto& readers = it->second.readers;
    readers.erase(std::remove(readers.begin(), readers.end(), reader), readers.end());
    listeners = MatchListeners(it->second);
    if (readers.empty() && it->second.writers.empty())
      topics_.erase(it);
  }
  Notify(listeners);
}

int InProcessTransport::Deliver(Writer* writer, OutboundSample& sample) {
  std::vector<std::shared_ptr<ReaderSink>> sinks;
  {
    inf::ReaderLock lock(&mutex_);
    // Kept under the lock: a reader joining now gets the sample either from the history or
    // from this delivery, never from both.
    if (writer->durable())
      writer->Remember(sample);
    auto it = topics_.find(writer->key);
    if (it == topics_.end())
      return 1;
    for (Reader* reader : it->second.readers) {
      if (QosCompatible(writer->endpoint.config.qos(), reader->endpoint.config.qos())) {
        sinks.push_back(reader->sink);
      }
    }
  }
  if (sinks.empty())
    return 1;
  // Outside the lock: a sink delivering inline runs the application's callback, which may
  // create or destroy endpoints, and a full one holds a reliable writer back.
  InboundSample in;
  in.type_name = &sample.type_name();
  in.type_hash = writer->endpoint.type_hash;
  in.correlation = &sample.correlation;
  if (writer->endpoint.config.qos().reliability() == kReliabilityReliable) {
    in.wait_until = std::chrono::steady_clock::now() + std::chrono::milliseconds(kMaxBlockingMs);
  }
  if (sample.message()) {
    in.is_object = true;
    in.data = sample.message().get();
  } else {
    const std::string* bytes = sample.Bytes();
    if (bytes == nullptr)
      return 0;
    in.data = bytes->data();
    in.size = bytes->size();
  }
  int result = 1;
  for (const auto& sink : sinks) {
    if (!sink->OnSample(in))
      result = 0;  // a full reliable reader stayed full for the whole blocking time
  }
  return result;
}

int InProcessTransport::CountReaders(const Writer* writer) {
  inf::ReaderLock lock(&mutex_);
  auto it = topics_.find(writer->key);
  if (it == topics_.end())
    return 0;
  return static_cast<int>(std::count_if(
      it->second.readers.begin(), it->second.readers.end(), [&](const Reader* reader) {
        return QosCompatible(writer->endpoint.config.qos(), reader->endpoint.config.qos());
      }));
}

int InProcessTransport::CountWriters(const Reader* reader) {
  inf::ReaderLock lock(&mutex_);
  auto it = topics_.find(reader->key);
  if (it == topics_.end())
    return 0;
  return static_cast<int>(std::count_if(
      it->second.writers.begin(), it->second.writers.end(), [&](const Writer* writer) {
        return QosCompatible(writer->endpoint.config.qos(), reader->endpoint.config.qos());
      }));
}

void InProcessTransport::Announce(const EntityRecord& record) {
  inf::MutexLock lock(&entities_mutex_);
  auto previous = entity_sequence_.find(record.entity_id);
  if (previous != entity_sequence_.end())
    entities_.erase(previous->second);
  entity_sequence_[record.entity_id] = record.sequence;
  entities_[record.sequence] = record;
}

void InProcessTransport::Withdraw(const std::string& entity_id) {
  inf::MutexLock lock(&entities_mutex_);
  auto it = entity_sequence_.find(entity_id);
  if (it == entity_sequence_.end())
    return;
  entities_.erase(it->second);
  entity_sequence_.erase(it);
}

bool InProcessTransport::ListEntities(std::vector<EntityRecord>* out) {
  inf::MutexLock lock(&entities_mutex_);
  for (const auto& entry : entities_)
    out->push_back(entry.second);
  return true;
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
