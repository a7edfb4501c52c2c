#include "core/delivery_queue.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/child_process.h"

namespace {

namespace bus = tarvik::korvan::bus;
using bus::DeliveryItem;
using bus::DeliveryQueue;
using bus::InboundSample;
using korvan_test::WaitFor;
using namespace std::chrono_literals;

constexpr auto kDeadline = 20s;
const std::string kType = "test.Bytes";

bool CopyBytes(const InboundSample& sample, DeliveryItem* item) {
  item->bytes.assign(static_cast<const char*>(sample.data), sample.size);
  return true;
}

void Push(DeliveryQueue& queue, const std::string& payload, bool replayed = false) {
  InboundSample sample;
  sample.data = payload.data();
  sample.size = payload.size();
  sample.type_name = &kType;
  sample.replayed = replayed;
  queue.OnSample(sample);
}

std::vector<std::string> Numbers(int from, int to) {
  std::vector<std::string> numbers;
  for (int i = from; i <= to; ++i)
    numbers.push_back(std::to_string(i));
  return numbers;
}

// What a queue delivered, in order, and on which thread.
class Deliveries {
 public:
  void Record(const DeliveryItem& item) {
    std::lock_guard<std::mutex> lock(mutex_);
    payloads_.push_back(item.bytes);
    threads_.push_back(std::this_thread::get_id());
  }
  std::vector<std::string> Payloads() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return payloads_;
  }
  std::thread::id ThreadOf(const std::string& payload) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = std::find(payloads_.begin(), payloads_.end(), payload);
    return it == payloads_.end() ? std::thread::id() : threads_[it - payloads_.begin()];
  }
  size_t Count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return payloads_.size();
  }

 private:
  mutable std::mutex mutex_;  // guards both lists
  std::vector<std::string> payloads_;
  std::vector<std::thread::id> threads_;
};

// Holds a delivery until the test opens it.
class Gate {
 public:
  void Pass() {
    std::unique_lock<std::mutex> lock(mutex_);
    entered_ = true;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
  }
  bool WaitEntered() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kDeadline, [this] { return entered_; });
  }
  void Open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;  // guards the flags
  std::condition_variable changed_;
  bool entered_ = false;
  bool open_ = false;
};

// A network-style reader whose samples wait until the queue takes them. With a writer key, the
// payloads are the writer's sequence numbers, as one path of two would bring them.
class PullReader : public bus::TransportReader {
 public:
  explicit PullReader(uint64_t writer_key = 0, bool shared_memory = false)
      : writer_key_(writer_key), shared_memory_(shared_memory) {}
  void Add(const std::string& payload) {
    std::lock_guard<std::mutex> lock(mutex_);
    waiting_.push_back(payload);
  }
  void AddNumbers(int from, int to) {
    for (const auto& number : Numbers(from, to))
      Add(number);
  }
  size_t Take(size_t max, const std::function<void(const InboundSample&)>& fn) override {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t taken = 0;
    while (taken < max && !waiting_.empty()) {
      const std::string payload = std::move(waiting_.front());
      waiting_.pop_front();
      InboundSample sample;
      sample.data = payload.data();
      sample.size = payload.size();
      sample.type_name = &kType;
      if (writer_key_ != 0) {
        sample.writer_key = writer_key_;
        sample.sequence = std::stoull(payload);
        sample.shared_memory = shared_memory_;
      }
      fn(sample);
      ++taken;
    }
    return taken;
  }
  bool Empty() {
    std::lock_guard<std::mutex> lock(mutex_);
    return waiting_.empty();
  }
  int MatchedWriters() override { return 1; }

 private:
  const uint64_t writer_key_;
  const bool shared_memory_;
  std::mutex mutex_;  // guards waiting_
  std::deque<std::string> waiting_;
};

TEST(DeliveryQueueTest, DeliversPushedSamplesInOrderOnItsOwnThread) {
  Deliveries deliveries;
  Gate gate;
  auto queue = std::make_shared<DeliveryQueue>("t", DeliveryQueue::Limits{}, CopyBytes,
                                               [&](DeliveryItem& item) {
                                                 if (item.bytes == "0")
                                                   gate.Pass();
                                                 deliveries.Record(item);
                                               });
  queue->Start(1, {});
  Push(*queue, "0");
  ASSERT_TRUE(gate.WaitEntered());
  // keep_last 0: everything that piles up behind a slow delivery is kept.
  for (int i = 1; i <= 199; ++i)
    Push(*queue, std::to_string(i));
  gate.Open();
  ASSERT_TRUE(WaitFor([&] { return deliveries.Count() == 200; }, kDeadline));
  queue->Stop();
  EXPECT_EQ(deliveries.Payloads(), Numbers(0, 199));
  EXPECT_NE(deliveries.ThreadOf("0"), std::this_thread::get_id());
}

