#include "core/channel.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "config/bus_config.h"
#include "core/qos_rules.h"
#include "support/child_process.h"

namespace {

namespace bus = tarvik::korvan::bus;
using bus::BusCore;
using bus::ChannelReader;
using bus::ChannelWriter;
using bus::DeliveryItem;
using bus::DeliveryQueue;
using bus::InboundSample;
using namespace std::chrono_literals;

constexpr auto kDeadline = 20s;
const std::string kType = "test.Bytes";

// A network transport that moves nothing by itself: it records what writers send, hands its
// readers what the test feeds them, and reports the matches the test sets.
class ScriptedTransport : public bus::Transport {
 public:
  const char* Name() const override { return "scripted"; }

  std::unique_ptr<bus::TransportWriter> CreateWriter(const bus::EndpointDescription&) override {
    if (fail_)
      return nullptr;
    return std::make_unique<Writer>(this);
  }
  std::unique_ptr<bus::TransportReader> CreateReader(
      const bus::EndpointDescription&, std::shared_ptr<bus::ReaderSink> sink) override {
    if (fail_)
      return nullptr;
    return std::make_unique<Reader>(this, std::move(sink));
  }
  void Announce(const bus::EntityRecord& record) override {
    std::lock_guard<std::mutex> lock(mutex_);
    announced_.insert(record.entity_id);
  }
  void Withdraw(const std::string& entity_id) override {
    std::lock_guard<std::mutex> lock(mutex_);
    announced_.erase(entity_id);
  }
  bool ListEntities(std::vector<bus::EntityRecord>*) override { return true; }

  // Every later CreateWriter/CreateReader fails.
  void FailCreation() { fail_ = true; }
  void SetWriteResult(int result) { write_result_ = result; }
  void SetMatches(int matches) { matches_ = matches; }
  std::vector<std::string> Sent() {
    std::lock_guard<std::mutex> lock(mutex_);
    return sent_;
  }
  bool Announced(const std::string& entity_id) {
    std::lock_guard<std::mutex> lock(mutex_);
    return announced_.count(entity_id) > 0;
  }
  int LiveReaders() {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(readers_.size());
  }
  // Gives every live reader `payload` to take, and tells its sink.
  void Feed(const std::string& payload) {
    std::vector<std::shared_ptr<bus::ReaderSink>> sinks;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (Reader* reader : readers_) {
        reader->waiting.push_back(payload);
        sinks.push_back(reader->sink);
      }
    }
    for (auto& sink : sinks)
      sink->OnReadable();
  }

 private:
  class Writer : public bus::TransportWriter {
   public:
    explicit Writer(ScriptedTransport* transport) : transport_(transport) {}
    int Write(bus::OutboundSample& sample) override {
      std::lock_guard<std::mutex> lock(transport_->mutex_);
      transport_->sent_.push_back(*sample.Bytes());
      return transport_->write_result_;
    }
    int MatchedReaders() override { return transport_->matches_; }

   private:
    ScriptedTransport* transport_;
  };

  class Reader : public bus::TransportReader {
   public:
    Reader(ScriptedTransport* transport, std::shared_ptr<bus::ReaderSink> sink_in)
        : sink(std::move(sink_in)), transport_(transport) {
      std::lock_guard<std::mutex> lock(transport_->mutex_);
      transport_->readers_.push_back(this);
    }
    ~Reader() override {
      std::lock_guard<std::mutex> lock(transport_->mutex_);
      auto& readers = transport_->readers_;
      readers.erase(std::find(readers.begin(), readers.end(), this));
    }
    size_t Take(size_t max, const std::function<void(const InboundSample&)>& fn) override {
      std::deque<std::string> taken;
      {
        std::lock_guard<std::mutex> lock(transport_->mutex_);
        while (taken.size() < max && !waiting.empty()) {
          taken.push_back(std::move(waiting.front()));
          waiting.pop_front();
        }
      }
      for (const std::string& payload : taken) {
        InboundSample sample;
        sample.data = payload.data();
        sample.size = payload.size();
        sample.type_name = &kType;
        fn(sample);
      }
      return taken.size();
    }
    int MatchedWriters() override { return transport_->matches_; }

