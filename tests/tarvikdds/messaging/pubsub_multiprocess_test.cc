// Publishers and subscribers in different processes on this host, over DDS and through shared
// memory: each test of PubSubMultiProcessTest runs once per path (KORVAN_SHARED_MEMORY off and
// on). Each test starts child processes (this binary with --korvan-child=<role>) that
// coordinate with it through output lines ("READY") and signal files.
#include <atomic>
#include <chrono>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include "korvan/bus/delivery_context.h"
#include "korvan/bus/korvan_bus_manager.h"
#include "korvan/bus/transport_factory.h"
#include "korvan/bus/transport_wrapper.h"
#include "support/child_process.h"
#include "support/test_environment.h"
#include "tarvikdds/application/init.h"
#include "tarvikdds/messaging/dds_node.h"
#include "test_proto/test_messages.pb.h"

namespace {

namespace bus = tarvik::korvan::bus;
using korvan::test::PlainMessage;
using korvan::test::PlainMessageTwin;
using korvan::test::StampedMessage;
using korvan_test::ChildProcess;
using korvan_test::UniqueName;
using korvan_test::WaitFor;
using tarvik::quessa::Node;
using tarvik::quessa::QoS;
using namespace std::chrono_literals;

constexpr int kWaitMs = 60000;
// Sequences from here on are probes: they show which path is in use before a test's burst.
constexpr uint64_t kProbe = uint64_t{1} << 40;

QoS Reliable(bool keep_all, bool durable = false, uint32_t depth = 10) {
  QoS qos;
  qos.history_type = keep_all ? 1 : 0;
  qos.history_depth = depth;
  qos.durability = durable ? 2 : 1;
  return qos;
}

bool WaitUntil(const std::function<bool()>& condition) {
  return WaitFor(condition, std::chrono::milliseconds(kWaitMs));
}

// The environment of a test's processes for a path: "dds" or "shm".
std::vector<std::string> PathEnv(const std::string& path) {
  return {std::string("KORVAN_SHARED_MEMORY=") + (path == "shm" ? "1" : "0")};
}

// Receives StampedMessages and checks the stream: sequences, CRC reports, counter reports.
struct StampedReceiver {
  std::mutex mutex;
  std::vector<uint64_t> sequences;
  std::atomic<int> crc_errors{0};
  std::atomic<int> sequence_errors{0};
  std::atomic<int> through_shared_memory{0};
  std::atomic<bool> probed{false};  // a probe came through the path of this process
  std::shared_ptr<tarvik::quessa::Subscriber<StampedMessage>> subscriber;

