#include "infra/global_data.h"

#include <regex>
#include <set>

#include <gtest/gtest.h>

#include "infra/nenv.h"
#include "infra/system_info.h"
#include "support/test_environment.h"

namespace {

using tarvik::korvan::common::GlobalData;
namespace tarvikdds = tarvik::quessa::tarvikdds;

TEST(GlobalDataTest, UuidsAreVersion4AndDistinct) {
  const std::regex form("^[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}$");
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    std::string uuid = GlobalData::GenerateUUID();
    ASSERT_TRUE(std::regex_match(uuid, form)) << uuid;
    seen.insert(uuid);
  }
  EXPECT_EQ(seen.size(), 1000u);
}

TEST(SystemInfoTest, ExecutableNameAndMonitoringSwitch) {
  EXPECT_EQ(tarvikdds::GetCurrentEXE(), "infrastructure_test");
  tarvikdds::SetMonitoringEnabled(true);
  EXPECT_TRUE(tarvikdds::IsMonitoringEnabled());
  tarvikdds::SetMonitoringEnabled(false);
  EXPECT_FALSE(tarvikdds::IsMonitoringEnabled());
}

TEST(SystemInfoTest, SocIndexComesFromTheEnvironment) {
  // Read once per process; this test runs in a process of its own.
  korvan_test::ScopedEnv soc("KORVAN_SOC_INDEX", "3");
  EXPECT_EQ(tarvikdds::GetCurrentSOC(), 3u);
}

TEST(NEnvTest, LabelFromTheEnvironment) {
  korvan_test::ScopedEnv label("KORVAN_ENV_LABEL", "bench-7");
  EXPECT_EQ(tarvik::korvan::inf::NEnv::Instance()->Label(), "bench-7");
}

}  // namespace
