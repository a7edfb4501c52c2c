#include "infra/env.h"

#include <errno.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "support/fake_env.h"
#include "support/test_environment.h"

namespace {

using tarvik::korvan::inf::Env;
using tarvik::korvan::inf::EnvWrapper;
using tarvik::korvan::inf::FileError;

class FailingAtExit : public EnvWrapper {
 public:
  FailingAtExit() : EnvWrapper(Env::Default()) {}
  int AtExit(void (*)()) override { return -1; }
};

TEST(EnvTest, ReplaceInstallsAndRestores) {
  EXPECT_EQ(Env::Current(), Env::Default());
  FailingAtExit failing;
  EXPECT_EQ(Env::Replace(&failing), Env::Default());
  EXPECT_EQ(Env::Current(), &failing);
  EXPECT_EQ(Env::Current()->AtExit(+[] {}), -1);
  korvan_test::ScopedEnv var("KORVAN_ENV_TEST_VARIABLE", "x");
  EXPECT_STREQ(Env::Current()->GetVariable("KORVAN_ENV_TEST_VARIABLE"), "x");
  EXPECT_EQ(Env::Replace(nullptr), &failing);
  EXPECT_EQ(Env::Current(), Env::Default());
}

TEST(EnvTest, ClocksAndSleep) {
  Env* env = Env::Default();
  const uint64_t start = env->NowNanos();
  env->SleepForNanos(5000000);
  const uint64_t end = env->NowNanos();
  EXPECT_GE(end - start, 5000000u);

  const uint64_t system_ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                 .count();
  const uint64_t real_ns = env->RealTimeNanos();
  EXPECT_GE(real_ns, system_ns);
  EXPECT_LT(real_ns - system_ns, 1000000000u);

  std::string host;
  ASSERT_TRUE(env->HostName(&host));
  char expected[256] = {0};
  ASSERT_EQ(::gethostname(expected, sizeof(expected) - 1), 0);
  EXPECT_EQ(host, expected);
}

TEST(EnvTest, ReadFileReadsWholeFilesUpToTheLimit) {
  Env* env = Env::Default();
  std::string big(40000, 'x');  // more than one read
  big[0] = '{';
  big.back() = '\0';
  const std::string path = korvan_test::WriteScratchFile("env_read.bin", big);
  std::string contents = "stale";
  FileError error;
  ASSERT_TRUE(env->ReadFile(path, big.size(), &contents, &error));
  EXPECT_EQ(contents, big);
  EXPECT_EQ(error.step, FileError::kNone);

  EXPECT_FALSE(env->ReadFile(path, big.size() - 1, &contents, &error));
  EXPECT_EQ(error.step, FileError::kTooLarge);

  const std::string empty = korvan_test::WriteScratchFile("env_empty.bin", "");
  ASSERT_TRUE(env->ReadFile(empty, 0, &contents, &error));
  EXPECT_TRUE(contents.empty());
}

TEST(EnvTest, ReadFileSaysWhichStepFailed) {
  Env* env = Env::Default();
  std::string contents;
  FileError error;
  EXPECT_FALSE(env->ReadFile(korvan_test::ScratchPath("env_missing"), 100, &contents, &error));
  EXPECT_EQ(error.step, FileError::kOpen);
  EXPECT_EQ(error.error_number, ENOENT);

  EXPECT_FALSE(env->ReadFile(korvan_test::TestScratchDirectory(), 100, &contents, &error));
  EXPECT_EQ(error.step, FileError::kIsDirectory);

  if (::geteuid() != 0) {  // root reads anything
    const std::string locked = korvan_test::WriteScratchFile("env_locked.bin", "secret");
    ASSERT_EQ(::chmod(locked.c_str(), 0), 0);
    EXPECT_FALSE(env->ReadFile(locked, 100, &contents, &error));
    EXPECT_EQ(error.step, FileError::kOpen);
    EXPECT_EQ(error.error_number, EACCES);
  }
}

TEST(EnvTest, FakeClockMovesOnlyWhenTold) {
  const Env* real = Env::Current();
  {
    korvan_test::FakeClockEnv fake;
    EXPECT_EQ(Env::Current(), &fake);
    Env* env = Env::Current();
    const uint64_t now = env->NowNanos();
    const uint64_t wall = env->RealTimeNanos();
    EXPECT_EQ(env->NowNanos(), now);
    fake.Advance(std::chrono::milliseconds(300));
    EXPECT_EQ(env->NowNanos(), now + 300000000);
    env->SleepForNanos(7);  // returns at once
    EXPECT_EQ(env->NowNanos(), now + 300000007);
    EXPECT_EQ(env->RealTimeNanos(), wall + 300000007);
    EXPECT_EQ(fake.slept_nanos(), 7u);
  }
  EXPECT_EQ(Env::Current(), real);
}

}  // namespace
