#include "infra/mutex.h"

#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "support/child_process.h"

namespace {

using korvan_test::WaitFor;
using tarvik::korvan::inf::CondVar;
using tarvik::korvan::inf::kAdoptLock;
using tarvik::korvan::inf::Mutex;
using tarvik::korvan::inf::MutexLock;
using tarvik::korvan::inf::ReaderLock;
using tarvik::korvan::inf::SharedMutex;
using tarvik::korvan::inf::WriterLock;
using namespace std::chrono_literals;

// Whether another thread finds `mu` free.
bool FreeElsewhere(Mutex* mu) {
  bool free = false;
  std::thread([&] {
    if (mu->TryLock()) {
      mu->Unlock();
      free = true;
    }
  }).join();
  return free;
}

TEST(MutexTest, ScopedLocksHoldReleaseAndAdopt) {
  Mutex mu;
  {
    MutexLock lock(&mu);
    EXPECT_FALSE(FreeElsewhere(&mu));
    lock.Release();
    EXPECT_TRUE(FreeElsewhere(&mu));
  }  // released once only
  EXPECT_TRUE(FreeElsewhere(&mu));
  mu.Lock();
  {
    MutexLock adopted(&mu, kAdoptLock);
    EXPECT_FALSE(FreeElsewhere(&mu));
  }
  EXPECT_TRUE(FreeElsewhere(&mu));
}

TEST(MutexTest, WaitsHoldTheLockAgainWhenTheyReturn) {
  Mutex mu;
  CondVar cv;
  MutexLock lock(&mu);
  EXPECT_FALSE(cv.WaitFor(&mu, 1ms));
  EXPECT_FALSE(FreeElsewhere(&mu));
  EXPECT_FALSE(cv.WaitUntil(&mu, std::chrono::steady_clock::now()));
  EXPECT_FALSE(FreeElsewhere(&mu));
}

TEST(MutexTest, ASignalWakesAWaiterWithTheLockHeld) {
  Mutex mu;
  CondVar cv;
  bool ready = false;  // guarded by mu
  std::atomic<bool> woke{false};
  std::thread waiter([&] {
    MutexLock lock(&mu);
    while (!ready)
      cv.Wait(&mu);
    woke = true;
  });
  {
    MutexLock lock(&mu);
    ready = true;
  }
  cv.SignalAll();
  waiter.join();
  EXPECT_TRUE(woke);

  // A waiter with a far deadline is woken by the signal, not by the deadline.
  ready = false;
  std::atomic<bool> signalled{false};
  std::thread timed([&] {
    MutexLock lock(&mu);
    const auto deadline = std::chrono::steady_clock::now() + 1h;
    while (!ready && cv.WaitUntil(&mu, deadline)) {
    }
    signalled = ready;
  });
  {
    MutexLock lock(&mu);
    ready = true;
  }
  cv.Signal();
  timed.join();
  EXPECT_TRUE(signalled);
}

TEST(MutexTest, ReadersShareWritersExclude) {
  SharedMutex mu;
  std::atomic<bool> reading{false};
  std::atomic<bool> done{false};
  std::thread reader([&] {
    ReaderLock lock(&mu);
    reading = true;
    WaitFor([&] { return done.load(); }, 10s);
  });
  ASSERT_TRUE(WaitFor([&] { return reading.load(); }, 10s));
  {
    ReaderLock second(&mu);  // would block for good if readers excluded each other
  }
  std::atomic<bool> wrote{false};
  std::thread writer([&] {
    WriterLock lock(&mu);
    wrote = true;
  });
  EXPECT_FALSE(wrote);
  done = true;
  reader.join();
  writer.join();
  EXPECT_TRUE(wrote);
}

}  // namespace