    std::shared_ptr<bus::ReaderSink> sink;
    std::deque<std::string> waiting;  // guarded by the transport's mutex

   private:
    ScriptedTransport* transport_;
  };

  std::mutex mutex_;  // guards what writers sent, the readers and the announced ids
  std::vector<std::string> sent_;
  std::vector<Reader*> readers_;
  std::set<std::string> announced_;
  std::atomic<bool> fail_{false};
  std::atomic<int> write_result_{1};
  std::atomic<int> matches_{0};
};

bus::TopicConfig Topic(const std::string& name, const std::string& transport = "") {
  bus::TopicConfig config;
  config.set_name(name);
  *config.mutable_qos() = bus::CompleteQos(bus::Qos());
  config.set_transport(transport);
  config.set_delivery_threads(1);
  return config;
}

// A delivery queue that records the payloads it delivers.
class Received {
 public:
  Received()
      : queue_(std::make_shared<DeliveryQueue>(
            "t", DeliveryQueue::Limits{},
            [](const InboundSample& sample, DeliveryItem* item) {
              if (sample.is_object)
                return false;
              item->bytes.assign(static_cast<const char*>(sample.data), sample.size);
              return true;
            },
            [this](DeliveryItem& item) {
              std::lock_guard<std::mutex> lock(mutex_);
              payloads_.push_back(item.bytes);
            })) {}
  ~Received() { queue_->Stop(); }
  const std::shared_ptr<DeliveryQueue>& queue() const { return queue_; }
  std::vector<std::string> Payloads() {
    std::lock_guard<std::mutex> lock(mutex_);
    return payloads_;
  }
  bool WaitFor(size_t count) {
    return korvan_test::WaitFor([&] { return Payloads().size() >= count; }, kDeadline);
  }

 private:
  std::mutex mutex_;  // guards payloads_
  std::vector<std::string> payloads_;
  std::shared_ptr<DeliveryQueue> queue_;
};

int Write(ChannelWriter& writer, const std::string& payload) {
  bus::OutboundSample sample(payload, kType);
  return writer.Write(sample);
}

// The records this process lists for `topic`.
std::vector<bus::EntityRecord> Listed(const BusCore& core, const std::string& topic) {
  std::vector<bus::EntityRecord> all;
  core.ListEntities(&all);
  std::vector<bus::EntityRecord> matching;
  for (const auto& record : all) {
    if (record.topic_name == topic)
      matching.push_back(record);
  }
  return matching;
}

class ChannelTest : public ::testing::Test {
 protected:
  std::shared_ptr<ScriptedTransport> network_ = std::make_shared<ScriptedTransport>();
  std::shared_ptr<BusCore> core_ =
      std::make_shared<BusCore>("channel_test", bus::kTransportLumis, network_);
};

TEST_F(ChannelTest, WriterSendsEachSampleOnEveryTransportOfItsTopic) {
  Received local;
  auto reader = ChannelReader::Open(core_, Topic("t", bus::kTransportLocal), kType, nullptr, "n",
                                    local.queue());
  ASSERT_NE(reader, nullptr);
  auto writer = ChannelWriter::Open(core_, Topic("t"), kType, nullptr, "n");
  ASSERT_NE(writer, nullptr);
  network_->SetMatches(2);
  EXPECT_EQ(writer->MatchedReaders(), 3);  // the in-process reader and the network's two

  EXPECT_EQ(Write(*writer, "both"), 1);
  EXPECT_EQ(network_->Sent(), std::vector<std::string>{"both"});
  ASSERT_TRUE(local.WaitFor(1));

  // A transport that fails makes the write fail; the others still deliver.
  network_->SetWriteResult(0);
  EXPECT_EQ(Write(*writer, "network failed"), 0);
  ASSERT_TRUE(local.WaitFor(2));
  EXPECT_EQ(local.Payloads(), (std::vector<std::string>{"both", "network failed"}));

  // A topic on the local transport never reaches the network.
  auto local_writer =
      ChannelWriter::Open(core_, Topic("t", bus::kTransportLocal), kType, nullptr, "n");
  EXPECT_EQ(local_writer->MatchedReaders(), 1);
  EXPECT_EQ(Write(*local_writer, "local only"), 1);
  EXPECT_EQ(network_->Sent().size(), 2u);
  ASSERT_TRUE(local.WaitFor(3));
}

