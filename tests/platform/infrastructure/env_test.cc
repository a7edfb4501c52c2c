#include "infra/env.h"

#include <gtest/gtest.h>

#include "support/test_environment.h"

namespace {

using tarvik::korvan::inf::Env;
using tarvik::korvan::inf::EnvWrapper;

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

}  // namespace
