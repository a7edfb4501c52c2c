// The shared-memory transport inside one process (readers may attach to writers of their own
// process here), feeding the bus's delivery queue: threads of writer, waiter and delivery
// meet as they do between processes, so ThreadSanitizer sees the same code paths.
#include "shm/shm_transport.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/delivery_queue.h"
#include "core/qos_rules.h"
#include "shm/shm_segment.h"
#include "support/child_process.h"

namespace {

namespace bus = tarvik::korvan::bus;
using bus::DeliveryItem;
using bus::DeliveryQueue;
using bus::EndpointDescription;
using bus::EntityRecord;
using bus::InboundSample;
using bus::OutboundSample;
using korvan_test::WaitFor;
using namespace std::chrono_literals;

const std::string kType = "test.Type";

// Lists the records the test gives it, as the network transport lists other processes.
class ListingTransport : public bus::Transport {
 public:
  const char* Name() const override { return "listing"; }
  std::unique_ptr<bus::TransportWriter> CreateWriter(const EndpointDescription&) override {
    return nullptr;
  }
  std::unique_ptr<bus::TransportReader> CreateReader(const EndpointDescription&,
                                                     std::shared_ptr<bus::ReaderSink>) override {
    return nullptr;
  }
  void Announce(const EntityRecord&) override {}
  void Withdraw(const std::string&) override {}
  bool ListEntities(std::vector<EntityRecord>* out) override {
    std::lock_guard<std::mutex> lock(mutex_);
    out->insert(out->end(), records_.begin(), records_.end());
    return true;
  }
  void Add(EntityRecord record) {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.push_back(std::move(record));
  }

 private:
  std::mutex mutex_;
  std::vector<EntityRecord> records_;
};

std::string HostName() {
  char host[256] = {0};
  ::gethostname(host, sizeof(host) - 1);
  return host;
}

EndpointDescription Endpoint(const std::string& id, const std::string& topic, bool keep_all,
                             unsigned depth = 10, unsigned lifespan_ms = 0) {
  EndpointDescription endpoint;
  endpoint.entity_id = id;
  endpoint.topic = topic;
  endpoint.type_name = kType;
  bus::Qos qos;
  qos.set_history(keep_all ? bus::kHistoryKeepAll : bus::kHistoryKeepLast);
  qos.set_depth(depth);
  qos.set_lifespan_ms(lifespan_ms);
  *endpoint.config.mutable_qos() = bus::CompleteQos(qos);
  return endpoint;
}

// A reader's delivery queue that records payloads; its consumer can be held.
struct Consumer {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> payloads;
  bool held = false;
  std::shared_ptr<DeliveryQueue> queue;

