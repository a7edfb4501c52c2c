#include "inprocess/inprocess_transport.h"

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/qos_rules.h"

namespace {

namespace bus = tarvik::korvan::bus;
using bus::EndpointDescription;
using bus::InboundSample;
using bus::InProcessTransport;
using bus::OutboundSample;

// Records the byte payloads it is pushed.
class RecordingSink : public bus::ReaderSink {
 public:
  bool OnSample(const InboundSample& sample) override {
    std::lock_guard<std::mutex> lock(mutex);
    payloads.emplace_back(static_cast<const char*>(sample.data), sample.size);
    return true;
  }
  void OnReadable() override {}
  std::vector<std::string> Payloads() {
    std::lock_guard<std::mutex> lock(mutex);
    return payloads;
  }
  std::mutex mutex;
  std::vector<std::string> payloads;
};

EndpointDescription Endpoint(const std::string& topic, int reliability, int durability,
                             unsigned depth = 10, const std::string& partition = "") {
  EndpointDescription endpoint;
  endpoint.topic = topic;
  endpoint.type_name = "test.Type";
  bus::Qos qos;
  qos.set_reliability(reliability);
  qos.set_durability(durability);
  qos.set_depth(depth);
  *endpoint.config.mutable_qos() = bus::CompleteQos(qos);
  endpoint.config.set_partition(partition);
  return endpoint;
}

const std::string kType = "test.Type";

int Send(bus::TransportWriter& writer, const std::string& payload) {
  OutboundSample sample(payload, kType);
  return writer.Write(sample);
}

TEST(InProcessTransportTest, DeliversToMatchingReadersByTheDdsRules) {
  auto transport = std::make_shared<InProcessTransport>();
  auto reliable = std::make_shared<RecordingSink>();
  auto best_effort = std::make_shared<RecordingSink>();
  auto other_partition = std::make_shared<RecordingSink>();
  auto r1 = transport->CreateReader(Endpoint("t", 1, 1), reliable);
  auto r2 = transport->CreateReader(Endpoint("t", 2, 1), best_effort);
  auto r3 = transport->CreateReader(Endpoint("t", 2, 1, 10, "p"), other_partition);

  auto best_effort_writer = transport->CreateWriter(Endpoint("t", 2, 1));
  EXPECT_EQ(Send(*best_effort_writer, "a"), 1);
  // A reliable reader is not served by a best-effort writer; a best-effort reader by both.
  EXPECT_TRUE(reliable->Payloads().empty());
  EXPECT_EQ(best_effort->Payloads(), std::vector<std::string>{"a"});
  EXPECT_EQ(best_effort_writer->MatchedReaders(), 1);

  auto reliable_writer = transport->CreateWriter(Endpoint("t", 1, 1));
  Send(*reliable_writer, "b");
  EXPECT_EQ(reliable->Payloads(), std::vector<std::string>{"b"});
  EXPECT_EQ(best_effort->Payloads(), (std::vector<std::string>{"a", "b"}));
  EXPECT_TRUE(other_partition->Payloads().empty());
  EXPECT_EQ(r1->MatchedWriters(), 1);
  EXPECT_EQ(r2->MatchedWriters(), 2);

  r2.reset();
  Send(*reliable_writer, "c");
  EXPECT_EQ(best_effort->Payloads().size(), 2u);  // nothing after the reader is gone
}

TEST(InProcessTransportTest, LateJoinerGetsTheLastSamplesOfDurableWritersOnly) {
  auto transport = std::make_shared<InProcessTransport>();
  auto durable = transport->CreateWriter(Endpoint("t", 1, 2, 3));
  auto volatile_writer = transport->CreateWriter(Endpoint("t", 1, 1));
  for (int i = 0; i < 5; ++i)
    Send(*durable, "d" + std::to_string(i));
  Send(*volatile_writer, "v");

  auto late = std::make_shared<RecordingSink>();
  auto reader = transport->CreateReader(Endpoint("t", 1, 2, 3), late);
  EXPECT_EQ(late->Payloads(), (std::vector<std::string>{"d2", "d3", "d4"}));
  auto late_volatile = std::make_shared<RecordingSink>();
  auto reader2 = transport->CreateReader(Endpoint("t", 1, 1), late_volatile);
  EXPECT_TRUE(late_volatile->Payloads().empty());
}

TEST(InProcessTransportTest, JoiningWhileDurableWritersPublishNeverDuplicates) {
  auto transport = std::make_shared<InProcessTransport>();
  auto writer = transport->CreateWriter(Endpoint("t", 1, 2, 1000));
  std::atomic<bool> stop{false};
  std::thread publisher([&] {
    for (int i = 0; !stop; ++i)
      Send(*writer, std::to_string(i));
  });
  for (int round = 0; round < 50; ++round) {
    auto sink = std::make_shared<RecordingSink>();
    auto reader = transport->CreateReader(Endpoint("t", 1, 2, 1000), sink);
    std::this_thread::yield();
    reader.reset();
    auto got = sink->Payloads();
    for (size_t i = 1; i < got.size(); ++i) {
      ASSERT_EQ(std::stol(got[i]), std::stol(got[i - 1]) + 1) << "round " << round;
    }
  }
  stop = true;
  publisher.join();
}

TEST(InProcessTransportTest, KeepsTheDiscoveryRecordsOfThisProcessInCreationOrder) {
  InProcessTransport transport;
  bus::EntityRecord a;
  a.entity_id = "a";
  a.sequence = 2;
  bus::EntityRecord b;
  b.entity_id = "b";
  b.sequence = 1;
  transport.Announce(a);
  transport.Announce(b);
  std::vector<bus::EntityRecord> listed;
  ASSERT_TRUE(transport.ListEntities(&listed));
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0].entity_id, "b");
  transport.Withdraw("b");
  transport.Withdraw("unknown");
  listed.clear();
  transport.ListEntities(&listed);
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0].entity_id, "a");
}

}  // namespace