  void Subscribe(Node& node, const std::string& topic, const QoS& qos) {
    const char* path = getenv("KORVAN_SHARED_MEMORY");
    const bool want_shared_memory = path != nullptr && std::string(path) == "1";
    subscriber = node.CreateSubscriber<StampedMessage>(
        topic, qos, [this, want_shared_memory](const std::shared_ptr<StampedMessage>& msg) {
          const auto* delivery = bus::CurrentDelivery();
          const bool shm = delivery != nullptr && delivery->shared_memory;
          if (msg->sequence() >= kProbe) {
            if (shm || !want_shared_memory)
              probed = true;
            return;
          }
          if (shm)
            ++through_shared_memory;
          std::lock_guard<std::mutex> lock(mutex);
          sequences.push_back(msg->sequence());
        });
    subscriber->impl()->SetCRCErrorCallback([this](uint32_t, uint32_t) { ++crc_errors; });
    subscriber->impl()->SetSequenceErrorCallback(
        [this](const std::shared_ptr<void>&, uint64_t, uint64_t) { ++sequence_errors; });
  }
  size_t count() {
    std::lock_guard<std::mutex> lock(mutex);
    return sequences.size();
  }
  bool InOrderFrom(uint64_t first, size_t n) {
    std::lock_guard<std::mutex> lock(mutex);
    if (sequences.size() != n)
      return false;
    for (size_t i = 0; i < n; ++i) {
      if (sequences[i] != first + i)
        return false;
    }
    return true;
  }
  std::vector<uint64_t> Sequences() {
    std::lock_guard<std::mutex> lock(mutex);
    return sequences;
  }
};

std::shared_ptr<StampedMessage> Stamped(uint64_t sequence) {
  auto msg = std::make_shared<StampedMessage>();
  msg->set_sequence(sequence);
  msg->set_payload("PAYLOAD-" + std::to_string(sequence) + std::string(64, 'x'));
  (*msg->mutable_labels())["sequence"] = static_cast<int32_t>(sequence);
  return msg;
}

// args: topic, count. READY once matched, PROBED once a probe came through the path in use.
KORVAN_CHILD_ROLE(stamped_subscriber) {
  const std::string topic = args.at(0);
  const size_t count = std::stoul(args.at(1));
  auto node = Node::CreateNode("subscriber", "");
  StampedReceiver receiver;
  receiver.Subscribe(*node, topic, Reliable(true));
  CHILD_CHECK(WaitUntil([&] { return receiver.subscriber->MatchedPublishers() >= 1; }));
  printf("READY\n");
  fflush(stdout);
  CHILD_CHECK(WaitUntil([&] { return receiver.probed.load(); }));
  printf("PROBED\n");
  fflush(stdout);
  CHILD_CHECK(WaitUntil([&] { return receiver.count() >= count; }));
  CHILD_CHECK(receiver.InOrderFrom(0, count));
  CHILD_CHECK(receiver.crc_errors == 0);
  CHILD_CHECK(receiver.sequence_errors == 0);
  printf("RECEIVED %zu\n", receiver.count());
  printf("SHARED_MEMORY %d\n", receiver.through_shared_memory.load());
  return CHILD_RESULT();
}

// args: topic, count, remote subscribers, with local subscriber (0/1), go file, finish file.
// Sends probes until the go file exists, then the stream.
KORVAN_CHILD_ROLE(stamped_publisher) {
  const std::string topic = args.at(0);
  const size_t count = std::stoul(args.at(1));
  const int remote = std::stoi(args.at(2));
  const bool with_local = args.at(3) == "1";
  auto node = Node::CreateNode("publisher", "");
  StampedReceiver local;
  if (with_local)
    local.Subscribe(*node, topic, Reliable(true));
  auto pub = node->CreatePublisher<StampedMessage>(topic, Reliable(true));
  CHILD_CHECK(
      WaitUntil([&] { return pub->MatchedSubscribers() >= remote + (with_local ? 1 : 0); }));
  printf("READY\n");
  fflush(stdout);
  uint64_t probe = kProbe;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  while (!korvan_test::WaitForFile(args.at(4), 10) && std::chrono::steady_clock::now() < deadline)
    pub->Publish(Stamped(probe++));
  for (size_t i = 0; i < count; ++i)
    CHILD_CHECK(pub->Publish(Stamped(i)));
  if (with_local) {
    CHILD_CHECK(WaitUntil([&] { return local.count() >= count; }));
    CHILD_CHECK(local.InOrderFrom(0, count));  // exactly once: not also through DDS
    CHILD_CHECK(local.crc_errors == 0 && local.sequence_errors == 0);
  }
  printf("SENT\n");
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(5), kWaitMs));
  return CHILD_RESULT();
}