  explicit Consumer(size_t keep_last) {
    queue = std::make_shared<DeliveryQueue>(
        "shm", DeliveryQueue::Limits{keep_last},
        [](const InboundSample& sample, DeliveryItem* item) {
          EXPECT_TRUE(sample.shared_memory);
          item->bytes.assign(static_cast<const char*>(sample.data), sample.size);
          return true;
        },
        [this](DeliveryItem& item) {
          std::unique_lock<std::mutex> lock(mutex);
          payloads.push_back(item.bytes);
          changed.notify_all();
          changed.wait(lock, [this] { return !held; });
        });
  }
  ~Consumer() { queue->Stop(); }
  void Hold(bool on) {
    std::lock_guard<std::mutex> lock(mutex);
    held = on;
    changed.notify_all();
  }
  std::vector<std::string> Payloads() {
    std::lock_guard<std::mutex> lock(mutex);
    return payloads;
  }
  size_t Count() {
    std::lock_guard<std::mutex> lock(mutex);
    return payloads.size();
  }
};

std::string Payload(uint64_t n, size_t size) {
  std::string payload(size, static_cast<char>('a' + n % 26));
  const std::string head = std::to_string(n) + ":";
  payload.replace(0, std::min(head.size(), size), head.substr(0, size));
  return payload;
}

// The files of a writer's control segment `locator` and of its data objects.
std::vector<std::string> ObjectsOf(const std::string& locator) {
  const std::string control = locator.substr(1);
  std::vector<std::string> names;
  DIR* dir = ::opendir("/dev/shm");
  while (struct dirent* entry = dir != nullptr ? ::readdir(dir) : nullptr) {
    const std::string name = entry->d_name;
    if (name == control || name.compare(0, control.size() + 1, control + ".") == 0)
      names.push_back("/dev/shm/" + name);
  }
  if (dir != nullptr)
    ::closedir(dir);
  return names;
}

class ShmTransportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    network_ = std::make_shared<ListingTransport>();
    transport_ = std::make_shared<bus::ShmTransport>(network_, true);
  }

  // A writer listed in discovery, and a reader attached to it through `consumer`.
  void Connect(const EndpointDescription& writer_end, const EndpointDescription& reader_end,
               Consumer& consumer) {
    writer_ = transport_->CreateWriter(writer_end);
    ASSERT_TRUE(writer_);
    ASSERT_FALSE(writer_->Locator().empty());
    EntityRecord record;
    record.entity_id = writer_end.entity_id;
    record.role_type = bus::kRolePublisher;
    record.topic_name = writer_end.topic;
    record.host_name = HostName();
    record.process_id = static_cast<int32_t>(::getpid());
    record.shared_memory = writer_->Locator();
    network_->Add(record);
    reader_ = transport_->CreateReader(reader_end, consumer.queue);
    consumer.queue->Start(1, {reader_.get()});
    // The writer starts serving the reader with the first write after it asked.
    ASSERT_TRUE(WaitFor(
        [&] {
          OutboundSample probe(std::string("probe"), kType);
          probe.sequence = next_++;
          EXPECT_EQ(writer_->Write(probe), 1);
          return !writer_->ServedByLastWrite()->empty();
        },
        10s));
    ASSERT_TRUE(WaitFor([&] { return consumer.Count() >= 1; }, 10s));
  }

  int Write(const std::string& payload) {
    OutboundSample sample(payload, kType);
    sample.sequence = next_++;
    return writer_->Write(sample);
  }

  std::shared_ptr<ListingTransport> network_;
  std::shared_ptr<bus::ShmTransport> transport_;
  std::unique_ptr<bus::TransportWriter> writer_;
  std::unique_ptr<bus::TransportReader> reader_;
  uint64_t next_ = 0;
};

// Reliable keep-all: the writer waits for a reader that is behind, and everything arrives
// whole and in order, across segment growth from 64 B to 4 MiB and back.
TEST_F(ShmTransportTest, KeepAllDeliversEverySampleInOrderWhileSlotsGrow) {
  Consumer consumer(0);
  ASSERT_NO_FATAL_FAILURE(
      Connect(Endpoint("w1", "sizes", true), Endpoint("r1", "sizes", true), consumer));
  const size_t sizes[] = {64, 4096, 100, 65536, 4 << 20, 10, 300000};
  std::vector<std::string> sent;
  std::atomic<int> written{0};
  // Held at first: the ring fills up and the writer has to wait for the reader.
  consumer.Hold(true);
  std::thread writer([&] {
    for (uint64_t n = 0; n < 300; ++n) {
      sent.push_back(Payload(n, sizes[n % 7]));
      EXPECT_EQ(Write(sent.back()), 1) << n;
      ++written;
    }
  });
  ASSERT_TRUE(WaitFor([&] { return written.load() >= 12; }, 30s));
  consumer.Hold(false);
  writer.join();
  ASSERT_TRUE(WaitFor([&] { return consumer.Count() >= 301; }, 60s)) << consumer.Count();
  std::vector<std::string> got = consumer.Payloads();
  got.erase(got.begin());  // the probe
  ASSERT_EQ(got.size(), sent.size());
  for (size_t i = 0; i < sent.size(); ++i)
    ASSERT_EQ(got[i], sent[i]) << i;
}

