// The manifest is a process-wide singleton: every test starts with a Load of its own.
#include "tarvikdds/application/manifest.h"

#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_environment.h"

namespace {

using tarvik::quessa::Manifest;
using Events = std::vector<std::vector<std::string>>;

Manifest& M() {
  return *Manifest::GetInstance();
}

std::string Write(const std::string& content) {
  static int n = 0;
  return korvan_test::WriteScratchFile("manifest_" + std::to_string(n++) + ".json", content);
}

// The error text after the location prefix, or a marker when Load did not fail as it should.
std::string LoadFailure(const std::string& path) {
  try {
    M().Load(path);
  } catch (const std::runtime_error& e) {
    static const std::regex prefix(R"(^application/manifest\.cc : Load @line [0-9]+ )");
    const std::string what = e.what();
    std::smatch match;
    if (!std::regex_search(what, match, prefix))
      return "<unexpected prefix> " + what;
    return match.suffix();
  }
  return "<loaded>";
}

// Loads a manifest holding only "old", so a test can see that a later Load discards it.
void LoadOld() {
  M().Load(Write(R"({"apps": [{"name": "old"}]})"));
  ASSERT_NE(M().GetItgAppConfig("old"), nullptr);
}

TEST(ManifestTest, ReadsEveryApplicationWithItsSettings) {
  M().Load(Write(R"({"version": 2, "apps": [
      {"name": "planner", "interval": 100, "Events": [["x"]]},
      {"name": "fusion", "events": [["lidar", "camera"], [], ["imu"]], "extra": {}},
      {"name": "idle", "interval": 2147483647, "events": [[]]},
      {"name": "early", "interval": -2147483648},
      {"name": "split
name"}]})"));

  const Manifest::ItgAppConfig* planner = M().GetItgAppConfig("planner");
  ASSERT_NE(planner, nullptr);
  EXPECT_EQ(planner->name, "planner");
  EXPECT_EQ(planner->interval, 100);
  EXPECT_TRUE(planner->events.empty());
  EXPECT_EQ(M().GetItgAppConfig("planner"), planner);

  const Manifest::ItgAppConfig* fusion = M().GetItgAppConfig("fusion");
  ASSERT_NE(fusion, nullptr);
  EXPECT_EQ(fusion->interval, -1);
  EXPECT_EQ(fusion->events, (Events{{"lidar", "camera"}, {"imu"}}));

  ASSERT_NE(M().GetItgAppConfig("idle"), nullptr);
  EXPECT_EQ(M().GetItgAppConfig("idle")->interval, 2147483647);
  EXPECT_TRUE(M().GetItgAppConfig("idle")->events.empty());
  ASSERT_NE(M().GetItgAppConfig("early"), nullptr);
  EXPECT_EQ(M().GetItgAppConfig("early")->interval, -2147483647 - 1);
  // Lines are joined without a separator.
  EXPECT_NE(M().GetItgAppConfig("splitname"), nullptr);
}

TEST(ManifestTest, LookupsAreExact) {
  M().Load(Write(R"({"apps": [{"name": "planner"}]})"));
  EXPECT_NE(M().GetItgAppConfig("planner"), nullptr);
  for (const char* name : {"Planner", "PLANNER", "planner ", "plan", ""})
    EXPECT_EQ(M().GetItgAppConfig(name), nullptr) << name;
}

TEST(ManifestTest, LaterLoadReplacesEarlierOneEvenWhenItFails) {
  M().Load(Write(R"({"apps": [{"name": "a"}, {"name": "b"}]})"));
  M().Load(Write(R"({"apps": [{"name": "c"}]})"));
  EXPECT_EQ(M().GetItgAppConfig("a"), nullptr);
  EXPECT_EQ(M().GetItgAppConfig("b"), nullptr);
  EXPECT_NE(M().GetItgAppConfig("c"), nullptr);

  EXPECT_EQ(LoadFailure(Write(R"({"apps": [{"name": "d"}, {"name": ""}]})")),
            "App name should not be blank");
  EXPECT_EQ(M().GetItgAppConfig("c"), nullptr);
  EXPECT_NE(M().GetItgAppConfig("d"), nullptr);

  M().Load(Write(R"({"apps": []})"));
  EXPECT_EQ(M().GetItgAppConfig("d"), nullptr);
}

TEST(ManifestTest, MissingFileNamesThePathAndEmptiesTheManifest) {
  LoadOld();
  const std::string path = korvan_test::TestScratchDirectory() + "/no_such_manifest.json";
  EXPECT_EQ(LoadFailure(path), "File does not exists: " + path);
  EXPECT_EQ(M().GetItgAppConfig("old"), nullptr);
}

// Over the size limit the file is not read at all: refused like a file that cannot be opened,
// with an error line that gives the reason.
TEST(ManifestTest, FileAboveTheSizeLimitIsRefusedUnread) {
  const std::string head = R"({"apps": [{"name": "big"}]})";
  std::string content = head + std::string(Manifest::kMaxFileSize - head.size(), '\n');
  M().Load(Write(content));
  EXPECT_NE(M().GetItgAppConfig("big"), nullptr);

  korvan_test::LogCapture log(2);
  LoadOld();
  const std::string path = Write(content + " ");
  EXPECT_EQ(LoadFailure(path), "File does not exists: " + path);
  EXPECT_EQ(M().GetItgAppConfig("old"), nullptr);
  EXPECT_EQ(log.Count("manifest '" + path + "': 1048577 bytes, above the limit of 1048576"), 1u);

  LoadOld();
  EXPECT_EQ(LoadFailure("/dev/zero"), "File does not exists: /dev/zero");
  EXPECT_EQ(M().GetItgAppConfig("old"), nullptr);
  EXPECT_EQ(log.Count("manifest '/dev/zero': more than 1048576 bytes"), 1u);
}

TEST(ManifestTest, DocumentWithoutUsableAppsEmptiesTheManifest) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "Missing required field: apps"},
      {" \n\t\n", "Missing required field: apps"},
      {R"({"apps": [)", "Missing required field: apps"},
      {R"({"apps": []} {})", "Missing required field: apps"},
      {R"({"Apps": []})", "Missing required field: apps"},
      {"[]", "Missing required field: apps"},
      {R"([{"apps": []}])", "Missing required field: apps"},
      {R"("apps")", "Missing required field: apps"},
      {"null", "Missing required field: apps"},
      {R"({"apps": {}})", "Invalid field type: apps must be an array"},
      {R"({"apps": "planner"})", "Invalid field type: apps must be an array"},
      {R"({"apps": null})", "Invalid field type: apps must be an array"},
  };
  for (const auto& [content, text] : cases) {
    LoadOld();
    EXPECT_EQ(LoadFailure(Write(content)), text) << content;
    EXPECT_EQ(M().GetItgAppConfig("old"), nullptr) << content;
  }
}

