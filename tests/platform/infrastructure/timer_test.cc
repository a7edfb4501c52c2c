#include "infra/timer.h"

#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "support/child_process.h"

namespace {

using korvan_test::WaitFor;
using tarvik::korvan::Timer;
using namespace std::chrono_literals;

// Sets `*ended` when the calling thread ends. Its thread_local objects are destroyed before a
// join of it returns, so after that no more calls can come from it.
void SignalWhenThisThreadEnds(std::atomic<bool>* ended) {
  struct Watch {
    std::atomic<bool>* ended = nullptr;
    ~Watch() {
      if (ended != nullptr)
        ended->store(true);
    }
  };
  thread_local Watch watch;
  watch.ended = ended;
}

TEST(TimerTest, CallsRepeatedlyUntilStopped) {
  Timer timer;
  std::atomic<int> calls{0};
  std::atomic<bool> ended{false};
  ASSERT_TRUE(timer.Start(
      5,
      [&] {
        SignalWhenThisThreadEnds(&ended);
        ++calls;
      },
      true, true));
  EXPECT_TRUE(timer.IsRunning());
  ASSERT_TRUE(WaitFor([&] { return calls >= 5; }, 5s));
  timer.Stop();
  EXPECT_FALSE(timer.IsRunning());
  EXPECT_TRUE(ended);  // the thread is gone: no call can follow
}

TEST(TimerTest, OneShotCallsOnce) {
  Timer timer;
  std::atomic<int> calls{0};
  std::atomic<bool> ended{false};
  timer.Start(
      1,
      [&] {
        SignalWhenThisThreadEnds(&ended);
        ++calls;
      },
      false, false);
  // A one-shot timer's thread ends by itself after the call.
  ASSERT_TRUE(WaitFor([&] { return ended.load(); }, 5s));
  EXPECT_EQ(calls, 1);
}

TEST(TimerTest, EmptyCallbackIsRefused) {
  Timer timer;
  EXPECT_FALSE(timer.Start(10, nullptr));
  EXPECT_FALSE(timer.IsRunning());
}

TEST(TimerTest, StopWaitsForARunningCallback) {
  Timer timer;
  std::atomic<bool> entered{false};
  std::atomic<bool> release{false};
  std::atomic<bool> finished{false};
  timer.Start(1, [&] {
    if (entered.exchange(true))
      return;
    WaitFor([&] { return release.load(); }, 5s);
    finished = true;
  });
  ASSERT_TRUE(WaitFor([&] { return entered.load(); }, 5s));
  std::atomic<bool> finished_when_stopped{false};
  std::thread stopper([&] {
    timer.Stop();
    finished_when_stopped = finished.load();
  });
  // Stop has begun once the timer no longer counts as running; only then is the callback let
  // go, so a Stop that did not wait would return before it finished.
  const bool stopping = WaitFor([&] { return !timer.IsRunning(); }, 5s);
  release = true;
  stopper.join();
  EXPECT_TRUE(stopping);
  EXPECT_TRUE(finished_when_stopped);
}

TEST(TimerTest, StopFromInsideTheCallbackDoesNotDeadlock) {
  Timer timer;
  std::atomic<int> calls{0};
  std::atomic<bool> ended{false};
  timer.Start(1, [&] {
    SignalWhenThisThreadEnds(&ended);
    ++calls;
    timer.Stop();
  });
  ASSERT_TRUE(WaitFor([&] { return !timer.IsRunning(); }, 5s));
  // The detached thread ends once the callback returns.
  ASSERT_TRUE(WaitFor([&] { return ended.load(); }, 5s));
  EXPECT_EQ(calls, 1);
}

TEST(TimerTest, RestartReplacesTheRunningTimer) {
  Timer timer;
  std::atomic<int> first{0};
  std::atomic<int> second{0};
  timer.Start(1, [&] { ++first; });
  ASSERT_TRUE(WaitFor([&] { return first > 0; }, 5s));
  timer.Start(1, [&] { ++second; });
  const int first_after_restart = first;
  ASSERT_TRUE(WaitFor([&] { return second > 3; }, 5s));
  EXPECT_EQ(first, first_after_restart);
}

TEST(TimerTest, ZeroPeriodRunsBackToBackWithoutStarvingOthers) {
  Timer timer;
  std::atomic<long> calls{0};
  timer.Start(0, [&] { ++calls; });
  // Another thread still gets to run and count while the timer spins.
  std::atomic<long> other{0};
  std::thread worker([&] {
    for (int i = 0; i < 1000; ++i) {
      ++other;
      std::this_thread::yield();
    }
  });
  worker.join();
  ASSERT_TRUE(WaitFor([&] { return calls > 1000; }, 5s));
  timer.Stop();
  EXPECT_EQ(other, 1000);
}

}  // namespace