// Keep-last: a stuck reader never holds the writer up; it then gets the newest samples.
TEST_F(ShmTransportTest, KeepLastNeverWaitsAndTheSlowReaderSkipsTheOldest) {
  Consumer consumer(0);
  ASSERT_NO_FATAL_FAILURE(
      Connect(Endpoint("w2", "last", false, 4), Endpoint("r2", "last", false, 4), consumer));
  consumer.Hold(true);
  ASSERT_EQ(Write(Payload(1000, 64)), 1);
  ASSERT_TRUE(WaitFor([&] { return consumer.Count() >= 2; }, 10s));  // stuck in it now
  for (uint64_t n = 0; n < 500; ++n)
    ASSERT_EQ(Write(Payload(n, 4096)), 1);
  consumer.Hold(false);
  ASSERT_TRUE(WaitFor(
      [&] {
        auto got = consumer.Payloads();
        return got.back() == Payload(499, 4096);
      },
      10s));
  const auto got = consumer.Payloads();
  EXPECT_LE(got.size(), 2u + 4u);
}

// Samples older than the lifespan when the reader gets to them are not delivered.
TEST_F(ShmTransportTest, ExpiredSamplesAreNotDelivered) {
  Consumer consumer(0);
  ASSERT_NO_FATAL_FAILURE(Connect(Endpoint("w3", "life", true, 10, 100),
                                  Endpoint("r3", "life", true, 10, 100), consumer));
  consumer.Hold(true);
  ASSERT_EQ(Write("held"), 1);
  ASSERT_TRUE(WaitFor([&] { return consumer.Count() >= 2; }, 10s));
  ASSERT_EQ(Write("expires"), 1);
  const int64_t written = bus::shm::MonotonicNs();
  ASSERT_TRUE(WaitFor([&] { return bus::shm::MonotonicNs() - written > 150000000; }, 10s));
  ASSERT_EQ(Write("fresh"), 1);
  consumer.Hold(false);
  ASSERT_TRUE(WaitFor([&] { return consumer.Payloads().back() == "fresh"; }, 10s));
  EXPECT_EQ(consumer.Payloads(), (std::vector<std::string>{"probe", "held", "fresh"}));
}

// The writer's objects are private to this user and gone with the writer.
TEST_F(ShmTransportTest, SegmentsArePrivateAndRemovedWithTheWriter) {
  Consumer consumer(0);
  ASSERT_NO_FATAL_FAILURE(
      Connect(Endpoint("w4", "private", true), Endpoint("r4", "private", true), consumer));
  ASSERT_EQ(Write(std::string(1 << 20, 'x')), 1);
  const std::string control = writer_->Locator();
  const auto names = ObjectsOf(control);
  ASSERT_GE(names.size(), 2u);  // the control segment and the data of the written slot
  for (const auto& name : names) {
    struct stat st;
    ASSERT_EQ(::stat(name.c_str(), &st), 0) << name;
    EXPECT_EQ(st.st_mode & 0777, 0600u) << name;
  }
  reader_.reset();
  writer_.reset();
  EXPECT_TRUE(ObjectsOf(control).empty());
}

// Slots of samples every reader took are used again, so a stream of large messages maps and
// touches a few of them, not one per ring entry.
TEST_F(ShmTransportTest, TakenSamplesLeaveTheirSlotsToTheNext) {
  Consumer consumer(0);
  ASSERT_NO_FATAL_FAILURE(
      Connect(Endpoint("w7", "reuse", true), Endpoint("r7", "reuse", true), consumer));
  for (uint64_t n = 0; n < 40; ++n) {
    ASSERT_EQ(Write(Payload(n, 1 << 20)), 1);
    ASSERT_TRUE(WaitFor([&] { return consumer.Count() >= n + 2; }, 10s));
  }
  // The control segment, the probe's slot and at most a few others.
  EXPECT_LE(ObjectsOf(writer_->Locator()).size(), 4u);
}

