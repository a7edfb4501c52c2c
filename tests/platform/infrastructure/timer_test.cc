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

TEST(TimerTest, CallsRepeatedlyUntilStopped) {
  Timer timer;
  std::atomic<int> calls{0};
  ASSERT_TRUE(timer.Start(
      5, [&] { ++calls; }, true, true));
  EXPECT_TRUE(timer.IsRunning());
  ASSERT_TRUE(WaitFor([&] { return calls >= 5; }, 5s));
  timer.Stop();
  EXPECT_FALSE(timer.IsRunning());
  const int after_stop = calls;
  std::this_thread::sleep_for(30ms);
  EXPECT_EQ(calls, after_stop);
}

TEST(TimerTest, OneShotCallsOnce) {
  Timer timer;
  std::atomic<int> calls{0};
  timer.Start(
      1, [&] { ++calls; }, false, false);
  ASSERT_TRUE(WaitFor([&] { return calls == 1; }, 5s));
  std::this_thread::sleep_for(20ms);
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
  std::atomic<bool> finished{false};
  timer.Start(1, [&] {
    if (entered.exchange(true))
      return;
    std::this_thread::sleep_for(100ms);
    finished = true;
  });
  ASSERT_TRUE(WaitFor([&] { return entered.load(); }, 5s));
  timer.Stop();
  EXPECT_TRUE(finished);
}

TEST(TimerTest, StopFromInsideTheCallbackDoesNotDeadlock) {
  Timer timer;
  std::atomic<int> calls{0};
  timer.Start(1, [&] {
    ++calls;
    timer.Stop();
  });
  ASSERT_TRUE(WaitFor([&] { return !timer.IsRunning(); }, 5s));
  std::this_thread::sleep_for(20ms);
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