TEST(DeliveryQueueTest, KeepLastDropsTheOldestWaitingSamples) {
  Deliveries deliveries;
  Gate gate;
  auto queue = std::make_shared<DeliveryQueue>("t", DeliveryQueue::Limits{3}, CopyBytes,
                                               [&](DeliveryItem& item) {
                                                 if (item.bytes == "0")
                                                   gate.Pass();
                                                 deliveries.Record(item);
                                               });
  queue->Start(1, {});
  Push(*queue, "0");
  ASSERT_TRUE(gate.WaitEntered());
  for (int i = 1; i <= 5; ++i)
    Push(*queue, std::to_string(i));
  gate.Open();
  ASSERT_TRUE(WaitFor([&] { return deliveries.Count() >= 4; }, kDeadline));
  queue->Stop();  // joins the thread: the list is final
  EXPECT_EQ(deliveries.Payloads(), (std::vector<std::string>{"0", "3", "4", "5"}));
}

TEST(DeliveryQueueTest, TakesWaitingSamplesFromItsReadersWhenTold) {
  Deliveries deliveries;
  PullReader reader;
  // More than one take's worth, with samples the conversion drops in between.
  for (int i = 0; i < 300; ++i) {
    reader.Add(std::to_string(i));
    reader.Add("drop");
  }
  auto queue = std::make_shared<DeliveryQueue>(
      "t", DeliveryQueue::Limits{},
      [](const InboundSample& sample, DeliveryItem* item) {
        return CopyBytes(sample, item) && item->bytes != "drop";
      },
      [&](DeliveryItem& item) { deliveries.Record(item); });
  queue->Start(1, {&reader});
  queue->OnReadable();
  ASSERT_TRUE(WaitFor([&] { return deliveries.Count() == 300; }, kDeadline));
  reader.Add("300");
  queue->OnReadable();
  ASSERT_TRUE(WaitFor([&] { return deliveries.Count() == 301; }, kDeadline));
  queue->Stop();
  EXPECT_EQ(deliveries.Payloads(), Numbers(0, 300));
}

TEST(DeliveryQueueTest, InlineDeliveryRunsOnTheWritersThreadWhenTheQueueIsIdle) {
  Deliveries deliveries;
  std::atomic<int> depth{0};
  std::atomic<int> deepest{0};
  std::shared_ptr<DeliveryQueue> queue;
  queue = std::make_shared<DeliveryQueue>(
      "t", DeliveryQueue::Limits{}, CopyBytes,
      [&](DeliveryItem& item) {
        deepest = std::max(deepest.load(), ++depth);
        deliveries.Record(item);
        if (item.bytes == "a")
          Push(*queue, "a-again");  // publishing from the callback queues, never recurses
        --depth;
      },
      true);
  queue->Start(1, {});

  Push(*queue, "a");
  ASSERT_GE(deliveries.Count(), 1u);  // delivered before Push returned
  EXPECT_EQ(deliveries.ThreadOf("a"), std::this_thread::get_id());
  ASSERT_TRUE(WaitFor([&] { return deliveries.Count() == 2; }, kDeadline));
  EXPECT_NE(deliveries.ThreadOf("a-again"), std::this_thread::get_id());
  EXPECT_EQ(deepest, 1);

  // History replayed to a late joiner goes through the queue.
  Push(*queue, "replayed", true);
  ASSERT_TRUE(WaitFor([&] { return deliveries.Count() == 3; }, kDeadline));
  EXPECT_NE(deliveries.ThreadOf("replayed"), std::this_thread::get_id());
  queue->Stop();
  EXPECT_EQ(deliveries.Payloads(), (std::vector<std::string>{"a", "a-again", "replayed"}));
}

TEST(DeliveryQueueTest, InlineDeliveryQueuesBehindADeliveryInProgress) {
  Deliveries deliveries;
  Gate gate;
  auto queue = std::make_shared<DeliveryQueue>(
      "t", DeliveryQueue::Limits{}, CopyBytes,
      [&](DeliveryItem& item) {
        if (item.bytes == "first")
          gate.Pass();
        deliveries.Record(item);
      },
      true);
  queue->Start(1, {});
  std::thread writer([&] { Push(*queue, "first"); });
  ASSERT_TRUE(gate.WaitEntered());
  // "first" runs on the writer's thread; these must wait for it and keep their order.
  Push(*queue, "second");
  Push(*queue, "third");
  EXPECT_EQ(deliveries.Count(), 0u);
  gate.Open();
  const std::thread::id writer_id = writer.get_id();
  writer.join();
  ASSERT_TRUE(WaitFor([&] { return deliveries.Count() == 3; }, kDeadline));
  queue->Stop();
  EXPECT_EQ(deliveries.Payloads(), (std::vector<std::string>{"first", "second", "third"}));
  EXPECT_EQ(deliveries.ThreadOf("first"), writer_id);
  EXPECT_NE(deliveries.ThreadOf("second"), std::this_thread::get_id());
  EXPECT_NE(deliveries.ThreadOf("second"), writer_id);
}

