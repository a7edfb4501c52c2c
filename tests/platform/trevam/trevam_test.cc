#include "trevam/trevam.h"

#include <gtest/gtest.h>

#include "support/test_environment.h"

namespace {

using korvan_test::ScopedEnv;

void Reload(const char* value) {
  if (value == nullptr) {
    ::unsetenv("TREVAM_LOG_LEVEL");
  } else {
    ::setenv("TREVAM_LOG_LEVEL", value, 1);
  }
  trevam::ReloadLevels();
}

class TrevamTest : public ::testing::Test {
 protected:
  ScopedEnv saved_{"TREVAM_LOG_LEVEL", nullptr};
  void TearDown() override {
    ::unsetenv("TREVAM_LOG_LEVEL");
    trevam::ReloadLevels();
  }
};

TEST_F(TrevamTest, DefaultLetsErrorsAndWarningsThrough) {
  Reload(nullptr);
  EXPECT_TRUE(trevam::doTriggerCompare("korvan_internal", 2, true));
  EXPECT_TRUE(trevam::doTriggerCompare("korvan_internal", 3, true));
  EXPECT_FALSE(trevam::doTriggerCompare("korvan_internal", 4, true));
  EXPECT_FALSE(trevam::doTriggerCompare("anything", 5, true));
}

TEST_F(TrevamTest, PerModuleSettingsOverrideTheDefault) {
  Reload("korvan_internal=5, tarvikdds_logs=2, *=4");
  EXPECT_TRUE(trevam::doTriggerCompare("korvan_internal", 5, true));
  EXPECT_FALSE(trevam::doTriggerCompare("tarvikdds_logs", 3, true));
  EXPECT_TRUE(trevam::doTriggerCompare("other", 4, true));
  EXPECT_FALSE(trevam::doTriggerCompare("other", 5, true));
  // Without the module lookup only the default applies.
  EXPECT_FALSE(trevam::doTriggerCompare("korvan_internal", 5, false));
}

TEST_F(TrevamTest, BareNumberSetsEveryModuleAndZeroSilences) {
  Reload("5");
  EXPECT_TRUE(trevam::doTriggerCompare("x", 5, true));
  Reload("0");
  EXPECT_FALSE(trevam::doTriggerCompare("x", 2, true));
}

TEST_F(TrevamTest, MalformedEntriesAreIgnoredOthersStillApply) {
  Reload("korvan_internal=banana,=4,9,tarvikdds_logs=4");
  EXPECT_FALSE(trevam::doTriggerCompare("korvan_internal", 4, true));
  EXPECT_TRUE(trevam::doTriggerCompare("korvan_internal", 3, true));
  EXPECT_TRUE(trevam::doTriggerCompare("tarvikdds_logs", 4, true));
}

TEST_F(TrevamTest, BinaryNameIsTheProgramName) {
  EXPECT_EQ(trevam::GetBinaryName(), "trevam_test");
}

}  // namespace