class PubSubMultiProcessTest : public ::testing::TestWithParam<std::string> {
 protected:
  std::vector<std::string> Env() const { return PathEnv(GetParam()); }
  // The subscriber's report of how many messages came through shared memory: some on the
  // shared-memory path, none on DDS.
  void ExpectPath(const std::string& output) const {
    const size_t at = output.find("SHARED_MEMORY ");
    ASSERT_NE(at, std::string::npos) << output;
    const int count = std::atoi(output.c_str() + at + 14);
    if (GetParam() == "shm") {
      EXPECT_GT(count, 0) << output;
    } else {
      EXPECT_EQ(count, 0) << output;
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Paths, PubSubMultiProcessTest, ::testing::Values("dds", "shm"),
                         [](const auto& info) { return info.param; });

TEST_P(PubSubMultiProcessTest, TenThousandStampedMessagesReachEverySubscriberOnce) {
  const std::string topic = UniqueName("stream");
  const std::string go = korvan_test::ScratchPath("go");
  const std::string finish = korvan_test::ScratchPath("finish");
  ChildProcess subscriber("stamped_subscriber", {topic, "10000"}, Env());
  ChildProcess publisher("stamped_publisher", {topic, "10000", "1", "1", go, finish}, Env());
  ASSERT_TRUE(subscriber.WaitForOutput("READY", 60s)) << subscriber.output();
  ASSERT_TRUE(publisher.WaitForOutput("READY", 60s)) << publisher.output();
  ASSERT_TRUE(subscriber.WaitForOutput("PROBED", 60s)) << subscriber.output();
  korvan_test::TouchFile(go);
  ASSERT_TRUE(subscriber.Wait(120s)) << subscriber.output();
  EXPECT_EQ(subscriber.exit_code(), 0) << subscriber.output();
  ExpectPath(subscriber.output());
  ASSERT_TRUE(publisher.WaitForOutput("SENT", 60s)) << publisher.output();
  korvan_test::TouchFile(finish);
  ASSERT_TRUE(publisher.Wait(60s));
  EXPECT_EQ(publisher.exit_code(), 0) << publisher.output();
}

// Corrupts the second message one network writer sends: "flip" changes one payload byte (the
// message still parses, its CRC no longer matches), "garbage" replaces it by bytes that do not
// parse at all.
class CorruptingWriter : public bus::TransportWriter {
 public:
  CorruptingWriter(std::unique_ptr<bus::TransportWriter> inner, std::string mode)
      : inner_(std::move(inner)), mode_(std::move(mode)) {}
  int Write(bus::OutboundSample& sample) override {
    if (written_++ != 1)
      return inner_->Write(sample);
    const std::string* bytes = sample.Bytes();
    if (bytes == nullptr)
      return 0;
    std::string changed = *bytes;
    if (mode_ == "flip") {
      changed[changed.find("PAYLOAD")] ^= 0x20;
    } else {
      changed = std::string("\xff\xff\xff\xff\xff", 5);
    }
    bus::OutboundSample corrupted(std::move(changed), sample.type_name());
    return inner_->Write(corrupted);
  }
  int MatchedReaders() override { return inner_->MatchedReaders(); }

 private:
  std::unique_ptr<bus::TransportWriter> inner_;
  std::string mode_;
  int written_ = 0;
};

class CorruptingTransport : public bus::TransportWrapper {
 public:
  CorruptingTransport(std::shared_ptr<bus::Transport> target, std::string mode)
      : TransportWrapper(std::move(target)), mode_(std::move(mode)) {}
  std::unique_ptr<bus::TransportWriter> CreateWriter(
      const bus::EndpointDescription& endpoint) override {
    auto writer = TransportWrapper::CreateWriter(endpoint);
    if (!writer)
      return writer;
    return std::make_unique<CorruptingWriter>(std::move(writer), mode_);
  }

 private:
  std::string mode_;
};

class CorruptingFactory : public bus::TransportFactory {
 public:
  explicit CorruptingFactory(std::string mode) : mode_(std::move(mode)) {}
  std::shared_ptr<bus::Transport> Create(const bus::KorvanBusConfig& config,
                                         std::string* problem) override {
    auto transport = TransportFactory::Default()->Create(config, problem);
    if (!transport)
      return nullptr;
    return std::make_shared<CorruptingTransport>(transport, mode_);
  }

 private:
  std::string mode_;
};

// args: topic, mode, go file, finish file. Publishes sequences 0, 1 (corrupted), 2.
KORVAN_CHILD_ROLE(corrupting_publisher) {
  static CorruptingFactory factory(args.at(1));
  bus::KorvanBusManager::SetTransportFactory(&factory);
  auto node = Node::CreateNode("corrupter", "");
  auto pub = node->CreatePublisher<StampedMessage>(args.at(0), Reliable(true));
  CHILD_CHECK(WaitUntil([&] { return pub->MatchedSubscribers() >= 1; }));
  printf("READY\n");
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(2), kWaitMs));
  for (uint64_t i = 0; i < 3; ++i)
    CHILD_CHECK(pub->Publish(Stamped(i)));
  CHILD_CHECK(korvan_test::WaitForFile(args.at(3), kWaitMs));
  return CHILD_RESULT();
}

// args: topic. Expects sequences 0 and 2 only.
KORVAN_CHILD_ROLE(subscriber_after_bad_message) {
  auto node = Node::CreateNode("checker", "");
  StampedReceiver receiver;
  receiver.Subscribe(*node, args.at(0), Reliable(true));
  CHILD_CHECK(WaitUntil([&] { return receiver.subscriber->MatchedPublishers() >= 1; }));
  printf("READY\n");
  fflush(stdout);
  CHILD_CHECK(WaitUntil([&] { return receiver.count() >= 2; }));
  CHILD_CHECK((receiver.Sequences() == std::vector<uint64_t>{0, 2}));
  printf("CRC_ERRORS %d\n", receiver.crc_errors.load());
  return CHILD_RESULT();
}

