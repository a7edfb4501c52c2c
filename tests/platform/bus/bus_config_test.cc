#include <gtest/gtest.h>

#include "korvan/bus/bus_status.h"
#include "korvan/bus/korvan_bus_manager.h"
#include "support/test_environment.h"

namespace {

using korvan_test::LogCapture;
using korvan_test::WriteScratchFile;
using tarvik::korvan::bus::KorvanBusConfig;
using tarvik::korvan::bus::KorvanBusManager;
using tarvik::korvan::bus::TopicConfig;
namespace bus = tarvik::korvan::bus;

// Loads `json` from a file; returns the status and expects exactly one error line that names
// the file and contains `problem`.
int LoadExpectingOneLine(const std::string& json, const std::string& problem) {
  std::string path = WriteScratchFile("bus.json", json);
  LogCapture log(2);
  KorvanBusManager manager;
  int status = manager.initial(path, "app");
  auto lines = log.Matching("bus configuration '" + path + "'");
  EXPECT_EQ(lines.size(), 1u) << json;
  if (!lines.empty()) {
    EXPECT_NE(lines[0].find(problem), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("[korvan_bus]"), std::string::npos) << lines[0];
  }
  EXPECT_FALSE(manager.isInitialised());
  return status;
}

TEST(BusConfigTest, UnreadableFiles) {
  LogCapture log(2);
  KorvanBusManager manager;
  EXPECT_EQ(manager.initial("/nonexistent/korvan.json", "app"), bus::kBusConfigUnreadable);
  EXPECT_EQ(log.Count("bus configuration '/nonexistent/korvan.json': cannot open"), 1u);
  EXPECT_EQ(manager.initial("", "app"), bus::kBusConfigUnreadable);
  EXPECT_EQ(log.Count("bus configuration '': no file name given"), 1u);
  EXPECT_EQ(manager.initial(korvan_test::TestScratchDirectory(), "app"),
            bus::kBusConfigUnreadable);  // a directory
}

// A configuration file is small; anything beyond the limit is refused before it is parsed, so
// a huge or endless file (a device, a runaway generator) costs neither time nor memory.
TEST(BusConfigTest, FilesAboveTheSizeLimitAreRefusedUnread) {
  const std::string head = R"({"topics": [{"name": "a"}]})";
  const size_t limit = 1048576;
  std::string at_limit = head + std::string(limit - head.size(), ' ');
  KorvanBusManager manager;
  EXPECT_EQ(manager.initial(WriteScratchFile("bus.json", at_limit), "app"), 0);

  EXPECT_EQ(LoadExpectingOneLine(at_limit + " ", "1048577 bytes, above the limit of 1048576"),
            bus::kBusConfigTooLarge);
  LogCapture log(2);
  KorvanBusManager other;
  EXPECT_EQ(other.initial("/dev/zero", "app"), bus::kBusConfigTooLarge);
  EXPECT_EQ(log.Count("bus configuration '/dev/zero': more than 1048576 bytes"), 1u);
  EXPECT_STREQ(bus::BusStatusText(bus::kBusConfigTooLarge), "configuration too large");
}

TEST(BusConfigTest, MalformedFiles) {
  EXPECT_EQ(LoadExpectingOneLine("", "file is empty"), bus::kBusConfigMalformed);
  EXPECT_EQ(LoadExpectingOneLine("  \n ", "file is empty"), bus::kBusConfigMalformed);
  EXPECT_EQ(LoadExpectingOneLine("{\"topics\": [", "not a bus configuration"),
            bus::kBusConfigMalformed);
  EXPECT_EQ(LoadExpectingOneLine("[1, 2]", "not a bus configuration"), bus::kBusConfigMalformed);
  EXPECT_EQ(LoadExpectingOneLine("{\"topicz\": []}", "not a bus configuration"),
            bus::kBusConfigMalformed);
  EXPECT_EQ(LoadExpectingOneLine("{\"topics\": [{\"name\": 5}]}", "not a bus configuration"),
            bus::kBusConfigMalformed);
}

TEST(BusConfigTest, InvalidValues) {
  EXPECT_EQ(LoadExpectingOneLine(R"({"topics":[{"name":"a","transport":"carrier-pigeon"}]})",
                                 "unknown transport 'carrier-pigeon'"),
            bus::kBusConfigInvalid);
  EXPECT_EQ(
      LoadExpectingOneLine(R"({"topics":[{"name":"a","qos":{"history":3}}]})", "qos.history 3"),
      bus::kBusConfigInvalid);
  EXPECT_EQ(LoadExpectingOneLine(R"({"topics":[{"name":"a","qos":{"durability":0}}]})",
                                 "qos.durability 0"),
            bus::kBusConfigInvalid);
  EXPECT_EQ(LoadExpectingOneLine(R"({"topics":[{"name":"a","qos":{"reliability":-1}}]})",
                                 "qos.reliability -1"),
            bus::kBusConfigInvalid);
  EXPECT_EQ(LoadExpectingOneLine(R"({"topics":[{"name":"a","qos":{"depth":0}}]})", "qos.depth 0"),
            bus::kBusConfigInvalid);
  EXPECT_EQ(LoadExpectingOneLine(R"({"topics":[{"name":"a"},{"name":"a"}]})", "configured twice"),
            bus::kBusConfigInvalid);
  EXPECT_EQ(LoadExpectingOneLine(R"({"topics":[{"qos":{}}]})", "has no name"),
            bus::kBusConfigInvalid);
  EXPECT_EQ(LoadExpectingOneLine(R"({"lumisConfig":{"discoveryIp":"eth0"}})",
                                 "'eth0' is not an IP address"),
            bus::kBusConfigInvalid);
  EXPECT_EQ(LoadExpectingOneLine(R"({"lumisConfig":{"port":70000}})", "port base 70000"),
            bus::kBusConfigInvalid);
  EXPECT_EQ(LoadExpectingOneLine(R"({"lumisConfig":{"domainId":233}})", "domain id 233"),
            bus::kBusConfigInvalid);
  EXPECT_EQ(LoadExpectingOneLine(R"({"defaultTransport":"udp"})", "default transport 'udp'"),
            bus::kBusConfigInvalid);
  EXPECT_EQ(LoadExpectingOneLine(R"({"topics":[{"name":"a","qos":{"maxSamples":0}}]})",
                                 "qos.max_samples 0 is outside 1..1000000"),
            bus::kBusConfigInvalid);
  EXPECT_EQ(LoadExpectingOneLine(R"({"topics":[{"name":"a","qos":{"max_samples":1000001}}]})",
                                 "qos.max_samples 1000001"),
            bus::kBusConfigInvalid);
}

TEST(BusConfigTest, TopicEntriesAreFoundByName) {
  std::string path = WriteScratchFile("bus.json", R"({
    "default_transport": "local",
    "topics": [
      {"name": "camera/front", "transport": "lumis",
       "qos": {"history": 2, "durability": 2, "reliability": 2}},
      {"name": "odom", "partition": "left", "qos": {"depth": 3}}
    ]})");
  KorvanBusManager manager;
  ASSERT_EQ(manager.initial(path, "robot"), 0);
  EXPECT_TRUE(manager.isInitialised());
  EXPECT_EQ(manager.config().app_name(), "robot");

