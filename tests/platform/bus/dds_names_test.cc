#include "dds/dds_names.h"

#include <set>

#include <gtest/gtest.h>

#include "dds/cyclone_config.h"
#include "support/test_environment.h"

namespace {

using tarvik::korvan::bus::DdsTopicName;
using tarvik::korvan::bus::LumisConfig;
using tarvik::korvan::bus::MakeCycloneSettings;

TEST(DdsNamesTest, ValidNamesPassThroughOthersAreEscaped) {
  EXPECT_EQ(DdsTopicName("camera/front"), "camera/front");
  EXPECT_EQ(DdsTopicName("nav_S2/post_init"), "nav_S2/post_init");
  EXPECT_EQ(DdsTopicName("x__SRV__REQUEST"), "x__SRV__REQUEST");
  EXPECT_EQ(DdsTopicName("a.b"), "korvan_esc/612e62");
  EXPECT_EQ(DdsTopicName("1abc"), "korvan_esc/31616263");
  EXPECT_EQ(DdsTopicName(""), "korvan_esc/");
  EXPECT_EQ(DdsTopicName("DCPSPublication").rfind("korvan_esc/", 0), 0u);
}

TEST(DdsNamesTest, MappingIsInjective) {
  // Names that would collide under a naive escape: the escaped form of one written literally.
  const std::set<std::string> names = {
      "a.b", "korvan_esc/612e62", "a_2eb", "a-b", "a b", "korvan_esc/", "", "a/b", "ä", "x", "X",
      "_x"};
  std::set<std::string> mapped;
  for (const auto& n : names)
    mapped.insert(DdsTopicName(n));
  EXPECT_EQ(mapped.size(), names.size());
}

TEST(CycloneConfigTest, DefaultsStayOnLoopbackWithUnicastDiscovery) {
  korvan_test::ScopedEnv domain("KORVAN_DOMAIN_ID", "17");
  auto settings = MakeCycloneSettings(LumisConfig());
  EXPECT_EQ(settings.domain_id, 17u);
  EXPECT_NE(settings.xml.find("<NetworkInterface address=\"127.0.0.1\"/>"), std::string::npos);
  EXPECT_NE(settings.xml.find("<AllowMulticast>false</AllowMulticast>"), std::string::npos);
  EXPECT_NE(settings.xml.find("<Peer address=\"127.0.0.1\"/>"), std::string::npos);
  // Cyclone hands out the indices below the maximum: 100 of them.
  EXPECT_NE(settings.xml.find("<MaxAutoParticipantIndex>100</MaxAutoParticipantIndex>"),
            std::string::npos);
  EXPECT_EQ(settings.max_processes, 100u);
  EXPECT_NE(settings.xml.find("<Base>7400</Base>"), std::string::npos);
  EXPECT_NE(settings.xml.find("<LeaseDuration>3000 ms</LeaseDuration>"), std::string::npos);
}

TEST(CycloneConfigTest, LumisSettingsSelectInterfacePeerAndPorts) {
  LumisConfig lumis;
  lumis.set_discovery_ip("192.168.7.2");
  lumis.set_locator_ip("192.168.7.1");
  lumis.set_port(9100);
  lumis.set_domain_id(5);
  auto settings = MakeCycloneSettings(lumis);
  EXPECT_EQ(settings.domain_id, 5u);
  EXPECT_NE(settings.xml.find("<NetworkInterface address=\"192.168.7.2\"/>"), std::string::npos);
  EXPECT_NE(settings.xml.find("<AllowMulticast>true</AllowMulticast>"), std::string::npos);
  EXPECT_NE(settings.xml.find("<Peer address=\"192.168.7.1\"/>"), std::string::npos);
  EXPECT_EQ(settings.xml.find("<Peer address=\"192.168.7.2\"/>"), std::string::npos);
  EXPECT_NE(settings.xml.find("<Base>9100</Base>"), std::string::npos);
}

}  // namespace