TEST_F(ChannelTest, ReaderFeedsOneQueueFromEveryTransport) {
  Received received;
  auto reader = ChannelReader::Open(core_, Topic("t"), kType, nullptr, "n", received.queue());
  ASSERT_NE(reader, nullptr);
  auto local_writer =
      ChannelWriter::Open(core_, Topic("t", bus::kTransportLocal), kType, nullptr, "n");
  network_->SetMatches(2);
  EXPECT_EQ(reader->MatchedWriters(), 3);

  Write(*local_writer, "pushed");
  ASSERT_TRUE(received.WaitFor(1));
  network_->Feed("taken");
  ASSERT_TRUE(received.WaitFor(2));
  EXPECT_EQ(received.Payloads(), (std::vector<std::string>{"pushed", "taken"}));

  // Closing the channel stops its queue and releases its readers on every transport.
  reader.reset();
  EXPECT_EQ(network_->LiveReaders(), 0);
  EXPECT_EQ(local_writer->MatchedReaders(), 0);
  Write(*local_writer, "after close");
  InboundSample late;
  late.data = "late";
  late.size = 4;
  late.type_name = &kType;
  received.queue()->OnSample(late);
  EXPECT_EQ(received.Payloads().size(), 2u);
}

TEST_F(ChannelTest, ChannelsAreListedInDiscoveryWhileTheyLive) {
  Received received;
  auto writer = ChannelWriter::Open(core_, Topic("listed"), kType, nullptr, "writer_node");
  auto reader =
      ChannelReader::Open(core_, Topic("listed"), kType, nullptr, "reader_node", received.queue());
  std::vector<bus::EntityRecord> listed = Listed(*core_, "listed");
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0].role_type, bus::kRolePublisher);
  EXPECT_EQ(listed[0].node_name, "writer_node");
  EXPECT_EQ(listed[0].type_name, kType);
  EXPECT_EQ(listed[1].role_type, bus::kRoleSubscriber);
  EXPECT_EQ(listed[1].node_name, "reader_node");
  EXPECT_TRUE(network_->Announced(listed[0].entity_id));
  EXPECT_TRUE(network_->Announced(listed[1].entity_id));

  writer.reset();
  reader.reset();
  EXPECT_TRUE(Listed(*core_, "listed").empty());
  EXPECT_FALSE(network_->Announced(listed[0].entity_id));
  EXPECT_FALSE(network_->Announced(listed[1].entity_id));
}

TEST_F(ChannelTest, OpeningFailsWhenATransportCannotCreateItsEndpoint) {
  auto local_writer =
      ChannelWriter::Open(core_, Topic("t", bus::kTransportLocal), kType, nullptr, "n");
  network_->FailCreation();
  Received received;
  EXPECT_EQ(ChannelWriter::Open(core_, Topic("t"), kType, nullptr, "n"), nullptr);
  EXPECT_EQ(ChannelReader::Open(core_, Topic("t"), kType, nullptr, "n", received.queue()), nullptr);
  // Nothing is left behind: no listing, no in-process reader.
  EXPECT_EQ(Listed(*core_, "t").size(), 1u);  // the local writer
  EXPECT_EQ(local_writer->MatchedReaders(), 0);
}

}  // namespace
