// The QoS contract between processes of one host, on both paths (DDS and shared memory), and
// the faults of the shared-memory path: writers killed in the middle of a write, readers
// killed while the writer waits for them, many processes started and killed.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "korvan/bus/delivery_context.h"
#include "support/child_process.h"
#include "support/test_environment.h"
#include "tarvikdds/messaging/dds_node.h"
#include "test_proto/test_messages.pb.h"

namespace {

namespace bus = tarvik::korvan::bus;
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

std::vector<std::string> PathEnv(const std::string& path) {
  return {std::string("KORVAN_SHARED_MEMORY=") + (path == "shm" ? "1" : "0")};
}

QoS Qos(bool keep_all, uint32_t depth = 10) {
  QoS qos;
  qos.history_type = keep_all ? 1 : 0;
  qos.history_depth = depth;
  return qos;
}

bool WaitUntil(const std::function<bool()>& condition) {
  return WaitFor(condition, std::chrono::milliseconds(kWaitMs));
}

// A payload whose bytes all derive from the sequence, so a torn or mixed message shows.
std::string Pattern(uint64_t sequence, size_t size) {
  std::string payload(size, static_cast<char>('a' + sequence % 26));
  for (size_t i = 0; i < size; i += 4096)
    payload[i] = static_cast<char>(sequence & 0x7f);
  return payload;
}

bool MatchesPattern(const StampedMessage& msg) {
  return msg.payload() == Pattern(msg.sequence(), msg.payload().size());
}

std::shared_ptr<StampedMessage> Stamped(uint64_t sequence, size_t size) {
  auto msg = std::make_shared<StampedMessage>();
  msg->set_sequence(sequence);
  msg->set_payload(Pattern(sequence, size));
  return msg;
}

// Counts what arrives and checks every message: pattern, CRC, per-publisher counter.
struct Receiver {
  std::mutex mutex;
  std::vector<uint64_t> sequences;
  std::vector<size_t> sizes;
  std::atomic<int> crc_errors{0};
  std::atomic<int> sequence_errors{0};
  std::atomic<int> bad_payloads{0};
  std::atomic<int> through_shared_memory{0};
  std::atomic<bool> probed{false};  // a probe came through the path asked for
  bool probe_through_shared_memory = false;
  std::function<void()> before_each;  // runs first in every callback but for probes
  std::shared_ptr<tarvik::quessa::Subscriber<StampedMessage>> subscriber;