// A reader the writer stopped serving (as one whose process it took for dead) does not go
// silent: it attaches again.
TEST_F(ShmTransportTest, AReaderTheWriterStoppedServingAttachesAgain) {
  Consumer consumer(0);
  ASSERT_NO_FATAL_FAILURE(
      Connect(Endpoint("w5", "evicted", true), Endpoint("r5", "evicted", true), consumer));
  bus::shm::Mapping control;
  ASSERT_EQ(control.Open(writer_->Locator(), true), "");
  auto* header = static_cast<bus::shm::ControlHeader*>(control.data());
  int evicted = 0;
  for (auto& entry : header->readers) {
    if (entry.state.load() == bus::shm::kEntryActive) {
      entry.pid = 0;
      entry.state.store(bus::shm::kEntryFree);
      ++evicted;
    }
  }
  ASSERT_EQ(evicted, 1);
  header->table_changes.fetch_add(1);
  ASSERT_TRUE(WaitFor(
      [&] {
        EXPECT_EQ(Write("again"), 1);
        return consumer.Payloads().back() == "again";
      },
      10s));
}

// A reader that cannot map a sample's memory leaves the writer, which then serves it over the
// network again, instead of skipping every sample from then on.
TEST_F(ShmTransportTest, AReaderThatCannotMapASampleLeavesTheWriter) {
  Consumer consumer(0);
  ASSERT_NO_FATAL_FAILURE(
      Connect(Endpoint("w6", "unmapped", true), Endpoint("r6", "unmapped", true), consumer));
  consumer.Hold(true);
  ASSERT_EQ(Write("held"), 1);
  ASSERT_TRUE(WaitFor([&] { return consumer.Count() >= 2; }, 10s));
  ASSERT_EQ(Write(std::string(1 << 20, 'x')), 1);  // a larger object, not mapped yet
  for (const auto& name : ObjectsOf(writer_->Locator())) {
    if (name != "/dev/shm" + writer_->Locator())
      ::unlink(name.c_str());  // the data objects
  }
  consumer.Hold(false);
  ASSERT_TRUE(WaitFor(
      [&] {
        EXPECT_EQ(Write("after"), 1);
        return writer_->ServedByLastWrite()->empty();
      },
      10s));
  for (const auto& payload : consumer.Payloads())
    EXPECT_LT(payload.size(), 1u << 20);
}

// A sampling reader: writes never wake it (it never says it sleeps), it takes the newest of
// what came when it looks, and the writer's close and the reader's own end still wake it at
// once: with a minute between looks, the test ends only because they do.
TEST_F(ShmTransportTest, ASamplingReaderIsNotWokenByWritesButByTheWritersEnd) {
  Consumer consumer(0);
  EndpointDescription reader_end = Endpoint("r8", "sampled", false, 4);
  reader_end.config.set_sample_interval_ms(60000);
  ASSERT_NO_FATAL_FAILURE(Connect(Endpoint("w8", "sampled", false, 4), reader_end, consumer));
  bus::shm::Mapping control;
  ASSERT_EQ(control.Open(writer_->Locator(), false), "");
  const auto* header = static_cast<const bus::shm::ControlHeader*>(control.data());
  const bus::shm::ReaderEntry* entry = nullptr;
  for (const auto& candidate : header->readers) {
    if (std::string(candidate.reader_id) == "r8")
      entry = &candidate;
  }
  ASSERT_NE(entry, nullptr);
  for (uint64_t n = 0; n < 200; ++n) {
    ASSERT_EQ(Write(Payload(n, 64)), 1);
    EXPECT_EQ(entry->sleeping.load(), 0u) << n;
  }
  ASSERT_EQ(Write("last"), 1);
  writer_.reset();  // its close wakes the reader, which takes the newest four
  ASSERT_TRUE(WaitFor([&] { return consumer.Payloads().back() == "last"; }, 10s));
  EXPECT_LE(consumer.Count(), 1u + 4u);
  reader_.reset();
}

}  // namespace
