#include "infra/async.h"

#include <atomic>
#include <chrono>

#include <gtest/gtest.h>

#include "support/child_process.h"

namespace {

namespace async = tarvik::korvan::async;
using namespace std::chrono_literals;

TEST(AsyncTest, InstanceIsSharedAndRunsTasks) {
  async::Executor* executor = async::Instance();
  ASSERT_NE(executor, nullptr);
  EXPECT_EQ(executor, async::Instance());
  EXPECT_GE(executor->ThreadCount(), 1u);
  std::atomic<int> done{0};
  for (int i = 0; i < 100; ++i)
    EXPECT_TRUE(executor->Post([&] { ++done; }));
  EXPECT_TRUE(korvan_test::WaitFor([&] { return done == 100; }, 5s));
  async::CleanUp();
}

TEST(AsyncTest, CleanUpStopsThePoolAndInstanceStartsItAgain) {
  async::Executor* executor = async::Instance();
  async::CleanUp();
  async::CleanUp();                     // twice is harmless
  EXPECT_FALSE(executor->Post([] {}));  // stopped, but the pointer is still valid
  std::atomic<bool> ran{false};
  EXPECT_TRUE(async::Instance()->Post([&] { ran = true; }));
  EXPECT_TRUE(korvan_test::WaitFor([&] { return ran.load(); }, 5s));
  async::CleanUp();
}

TEST(AsyncTest, CleanUpFromInsideATaskDoesNotDeadlock) {
  std::atomic<bool> cleaned{false};
  async::Instance()->Post([&] {
    async::CleanUp();
    cleaned = true;
  });
  EXPECT_TRUE(korvan_test::WaitFor([&] { return cleaned.load(); }, 5s));
}

}  // namespace