// A bad element stops the load there: "first" stays, the bad one and "last" are not stored.
TEST(ManifestTest, BadApplicationKeepsTheOnesBeforeIt) {
  const std::string name_type = "Invalid field type: name of apps[1] must be a string";
  const std::string integer = "Invalid field type: interval of app bad must be an integer";
  const std::string range =
      "Invalid field type: interval of app bad must be within the signed 32-bit range";
  const std::string events =
      "Invalid field type: events of app bad must be an array of arrays of strings";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {R"({"interval": 1})", "Missing required field: name"},
      {R"({"Name": "bad"})", "Missing required field: name"},
      {R"({"name": ""})", "App name should not be blank"},
      {R"({"name": "\u0000bad"})", "App name should not be blank"},
      {R"({"name": "first"})", "Duplicate app: first"},
      {R"({"name": 5})", name_type},
      {R"({"name": null})", name_type},
      {R"({"name": ["bad"]})", name_type},
      {"7", "Invalid field type: apps[1] must be an object"},
      {R"(["bad"])", "Invalid field type: apps[1] must be an object"},
      {R"({"name": "bad", "interval": "100"})", integer},
      {R"({"name": "bad", "interval": 1.5})", integer},
      {R"({"name": "bad", "interval": 100.0})", integer},
      {R"({"name": "bad", "interval": 1e2})", integer},
      {R"({"name": "bad", "interval": true})", integer},
      {R"({"name": "bad", "interval": null})", integer},
      {R"({"name": "bad", "interval": 2147483648})", range},
      {R"({"name": "bad", "interval": -2147483649})", range},
      {R"({"name": "bad", "interval": 18446744073709551615})", range},
      {R"({"name": "bad", "events": "lidar"})", events},
      {R"({"name": "bad", "events": ["lidar"]})", events},
      {R"({"name": "bad", "events": [["lidar", 1]]})", events},
      {R"({"name": "bad", "events": [["imu"], [["lidar"]]]})", events},
      {R"({"name": "bad", "events": {"set": ["lidar"]}})", events},
      {R"({"name": "bad", "events": null})", events},
  };
  for (const auto& [element, text] : cases) {
    const std::string content =
        R"({"apps": [{"name": "first", "interval": 7}, )" + element + R"(, {"name": "last"}]})";
    EXPECT_EQ(LoadFailure(Write(content)), text) << element;
    const Manifest::ItgAppConfig* first = M().GetItgAppConfig("first");
    ASSERT_NE(first, nullptr) << element;
    EXPECT_EQ(first->interval, 7);
    EXPECT_EQ(M().GetItgAppConfig("bad"), nullptr) << element;
    EXPECT_EQ(M().GetItgAppConfig("last"), nullptr) << element;
  }
}

}  // namespace