  TopicConfig config;
  ASSERT_TRUE(manager.getTopicConfigByName("camera/front", "", &config));
  EXPECT_EQ(config.qos().history(), 2);
  EXPECT_EQ(config.qos().durability(), 2);
  EXPECT_EQ(config.transport(), "lumis");
  ASSERT_TRUE(manager.getTopicConfigByName("odom", "left", &config));
  EXPECT_EQ(config.qos().depth(), 3u);
  EXPECT_FALSE(manager.getTopicConfigByName("odom", "right", &config));

  TopicConfig untouched;
  untouched.set_name("keep");
  EXPECT_FALSE(manager.getTopicConfigByName("camera", "", &untouched));
  EXPECT_EQ(untouched.name(), "keep");
}

TEST(BusConfigTest, ConfigurationMessageIsValidatedToo) {
  KorvanBusManager manager;
  KorvanBusConfig config;
  config.set_default_transport("local");
  config.mutable_lumis_config()->set_discovery_ip("10.0.0.7");
  config.mutable_lumis_config()->set_port(9000);
  EXPECT_EQ(manager.initial(config), 0);
  EXPECT_EQ(manager.initialisations(), 1);

  KorvanBusManager other;
  KorvanBusConfig bad;
  bad.mutable_lumis_config()->set_locator_ip("not-an-address");
  LogCapture log(2);
  EXPECT_EQ(other.initial(bad), bus::kBusConfigInvalid);
  EXPECT_EQ(log.Count("locator address 'not-an-address'"), 1u);
}

}  // namespace