  void Subscribe(Node& node, const std::string& topic, const QoS& qos) {
    subscriber = node.CreateSubscriber<StampedMessage>(
        topic, qos, [this](const std::shared_ptr<StampedMessage>& msg) {
          const auto* delivery = bus::CurrentDelivery();
          if (msg->sequence() >= kProbe) {
            const bool shm = delivery != nullptr && delivery->shared_memory;
            if (shm || !probe_through_shared_memory)
              probed = true;
            return;
          }
          if (before_each)
            before_each();
          if (delivery != nullptr && delivery->shared_memory)
            ++through_shared_memory;
          if (!MatchesPattern(*msg))
            ++bad_payloads;
          std::lock_guard<std::mutex> lock(mutex);
          sequences.push_back(msg->sequence());
          sizes.push_back(msg->payload().size());
        });
    subscriber->impl()->SetCRCErrorCallback([this](uint32_t, uint32_t) { ++crc_errors; });
    subscriber->impl()->SetSequenceErrorCallback(
        [this](const std::shared_ptr<void>&, uint64_t, uint64_t) { ++sequence_errors; });
  }
  size_t count() {
    std::lock_guard<std::mutex> lock(mutex);
    return sequences.size();
  }
  std::vector<uint64_t> Sequences() {
    std::lock_guard<std::mutex> lock(mutex);
    return sequences;
  }
  void Report() {
    printf("RECEIVED %zu\nSHARED_MEMORY %d\nCRC_ERRORS %d\nBAD_PAYLOADS %d\n", count(),
           through_shared_memory.load(), crc_errors.load(), bad_payloads.load());
    fflush(stdout);
  }
};

int Reported(const std::string& output, const std::string& key) {
  const size_t at = output.find(key + " ");
  return at == std::string::npos ? -1 : std::atoi(output.c_str() + at + key.size() + 1);
}

std::vector<size_t> ParseSizes(const std::string& text) {
  std::vector<size_t> sizes;
  std::stringstream in(text);
  std::string item;
  while (std::getline(in, item, ','))
    sizes.push_back(std::stoul(item));
  return sizes;
}

// args: topic, keep_all (0/1), depth, sizes (comma separated; one message each, cycled to
// count), count, go file, finish file ("-": leave right after the burst). Sends probes until
// the go file exists, then the burst; prints FAILED <n> and SENT.
KORVAN_CHILD_ROLE(burst_publisher) {
  const bool keep_all = args.at(1) == "1";
  const std::vector<size_t> sizes = ParseSizes(args.at(3));
  const size_t count = std::stoul(args.at(4));
  auto node = Node::CreateNode("burst", "");
  auto pub =
      node->CreatePublisher<StampedMessage>(args.at(0), Qos(keep_all, std::stoul(args.at(2))));
  CHILD_CHECK(WaitUntil([&] { return pub->MatchedSubscribers() >= 1; }));
  printf("READY\n");
  fflush(stdout);
  uint64_t probe = kProbe;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  while (!korvan_test::WaitForFile(args.at(5), 10) && std::chrono::steady_clock::now() < deadline)
    pub->Publish(Stamped(probe++, 16));
  int failed = 0;
  for (size_t i = 0; i < count; ++i) {
    if (!pub->Publish(Stamped(i, sizes[i % sizes.size()])))
      ++failed;
  }
  printf("FAILED %d\nSENT\n", failed);
  fflush(stdout);
  if (args.at(6) != "-")
    CHILD_CHECK(korvan_test::WaitForFile(args.at(6), kWaitMs));
  return CHILD_RESULT();
}

// args: topic, keep_all (0/1), depth, count to wait for, release file ("-": none), delay per
// message in microseconds, path (dds/shm). READY once a probe came through that path. Blocks
// its callback until the release file exists, then works through the messages slowly; waits
// for the last message (sequence count - 1).
KORVAN_CHILD_ROLE(slow_subscriber) {
  const bool keep_all = args.at(1) == "1";
  const size_t count = std::stoul(args.at(3));
  const std::string release = args.at(4);
  const int delay_us = std::stoi(args.at(5));
  auto node = Node::CreateNode("slow", "");
  Receiver receiver;
  receiver.before_each = [&] {
    if (release != "-")
      korvan_test::WaitForFile(release, kWaitMs);
    if (delay_us > 0)
      std::this_thread::sleep_for(std::chrono::microseconds(delay_us));  // the slow work
  };
  receiver.probe_through_shared_memory = args.at(6) == "shm";
  receiver.Subscribe(*node, args.at(0), Qos(keep_all, std::stoul(args.at(2))));
  CHILD_CHECK(WaitUntil([&] { return receiver.probed.load(); }));
  printf("READY\n");
  fflush(stdout);
  CHILD_CHECK(WaitUntil([&] {
    auto got = receiver.Sequences();
    return !got.empty() && got.back() == count - 1;
  }));
  const auto got = receiver.Sequences();
  bool increasing = true;
  for (size_t i = 1; i < got.size(); ++i)
    increasing = increasing && got[i] > got[i - 1];
  CHILD_CHECK(increasing);
  if (keep_all)
    CHILD_CHECK(got.size() == count);
  CHILD_CHECK(receiver.crc_errors == 0 && receiver.bad_payloads == 0);
  receiver.Report();
  return CHILD_RESULT();
}

class QosContractTest : public ::testing::TestWithParam<std::string> {
 protected:
  std::vector<std::string> Env() const { return PathEnv(GetParam()); }
  void ExpectPath(const std::string& output) const {
    if (GetParam() == "shm") {
      EXPECT_GT(Reported(output, "SHARED_MEMORY"), 0) << output;
    } else {
      EXPECT_EQ(Reported(output, "SHARED_MEMORY"), 0) << output;
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Paths, QosContractTest, ::testing::Values("dds", "shm"),
                         [](const auto& info) { return info.param; });

// A reliable keep-all writer waits for a slow reader instead of dropping: every message
// arrives, in order, and no publish fails.
TEST_P(QosContractTest, KeepAllWaitsForASlowReaderAndLosesNothing) {
  const std::string topic = UniqueName("keepall");
  const std::string go = korvan_test::ScratchPath("go");
  const std::string finish = korvan_test::ScratchPath("finish");
  ChildProcess subscriber("slow_subscriber", {topic, "1", "10", "300", "-", "2000", GetParam()},
                          Env());
  ChildProcess publisher("burst_publisher", {topic, "1", "10", "4096", "300", go, finish}, Env());
  ASSERT_TRUE(subscriber.WaitForOutput("READY", 60s)) << subscriber.output();
  ASSERT_TRUE(publisher.WaitForOutput("READY", 60s)) << publisher.output();
  korvan_test::TouchFile(go);
  ASSERT_TRUE(subscriber.Wait(120s)) << subscriber.output();
  EXPECT_EQ(subscriber.exit_code(), 0) << subscriber.output();
  ExpectPath(subscriber.output());
  ASSERT_TRUE(publisher.WaitForOutput("SENT", 60s)) << publisher.output();
  EXPECT_EQ(Reported(publisher.output(), "FAILED"), 0) << publisher.output();
  korvan_test::TouchFile(finish);
  ASSERT_TRUE(publisher.Wait(60s));
  EXPECT_EQ(publisher.exit_code(), 0) << publisher.output();
}

// A keep-last writer never waits: it finishes a burst while the reader's callback is stuck,
// and the reader then gets the newest messages, oldest dropped.
TEST_P(QosContractTest, KeepLastNeverBlocksTheWriterAndDropsTheOldest) {
  const std::string topic = UniqueName("keeplast");
  const std::string go = korvan_test::ScratchPath("go");
  const std::string finish = korvan_test::ScratchPath("finish");
  const std::string release = korvan_test::ScratchPath("release");
  ChildProcess subscriber("slow_subscriber", {topic, "0", "5", "2000", release, "0", GetParam()},
                          Env());
  ChildProcess publisher("burst_publisher", {topic, "0", "5", "4096", "2000", go, finish}, Env());
  ASSERT_TRUE(subscriber.WaitForOutput("READY", 60s)) << subscriber.output();
  ASSERT_TRUE(publisher.WaitForOutput("READY", 60s)) << publisher.output();
  korvan_test::TouchFile(go);
  // Sent while the reader is still stuck: the writer never waited for it.
  ASSERT_TRUE(publisher.WaitForOutput("SENT", 60s)) << publisher.output();
  EXPECT_EQ(Reported(publisher.output(), "FAILED"), 0) << publisher.output();
  korvan_test::TouchFile(release);
  ASSERT_TRUE(subscriber.Wait(120s)) << subscriber.output();
  EXPECT_EQ(subscriber.exit_code(), 0) << subscriber.output();
  EXPECT_LT(Reported(subscriber.output(), "RECEIVED"), 2000) << subscriber.output();
  korvan_test::TouchFile(finish);
  ASSERT_TRUE(publisher.Wait(60s));
  EXPECT_EQ(publisher.exit_code(), 0) << publisher.output();
}

// A keep-all reader (a recorder, say) whose callback is stuck for a moment misses nothing of a
// reliable keep-last writer, and the writer does not wait for it: the network has the socket
// buffers for this, shared memory keeps what is unread beyond the writer's depth.
TEST_P(QosContractTest, KeepAllReaderStuckForAMomentMissesNothingOfAKeepLastWriter) {
  const std::string topic = UniqueName("stuck");
  const std::string go = korvan_test::ScratchPath("go");
  const std::string finish = korvan_test::ScratchPath("finish");
  const std::string release = korvan_test::ScratchPath("release");
  ChildProcess subscriber("slow_subscriber", {topic, "1", "10", "100", release, "0", GetParam()},
                          Env());
  ChildProcess publisher("burst_publisher", {topic, "0", "1", "4096", "100", go, finish}, Env());
  ASSERT_TRUE(subscriber.WaitForOutput("READY", 60s)) << subscriber.output();
  ASSERT_TRUE(publisher.WaitForOutput("READY", 60s)) << publisher.output();
  korvan_test::TouchFile(go);
  ASSERT_TRUE(publisher.WaitForOutput("SENT", 60s)) << publisher.output();
  EXPECT_EQ(Reported(publisher.output(), "FAILED"), 0) << publisher.output();
  korvan_test::TouchFile(release);
  ASSERT_TRUE(subscriber.Wait(120s)) << subscriber.output();
  EXPECT_EQ(subscriber.exit_code(), 0) << subscriber.output();
  EXPECT_EQ(Reported(subscriber.output(), "RECEIVED"), 100) << subscriber.output();
  ExpectPath(subscriber.output());
  korvan_test::TouchFile(finish);
  ASSERT_TRUE(publisher.Wait(60s));
  EXPECT_EQ(publisher.exit_code(), 0) << publisher.output();
}

// Sizes from a few bytes to 64 MiB, growing and shrinking: each arrives whole. (DDS stops at
// 4 MiB: on a busy machine its writer gives up on larger ones after the 1 s blocking time.)
TEST_P(QosContractTest, MessagesOfEverySizeUpTo64MiBArriveWhole) {
  const std::string topic = UniqueName("sizes");
  const std::string go = korvan_test::ScratchPath("go");
  const std::string finish = korvan_test::ScratchPath("finish");
  const std::string sizes = GetParam() == "shm" ? "64,4096,1048576,16777216,100,67108864,65536"
                                                : "64,4096,1048576,4194304,100,2097152,65536";
  ChildProcess subscriber("slow_subscriber", {topic, "1", "10", "7", "-", "0", GetParam()}, Env());
  ChildProcess publisher("burst_publisher", {topic, "1", "10", sizes, "7", go, finish}, Env());
  ASSERT_TRUE(subscriber.WaitForOutput("READY", 60s)) << subscriber.output();
  ASSERT_TRUE(publisher.WaitForOutput("READY", 60s)) << publisher.output();
  korvan_test::TouchFile(go);
  ASSERT_TRUE(subscriber.Wait(150s)) << subscriber.output();
  EXPECT_EQ(subscriber.exit_code(), 0) << subscriber.output();
  EXPECT_EQ(Reported(subscriber.output(), "RECEIVED"), 7) << subscriber.output();
  EXPECT_EQ(Reported(publisher.output(), "FAILED"), 0) << publisher.output();
  korvan_test::TouchFile(finish);
  ASSERT_TRUE(publisher.Wait(60s));
}

// A writer that leaves right after its last write still gets it to the readers: here a sample
// larger than any before, whose memory the reader has not mapped yet when the writer goes.
TEST_P(QosContractTest, AWritersLastSampleArrivesWhenItLeavesAtOnce) {
  const std::string topic = UniqueName("last");
  const std::string go = korvan_test::ScratchPath("go");
  ChildProcess subscriber("slow_subscriber", {topic, "0", "10", "1", "-", "0", GetParam()}, Env());
  ChildProcess publisher("burst_publisher", {topic, "0", "10", "1048576", "1", go, "-"}, Env());
  ASSERT_TRUE(subscriber.WaitForOutput("READY", 60s)) << subscriber.output();
  ASSERT_TRUE(publisher.WaitForOutput("READY", 60s)) << publisher.output();
  korvan_test::TouchFile(go);
  ASSERT_TRUE(publisher.Wait(60s));
  EXPECT_EQ(publisher.exit_code(), 0) << publisher.output();
  ASSERT_TRUE(subscriber.Wait(60s)) << subscriber.output();
  EXPECT_EQ(subscriber.exit_code(), 0) << subscriber.output();
  ExpectPath(subscriber.output());
}

// args: topic, stop file. Reliable keep-all, one message every millisecond until stopped.
// Prints FAILED <sequence> for a write that failed (its blocking time ran out).
KORVAN_CHILD_ROLE(paced_publisher) {
  auto node = Node::CreateNode("paced", "");
  auto pub = node->CreatePublisher<StampedMessage>(args.at(0), Qos(true));
  uint64_t sequence = 0;
  printf("STARTED\n");
  fflush(stdout);
  while (!korvan_test::WaitForFile(args.at(1), 1)) {
    const uint64_t next = sequence++;
    if (!pub->Publish(Stamped(next, 256))) {
      printf("FAILED %llu\n", static_cast<unsigned long long>(next));
      fflush(stdout);
    }
  }
  return CHILD_RESULT();
}

// args: topic, count. Joins a running stream and expects `count` messages in order, each
// once; prints MISSING <sequence> for each one skipped.
KORVAN_CHILD_ROLE(joining_subscriber) {
  const size_t count = std::stoul(args.at(1));
  auto node = Node::CreateNode("joiner", "");
  Receiver receiver;
  receiver.Subscribe(*node, args.at(0), Qos(true));
  CHILD_CHECK(WaitUntil([&] { return receiver.count() >= count; }));
  receiver.subscriber.reset();  // nothing more arrives while we check
  const auto got = receiver.Sequences();
  int missing = 0;
  for (size_t i = 1; i < got.size(); ++i) {
    if (got[i] <= got[i - 1]) {
      fprintf(stderr, "message %zu: %llu after %llu\n", i, static_cast<unsigned long long>(got[i]),
              static_cast<unsigned long long>(got[i - 1]));
      ++korvan_test::ChildFailures();
      break;
    }
    for (uint64_t skipped = got[i - 1] + 1; skipped < got[i]; ++skipped, ++missing)
      printf("MISSING %llu\n", static_cast<unsigned long long>(skipped));
  }
  CHILD_CHECK(receiver.crc_errors == 0);
  CHILD_CHECK(receiver.sequence_errors <= missing);  // each gap reported once at most
  receiver.Report();
  return CHILD_RESULT();
}

// A reader that joins a stream gets it without a gap, duplicate or swap, also when it moves
// from DDS to shared memory on the way. The only gaps allowed are writes that failed: on a
// starved machine a keep-all writer may wait out its blocking time for the joiner.
TEST_P(QosContractTest, ReaderJoiningAStreamGetsEachMessageOnceInOrder) {
  const std::string topic = UniqueName("join");
  const std::string stop = korvan_test::ScratchPath("stop");
  ChildProcess publisher("paced_publisher", {topic, stop}, Env());
  ASSERT_TRUE(publisher.WaitForOutput("STARTED", 60s)) << publisher.output();
  for (int round = 0; round < 3; ++round) {
    ChildProcess joiner("joining_subscriber", {topic, "400"}, Env());
    ASSERT_TRUE(joiner.Wait(90s)) << joiner.output();
    EXPECT_EQ(joiner.exit_code(), 0) << "round " << round << "\n" << joiner.output();
    ExpectPath(joiner.output());
    std::istringstream lines(joiner.output());
    for (std::string line; std::getline(lines, line);) {
      if (line.rfind("MISSING ", 0) == 0) {
        EXPECT_TRUE(publisher.WaitForOutput("FAILED " + line.substr(8) + "\n", 10s))
            << "round " << round << ": " << line << " was sent\n"
            << joiner.output();
      }
    }
  }
  korvan_test::TouchFile(stop);
  ASSERT_TRUE(publisher.Wait(60s));
  EXPECT_EQ(publisher.exit_code(), 0) << publisher.output();
}

// args: topic, stop file. Reliable keep-all; prints BLOCKED when a publish failed (a reader
// held it up for the blocking time) and RESUMED after 50 publishes in a row succeed later.
KORVAN_CHILD_ROLE(blocking_publisher) {
  auto node = Node::CreateNode("blocked", "");
  auto pub = node->CreatePublisher<StampedMessage>(args.at(0), Qos(true));
  CHILD_CHECK(WaitUntil([&] { return pub->MatchedSubscribers() >= 1; }));
  printf("READY\n");
  fflush(stdout);
  bool blocked = false;
  int in_a_row = 0;
  uint64_t sequence = 0;
  while (!korvan_test::WaitForFile(args.at(1), 0)) {
    if (pub->Publish(Stamped(sequence++, 65536))) {
      if (blocked && ++in_a_row == 50) {
        printf("RESUMED\n");
        fflush(stdout);
      }
    } else if (!blocked) {
      blocked = true;
      printf("BLOCKED\n");
      fflush(stdout);
    }
  }
  return CHILD_RESULT();
}

// args: topic. Its callback never returns: the keep-all writer fills up against it.
KORVAN_CHILD_ROLE(stuck_subscriber) {
  auto node = Node::CreateNode("stuck", "");
  Receiver receiver;
  receiver.before_each = [] {
    for (;;)
      pause();  // stuck for good; the test kills us
  };
  receiver.Subscribe(*node, args.at(0), Qos(true));
  CHILD_CHECK(WaitUntil([&] { return receiver.subscriber->MatchedPublishers() >= 1; }));
  printf("READY\n");
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(korvan_test::ScratchPath("never"), kWaitMs * 10));
  return CHILD_RESULT();
}

// A reader killed while the writer waits for it frees the writer within the lease. (Over DDS
// a keep-all reader takes everything into its unbounded history, so the writer never waits.)
TEST(SharedMemoryFaultTest, ReaderKilledWhileHoldingUpTheWriterReleasesIt) {
  const std::string topic = UniqueName("stuck");
  const std::string stop = korvan_test::ScratchPath("stop");
  ChildProcess subscriber("stuck_subscriber", {topic}, PathEnv("shm"));
  ChildProcess publisher("blocking_publisher", {topic, stop}, PathEnv("shm"));
  ASSERT_TRUE(subscriber.WaitForOutput("READY", 60s)) << subscriber.output();
  ASSERT_TRUE(publisher.WaitForOutput("BLOCKED", 60s)) << publisher.output();
  subscriber.Kill(SIGKILL);
  ASSERT_TRUE(subscriber.Wait(10s));
  // Lease (3 s) plus the time to notice; generous for a loaded machine.
  EXPECT_TRUE(publisher.WaitForOutput("RESUMED", 30s)) << publisher.output();
  korvan_test::TouchFile(stop);
  ASSERT_TRUE(publisher.Wait(60s));
  EXPECT_EQ(publisher.exit_code(), 0) << publisher.output();
}

// Shared-memory objects of this user on this host, by name.
std::vector<std::string> OurSharedMemory() {
  const std::string prefix = "korvan." + std::to_string(::getuid()) + ".";
  std::vector<std::string> names;
  if (DIR* dir = ::opendir("/dev/shm")) {
    while (struct dirent* entry = ::readdir(dir)) {
      if (std::string(entry->d_name).compare(0, prefix.size(), prefix) == 0)
        names.push_back(entry->d_name);
    }
    ::closedir(dir);
  }
  return names;
}

std::vector<std::string> ObjectsOf(pid_t pid) {
  const std::string prefix =
      "korvan." + std::to_string(::getuid()) + "." + std::to_string(pid) + ".";
  std::vector<std::string> mine;
  for (const auto& name : OurSharedMemory()) {
    if (name.compare(0, prefix.size(), prefix) == 0)
      mine.push_back(name);
  }
  return mine;
}

// args: topic, size, text. Publishes keep-last messages of `size` bytes as fast as it can,
// with `text` in each, until killed.
KORVAN_CHILD_ROLE(flooding_publisher) {
  const size_t size = std::stoul(args.at(1));
  auto node = Node::CreateNode("flood", "");
  auto pub = node->CreatePublisher<StampedMessage>(args.at(0), Qos(false, 2));
  printf("STARTED\n");
  fflush(stdout);
  for (uint64_t sequence = 0;; ++sequence) {
    auto msg = Stamped(sequence, size);
    msg->set_text(args.at(2));
    pub->Publish(msg);
  }
}

// A writer killed at any point of a write never hands a reader a torn message, and what it
// left in /dev/shm goes away.
TEST(SharedMemoryFaultTest, WriterKilledMidWriteNeverTearsAMessage) {
  korvan_test::ScopedEnv path("KORVAN_SHARED_MEMORY", "1");
  const std::string topic = UniqueName("torn");
  auto node = Node::CreateNode("watcher", "");
  Receiver receiver;
  receiver.Subscribe(*node, topic, Qos(false, 2));
  std::vector<pid_t> killed;
  for (int round = 0; round < 4; ++round) {
    const size_t before = receiver.count();
    ChildProcess writer("flooding_publisher", {topic, std::to_string(8 << 20), "torn"},
                        PathEnv("shm"));
    // Each write copies 8 MiB, so a kill lands in one with a good chance; a different number
    // of messages each round moves the point.
    ASSERT_TRUE(WaitFor(
        [&] {
          return receiver.through_shared_memory.load() > 0 &&
                 receiver.count() >= before + 3 + static_cast<size_t>(round);
        },
        60s))
        << writer.output();
    writer.Kill(SIGKILL);
    ASSERT_TRUE(writer.Wait(10s));
    killed.push_back(writer.pid());
  }
  EXPECT_EQ(receiver.bad_payloads.load(), 0);
  EXPECT_EQ(receiver.crc_errors.load(), 0);
  for (pid_t pid : killed) {
    EXPECT_TRUE(WaitFor([&] { return ObjectsOf(pid).empty(); }, 30s))
        << "left by " << pid << ": " << ObjectsOf(pid).size();
  }
}

// Start and kill a hundred writers that serve this process: nothing piles up in /dev/shm,
// and everything there is private to this user.
TEST(SharedMemoryFaultTest, HundredStartKillCyclesLeaveNothingBehind) {
  korvan_test::ScopedEnv path("KORVAN_SHARED_MEMORY", "1");
  const std::string topic = UniqueName("cycles");
  auto node = Node::CreateNode("survivor", "");
  std::mutex mutex;
  std::string last_text;
  auto sub = node->CreateSubscriber<StampedMessage>(
      topic, Qos(false, 2), [&](const std::shared_ptr<StampedMessage>& msg) {
        const auto* delivery = bus::CurrentDelivery();
        if (delivery == nullptr || !delivery->shared_memory)
          return;
        std::lock_guard<std::mutex> lock(mutex);
        last_text = msg->text();
      });
  const size_t baseline = OurSharedMemory().size();
  for (int cycle = 0; cycle < 100; ++cycle) {
    const std::string text = "cycle-" + std::to_string(cycle);
    ChildProcess writer("flooding_publisher", {topic, "65536", text}, PathEnv("shm"));
    ASSERT_TRUE(WaitFor(
        [&] {
          std::lock_guard<std::mutex> lock(mutex);
          return last_text == text;
        },
        60s))
        << "cycle " << cycle << "\n"
        << writer.output();
    writer.Kill(SIGKILL);
    ASSERT_TRUE(writer.Wait(10s));
  }
  for (const auto& name : OurSharedMemory()) {
    struct stat st;
    ASSERT_EQ(::stat(("/dev/shm/" + name).c_str(), &st), 0) << name;
    EXPECT_EQ(st.st_mode & 0777, 0600u) << name;
  }
  EXPECT_TRUE(WaitFor([&] { return OurSharedMemory().size() <= baseline; }, 60s))
      << OurSharedMemory().size() << " objects, " << baseline << " before";
}

// One reader on shared memory and one that turned it off (its own configuration), served by
// the same writer: both get every message exactly once.
TEST(SharedMemoryPathTest, ReadersOnBothPathsEachGetEveryMessageOnce) {
  const std::string topic = UniqueName("mixed");
  const std::string go = korvan_test::ScratchPath("go");
  const std::string finish = korvan_test::ScratchPath("finish");
  const std::string config = korvan_test::WriteScratchFile(
      "no_shm.json", R"({"topics": [{"name": ")" + topic + R"(", "shared_memory": false,
                          "qos": {"history": 2}}]})");
  ChildProcess on_dds("slow_subscriber", {topic, "1", "10", "2000", "-", "0", "dds"},
                      {"KORVAN_SHARED_MEMORY=1", "KORVAN_BUS_CONFIG_PATH=" + config});
  ChildProcess on_shm("slow_subscriber", {topic, "1", "10", "2000", "-", "0", "shm"},
                      PathEnv("shm"));
  ChildProcess publisher("burst_publisher", {topic, "1", "10", "1000", "2000", go, finish},
                         PathEnv("shm"));
  ASSERT_TRUE(on_dds.WaitForOutput("READY", 60s)) << on_dds.output();
  ASSERT_TRUE(on_shm.WaitForOutput("READY", 60s)) << on_shm.output();
  ASSERT_TRUE(publisher.WaitForOutput("READY", 60s)) << publisher.output();
  korvan_test::TouchFile(go);
  ASSERT_TRUE(on_dds.Wait(120s)) << on_dds.output();
  ASSERT_TRUE(on_shm.Wait(120s)) << on_shm.output();
  EXPECT_EQ(on_dds.exit_code(), 0) << on_dds.output();
  EXPECT_EQ(on_shm.exit_code(), 0) << on_shm.output();
  EXPECT_EQ(Reported(on_dds.output(), "SHARED_MEMORY"), 0) << on_dds.output();
  EXPECT_GT(Reported(on_shm.output(), "SHARED_MEMORY"), 0) << on_shm.output();
  korvan_test::TouchFile(finish);
  ASSERT_TRUE(publisher.Wait(60s));
  EXPECT_EQ(publisher.exit_code(), 0) << publisher.output();
}

}  // namespace