void RunCorruption(const std::string& mode, const std::string& expected_line,
                   const std::string& expected_crc_errors) {
  const std::string topic = UniqueName("corrupt");
  const std::string go = korvan_test::ScratchPath("go");
  const std::string finish = korvan_test::ScratchPath("finish");
  // The corrupting wrapper sits on the DDS transport only.
  ChildProcess subscriber("subscriber_after_bad_message", {topic}, PathEnv("dds"));
  ChildProcess publisher("corrupting_publisher", {topic, mode, go, finish}, PathEnv("dds"));
  ASSERT_TRUE(subscriber.WaitForOutput("READY", 60s)) << subscriber.output();
  ASSERT_TRUE(publisher.WaitForOutput("READY", 60s)) << publisher.output();
  korvan_test::TouchFile(go);
  ASSERT_TRUE(subscriber.Wait(90s)) << subscriber.output();
  EXPECT_EQ(subscriber.exit_code(), 0) << subscriber.output();
  const std::string output = subscriber.output();
  EXPECT_NE(output.find(expected_line), std::string::npos) << output;
  EXPECT_NE(output.find(expected_crc_errors), std::string::npos) << output;
  korvan_test::TouchFile(finish);
  ASSERT_TRUE(publisher.Wait(60s));
  EXPECT_EQ(publisher.exit_code(), 0) << publisher.output();
}

TEST(NetworkCorruptionTest, CorruptedMessageIsRejectedByTheCrcCheck) {
  RunCorruption("flip", ": CRC error, expected: ", "CRC_ERRORS 1");
}

TEST(NetworkCorruptionTest, UndecodableBytesAreDroppedWithOneLine) {
  RunCorruption("garbage", "dropped a korvan.test.StampedMessage message that does not parse",
                "CRC_ERRORS 0");
}

// args: topic, finish file. Publishes sequences 0..19, transient-local, keeping 5.
KORVAN_CHILD_ROLE(durable_publisher) {
  auto node = Node::CreateNode("durable", "");
  auto pub = node->CreatePublisher<StampedMessage>(args.at(0), Reliable(false, true, 5));
  for (uint64_t i = 0; i < 20; ++i)
    CHILD_CHECK(pub->Publish(Stamped(i)));
  printf("PUBLISHED\n");
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(1), kWaitMs));
  return CHILD_RESULT();
}

// args: topic. Joins late and expects the last five.
KORVAN_CHILD_ROLE(late_subscriber) {
  auto node = Node::CreateNode("late", "");
  StampedReceiver receiver;
  receiver.Subscribe(*node, args.at(0), Reliable(false, true, 5));
  CHILD_CHECK(WaitUntil([&] { return receiver.count() >= 5; }));
  CHILD_CHECK(receiver.InOrderFrom(15, 5));
  return CHILD_RESULT();
}

TEST_P(PubSubMultiProcessTest, LateJoinerGetsTheLastMessagesOfATransientLocalTopic) {
  const std::string topic = UniqueName("durable");
  const std::string finish = korvan_test::ScratchPath("finish");
  ChildProcess publisher("durable_publisher", {topic, finish}, Env());
  ASSERT_TRUE(publisher.WaitForOutput("PUBLISHED", 60s)) << publisher.output();
  ChildProcess late("late_subscriber", {topic}, Env());
  ASSERT_TRUE(late.Wait(90s)) << late.output();
  EXPECT_EQ(late.exit_code(), 0) << late.output();
  korvan_test::TouchFile(finish);
  ASSERT_TRUE(publisher.Wait(60s));
  EXPECT_EQ(publisher.exit_code(), 0) << publisher.output();
}

// args: topic, stop file. Publishes every 2 ms until told to stop.
KORVAN_CHILD_ROLE(steady_publisher) {
  auto node = Node::CreateNode("steady", "");
  auto pub = node->CreatePublisher<StampedMessage>(args.at(0), Reliable(false));
  uint64_t sequence = 0;
  printf("STARTED\n");
  fflush(stdout);
  while (!korvan_test::WaitForFile(args.at(1), 2))
    pub->Publish(Stamped(sequence++));
  return CHILD_RESULT();
}

// args: topic. Leaves after ten messages.
KORVAN_CHILD_ROLE(short_lived_subscriber) {
  auto node = Node::CreateNode("visitor", "");
  StampedReceiver receiver;
  receiver.Subscribe(*node, args.at(0), Reliable(false));
  CHILD_CHECK(WaitUntil([&] { return receiver.count() >= 10; }));
  CHILD_CHECK(receiver.crc_errors == 0);
  return CHILD_RESULT();
}