TEST(DeliveryQueueTest, StopFromInsideADeliveryEndsTheQueue) {
  for (const bool inline_delivery : {false, true}) {
    SCOPED_TRACE(inline_delivery ? "inline" : "queued");
    Deliveries deliveries;
    Gate gate;
    std::atomic<bool> stop_returned{false};
    DeliveryQueue* raw = nullptr;
    auto queue = std::make_shared<DeliveryQueue>(
        "t", DeliveryQueue::Limits{}, CopyBytes,
        [&](DeliveryItem& item) {
          deliveries.Record(item);
          if (item.bytes == "0") {
            gate.Pass();
            raw->Stop();  // must neither wait for itself nor deadlock
            stop_returned = true;
          }
        },
        inline_delivery);
    raw = queue.get();
    queue->Start(1, {});
    std::thread writer([&] {
      Push(*queue, "0");
      for (int i = 1; i < 10; ++i)
        Push(*queue, std::to_string(i));
    });
    ASSERT_TRUE(gate.WaitEntered());
    gate.Open();
    ASSERT_TRUE(WaitFor([&] { return stop_returned.load(); }, kDeadline));
    writer.join();
    Push(*queue, "late");
    // The delivery thread holds the queue until it ends: once the queue is gone, nothing can
    // be delivered any more.
    std::weak_ptr<DeliveryQueue> weak = queue;
    queue.reset();
    ASSERT_TRUE(WaitFor([&] { return weak.expired(); }, kDeadline));
    EXPECT_EQ(deliveries.Payloads(), std::vector<std::string>{"0"});
  }
}

TEST(DeliveryQueueTest, NothingIsDeliveredAfterStopReturns) {
  for (const bool inline_delivery : {false, true}) {
    SCOPED_TRACE(inline_delivery ? "inline" : "queued");
    std::atomic<bool> stopped{false};
    std::atomic<int> delivered{0};
    std::atomic<int> late{0};
    auto queue = std::make_shared<DeliveryQueue>(
        "t", DeliveryQueue::Limits{}, CopyBytes,
        [&](DeliveryItem&) {
          if (stopped)
            ++late;
          ++delivered;
        },
        inline_delivery);
    queue->Start(2, {});
    std::atomic<bool> done{false};
    std::vector<std::thread> writers;
    for (int w = 0; w < 2; ++w) {
      writers.emplace_back([&] {
        for (int i = 0; !done; ++i)
          Push(*queue, std::to_string(i));
      });
    }
    ASSERT_TRUE(WaitFor([&] { return delivered >= 100; }, kDeadline));
    queue->Stop();
    stopped = true;
    for (int i = 0; i < 100; ++i)
      Push(*queue, "after");
    done = true;
    for (auto& t : writers)
      t.join();
    EXPECT_EQ(late, 0);
  }
}

// One writer's samples through the network and a direct path: each is delivered once, in
// order, whichever way the writer sends them.
TEST(DeliveryQueueTest, TwoPathsOfOneWriterDeliverEachSampleOnce) {
  constexpr uint64_t kWriter = 7;
  for (const bool network_carries_all : {false, true}) {
    SCOPED_TRACE(network_carries_all ? "the network carries all" : "the direct path takes over");
    Deliveries deliveries;
    PullReader network(kWriter, false);
    PullReader direct(kWriter, true);
    auto queue =
        std::make_shared<DeliveryQueue>("t", DeliveryQueue::Limits{}, CopyBytes,
                                        [&](DeliveryItem& item) { deliveries.Record(item); });
    queue->Start(1, {&network, &direct});
    // Both readers are taken from in every round: each step waits until both are empty.
    auto step = [&] {
      queue->OnReadable();
      ASSERT_TRUE(WaitFor([&] { return network.Empty() && direct.Empty(); }, kDeadline));
    };
    std::atomic<bool> started{false};
    queue->DirectPathOpening(kWriter, network_carries_all, [&](uint64_t* from) {
      *from = 3;
      return started.load();
    });
    network.AddNumbers(0, 2);  // before the switch
    step();
    started = true;
    direct.AddNumbers(3, 4);
    step();
    EXPECT_EQ(queue->OtherPathReached(kWriter), 3u);
    if (network_carries_all) {
      // The direct path skipped 5 and 6; the network brings them and the rest again.
      network.AddNumbers(3, 6);
      direct.AddNumbers(7, 7);
      step();
      network.AddNumbers(7, 8);
      step();
      EXPECT_EQ(queue->OtherPathReached(kWriter), 9u);
    } else {
      // Copies sent for other readers, or in flight at the switch.
      network.AddNumbers(3, 4);
      direct.AddNumbers(5, 8);
      step();
    }
    // After the direct path closed, copies still in flight are not delivered twice.
    queue->DirectPathClosed(kWriter);
    network.AddNumbers(network_carries_all ? 8 : 9, 10);
    step();
    ASSERT_TRUE(WaitFor([&] { return deliveries.Count() >= 11; }, kDeadline));
    queue->Stop();
    EXPECT_EQ(deliveries.Payloads(), Numbers(0, 10));
  }
}

}  // namespace