TEST_P(PubSubMultiProcessTest, SubscriberProcessesComeAndGoWhileMessagesFlow) {
  const std::string topic = UniqueName("churn");
  const std::string stop = korvan_test::ScratchPath("stop");
  ChildProcess publisher("steady_publisher", {topic, stop}, Env());
  ASSERT_TRUE(publisher.WaitForOutput("STARTED", 60s)) << publisher.output();
  for (int round = 0; round < 5; ++round) {
    ChildProcess visitor("short_lived_subscriber", {topic}, Env());
    ASSERT_TRUE(visitor.Wait(90s)) << visitor.output();
    EXPECT_EQ(visitor.exit_code(), 0) << "round " << round << "\n" << visitor.output();
  }
  korvan_test::TouchFile(stop);
  ASSERT_TRUE(publisher.Wait(60s));
  EXPECT_EQ(publisher.exit_code(), 0) << publisher.output();
}

TEST_P(PubSubMultiProcessTest, WriteBatchingTopicDeliversEverything) {
  const std::string topic = UniqueName("batched");
  const std::string config = korvan_test::WriteScratchFile(
      "batched.json", R"({"topics": [{"name": ")" + topic +
                          R"(", "write_batching": true, "qos": {"history": 2}}]})");
  const std::string go = korvan_test::ScratchPath("go");
  const std::string finish = korvan_test::ScratchPath("finish");
  std::vector<std::string> env = Env();
  env.push_back("KORVAN_BUS_CONFIG_PATH=" + config);
  ChildProcess subscriber("stamped_subscriber", {topic, "2000"}, env);
  ChildProcess publisher("stamped_publisher", {topic, "2000", "1", "0", go, finish}, env);
  ASSERT_TRUE(subscriber.WaitForOutput("READY", 60s)) << subscriber.output();
  ASSERT_TRUE(publisher.WaitForOutput("READY", 60s)) << publisher.output();
  ASSERT_TRUE(subscriber.WaitForOutput("PROBED", 60s)) << subscriber.output();
  korvan_test::TouchFile(go);
  ASSERT_TRUE(subscriber.Wait(120s)) << subscriber.output();
  EXPECT_EQ(subscriber.exit_code(), 0) << subscriber.output();
  ExpectPath(subscriber.output());
  korvan_test::TouchFile(finish);
  ASSERT_TRUE(publisher.Wait(60s));
  EXPECT_EQ(publisher.exit_code(), 0) << publisher.output();
}

// args: topic, finish file. Publishes a PlainMessageTwin every 5 ms until finished.

KORVAN_CHILD_ROLE(twin_publisher) {
  auto node = Node::CreateNode("twin", "");
  auto pub = node->CreatePublisher<PlainMessageTwin>(args.at(0), Reliable(false));
  auto msg = std::make_shared<PlainMessageTwin>();
  msg->set_sequence(42);
  msg->set_text("from the twin");
  while (!korvan_test::WaitForFile(args.at(1), 5))
    pub->Publish(msg);
  return CHILD_RESULT();
}

TEST_P(PubSubMultiProcessTest, ASubscriberOfAnotherTypeNameStillParsesAndIsWarned) {
  korvan_test::ScopedEnv path("KORVAN_SHARED_MEMORY", GetParam() == "shm" ? "1" : "0");
  korvan_test::LogCapture log(3);
  const std::string topic = UniqueName("twin");
  const std::string finish = korvan_test::ScratchPath("finish");
  ChildProcess publisher("twin_publisher", {topic, finish}, Env());
  auto node = Node::CreateNode("reader", "");
  std::mutex mutex;
  std::vector<std::shared_ptr<PlainMessage>> got;
  auto sub = node->CreateSubscriber<PlainMessage>(topic, Reliable(false),
                                                  [&](const std::shared_ptr<PlainMessage>& msg) {
                                                    std::lock_guard<std::mutex> lock(mutex);
                                                    got.push_back(msg);
                                                  });
  ASSERT_TRUE(WaitFor(
      [&] {
        std::lock_guard<std::mutex> lock(mutex);
        return !got.empty();
      },
      60s));
  {
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(got[0]->sequence(), 42u);
    EXPECT_EQ(got[0]->text(), "from the twin");
  }
  EXPECT_EQ(log.Count("a publisher sends korvan.test.PlainMessageTwin, this subscriber reads "
                      "korvan.test.PlainMessage"),
            1u);
  sub.reset();
  korvan_test::TouchFile(finish);
  ASSERT_TRUE(publisher.Wait(60s));
  EXPECT_EQ(publisher.exit_code(), 0) << publisher.output();
}

}  // namespace
