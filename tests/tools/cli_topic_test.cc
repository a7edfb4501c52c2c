// korvan node and topic commands against real processes whose types the tool was not built
// with: listing, printing, publishing, measuring, unknown names, and two descriptions of one
// type name on one topic.
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/test_environment.h"
#include "tool_runner.h"

namespace korvan_tool_test {
namespace {

using korvan_test::ChildProcess;
using std::chrono::seconds;

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Starts a peer role and waits for its READY.
std::unique_ptr<ChildProcess> StartPeer(const std::string& role,
                                        const std::vector<std::string>& args) {
  auto peer = std::make_unique<ChildProcess>(role, args);
  EXPECT_TRUE(peer->WaitForOutput("READY", seconds(60))) << peer->output();
  return peer;
}

rapidjson::Document Json(const std::string& text) {
  rapidjson::Document document;
  document.Parse(text.c_str());
  EXPECT_FALSE(document.HasParseError()) << text;
  return document;
}

TEST(ToolTopics, ListsNodesAndTopicsWithTypesAndWhereTheyRun) {
  const std::string topic = korvan_test::UniqueName("listing/readings");
  auto publisher = StartPeer("publisher", {topic, "20"});
  auto subscriber = StartPeer("subscriber", {topic});

  const ToolResult nodes = RunToolUntil({"node", "list"}, [](const ToolResult& r) {
    return Contains(r.out, "reading_source") && Contains(r.out, "reading_sink");
  });
  ASSERT_EQ(nodes.exit_code, 0) << nodes.Describe();
  EXPECT_NE(nodes.out.find(std::to_string(publisher->pid())), std::string::npos) << nodes.out;
  EXPECT_FALSE(Contains(nodes.out, "korvan_cli")) << "the tool lists itself:\n" << nodes.out;

  const ToolResult node_json = RunTool({"node", "list", "--json"});
  ASSERT_EQ(node_json.exit_code, 0) << node_json.Describe();
  const auto node_list = Json(node_json.out);
  ASSERT_TRUE(node_list.IsArray());
  EXPECT_GE(node_list.Size(), 2u);
  EXPECT_TRUE(node_list[0].HasMember("pid"));

  const ToolResult info = RunTool({"node", "info", "reading_source", "--timeout", "30"});
  ASSERT_EQ(info.exit_code, 0) << info.Describe();
  EXPECT_TRUE(Contains(info.out, topic + " [korvan.tooltest.Reading]")) << info.out;

  const ToolResult list =
      RunToolUntil({"topic", "list"}, [&](const ToolResult& r) { return Contains(r.out, topic); });
  ASSERT_EQ(list.exit_code, 0) << list.Describe();
  const ToolResult typed = RunTool({"topic", "list", "-t"});
  EXPECT_TRUE(Contains(typed.out, topic + " [korvan.tooltest.Reading]")) << typed.Describe();
  const auto topics = Json(RunTool({"topic", "list", "--json"}).out);
  ASSERT_TRUE(topics.IsArray());
  bool found = false;
  for (const auto& t : topics.GetArray()) {
    if (t["name"].GetString() == topic) {
      found = true;
      EXPECT_EQ(t["publishers"].GetInt(), 1);
      EXPECT_EQ(t["subscribers"].GetInt(), 1);
      EXPECT_STREQ(t["types"][0].GetString(), "korvan.tooltest.Reading");
    }
  }
  EXPECT_TRUE(found);

  const ToolResult details = RunTool({"topic", "info", topic, "--timeout", "30"});
  ASSERT_EQ(details.exit_code, 0) << details.Describe();
  EXPECT_TRUE(Contains(details.out, "publishers: 1")) << details.out;
  EXPECT_TRUE(Contains(details.out, "subscribers: 1")) << details.out;
  EXPECT_TRUE(Contains(details.out, "keep-last 10, reliable, volatile")) << details.out;
  EXPECT_TRUE(Contains(details.out, "pid " + std::to_string(subscriber->pid()))) << details.out;
  const auto details_json = Json(RunTool({"topic", "info", topic, "--json"}).out);
  ASSERT_TRUE(details_json.IsObject());
  EXPECT_EQ(details_json["publishers"][0]["pid"].GetInt(), publisher->pid());
  EXPECT_EQ(std::string(details_json["publishers"][0]["description"].GetString()).size(), 16u);
}

TEST(ToolTopics, EchoPrintsMessagesOfTypesTheToolWasNotBuiltWith) {
  const std::string topic = korvan_test::UniqueName("echo/readings");
  auto publisher = StartPeer("publisher", {topic, "50"});

  const ToolResult text = RunTool({"topic", "echo", topic, "-n", "2", "--timeout", "30"});
  ASSERT_EQ(text.exit_code, 0) << text.Describe();
  EXPECT_TRUE(Contains(text.out, "label: \"front\"")) << text.out;
  EXPECT_TRUE(Contains(text.out, "position {")) << text.out;
  EXPECT_TRUE(Contains(text.out, "mode: TRACKING")) << text.out;
  EXPECT_TRUE(Contains(text.out, "# counter ")) << text.out;
  EXPECT_TRUE(Contains(text.out, "crc ok")) << text.out;
  size_t separators = 0;
  for (const auto& line : Lines(text.out))
    separators += line == "---" ? 1 : 0;
  EXPECT_EQ(separators, 2u);

  const ToolResult json = RunTool({"topic", "echo", topic, "-n", "3", "--json"});
  ASSERT_EQ(json.exit_code, 0) << json.Describe();
  const auto lines = Lines(json.out);
  ASSERT_EQ(lines.size(), 3u) << json.out;
  uint64_t last_counter = 0;
  for (const auto& line : lines) {
    const auto message = Json(line);
    ASSERT_TRUE(message.IsObject());
    EXPECT_STREQ(message["type"].GetString(), "korvan.tooltest.Reading");
    EXPECT_STREQ(message["message"]["label"].GetString(), "front");
    EXPECT_GT(message["counter"].GetUint64(), last_counter);
    last_counter = message["counter"].GetUint64();
  }

  const ToolResult field = RunTool({"topic", "echo", topic, "-n", "1", "--field", "position.x"});
  ASSERT_EQ(field.exit_code, 0) << field.Describe();
  EXPECT_TRUE(Contains(field.out, "1.5\n---")) << field.out;

  const ToolResult bad_field = RunTool({"topic", "echo", topic, "--field", "position.w"});
  EXPECT_EQ(bad_field.exit_code, 2) << bad_field.Describe();
  EXPECT_TRUE(Contains(bad_field.err, "korvan.tooltest.Vector3 has no field 'w'")) << bad_field.err;
}

TEST(ToolTopics, PubSendsAParsedValueAndNothingWhenTheValueIsWrong) {
  const std::string topic = korvan_test::UniqueName("pub/readings");
  auto subscriber = StartPeer("subscriber", {topic});

  // Wrong values first: the subscriber's first message must be the good one.
  const ToolResult bad_text = RunTool(
      {"topic", "pub", topic, "korvan.tooltest.Reading", "value: 1 nosuch: 2", "--timeout", "30"});
  EXPECT_EQ(bad_text.exit_code, 2) << bad_text.Describe();
  EXPECT_TRUE(Contains(bad_text.err, "line 1, column 16: ")) << bad_text.err;
  EXPECT_EQ(Lines(bad_text.err).size(), 1u) << bad_text.err;

  const ToolResult bad_json =
      RunTool({"topic", "pub", topic, "korvan.tooltest.Reading", R"({"value": "high"})"});
  EXPECT_EQ(bad_json.exit_code, 2) << bad_json.Describe();
  EXPECT_EQ(Lines(bad_json.err).size(), 1u) << bad_json.err;

  const ToolResult unknown =
      RunTool({"topic", "pub", topic, "korvan.tooltest.NoSuchType", "value: 1", "--timeout", "1"});
  EXPECT_EQ(unknown.exit_code, 2) << unknown.Describe();
  EXPECT_TRUE(Contains(unknown.err, "unknown type 'korvan.tooltest.NoSuchType'")) << unknown.err;

  const ToolResult good = RunTool({"topic", "pub", topic, "korvan.tooltest.Reading",
                                   "value: 2.5 label: \"from the tool\" position { z: 4 }"});
  ASSERT_EQ(good.exit_code, 0) << good.Describe();
  EXPECT_TRUE(Contains(good.err, "published 1 message")) << good.err;
  ASSERT_TRUE(subscriber->WaitForOutput("GOT", seconds(30))) << subscriber->output();
  const std::string received = subscriber->output();
  const size_t first = received.find("GOT ");
  EXPECT_EQ(received.substr(first, received.find('\n', first) - first),
            "GOT value: 2.5 label: \"from the tool\" position { z: 4 }");

  const ToolResult repeated = RunTool({"topic", "pub", topic, "korvan.tooltest.Reading",
                                       R"({"value": 7})", "--rate", "50", "--count", "3"});
  ASSERT_EQ(repeated.exit_code, 0) << repeated.Describe();
  EXPECT_TRUE(Contains(repeated.err, "published 3 messages to '" + topic + "', mean rate "))
      << repeated.err;
  ASSERT_TRUE(korvan_test::WaitFor(
      [&] {
        const std::string out = subscriber->output();
        size_t n = 0;
        for (size_t at = out.find("GOT value: 7"); at != std::string::npos;
             at = out.find("GOT value: 7", at + 1)) {
          ++n;
        }
        return n == 3;
      },
      seconds(30)))
      << subscriber->output();
}

// The last JSON report of a measuring command.
rapidjson::Document LastReport(const ToolResult& result) {
  const auto lines = Lines(result.out);
  EXPECT_FALSE(lines.empty()) << result.Describe();
  return Json(lines.empty() ? "{}" : lines.back());
}

TEST(ToolTopics, HzBwAndDelayMeasureAPublisher) {
  const std::string topic = korvan_test::UniqueName("measure/readings");
  auto publisher = StartPeer("publisher", {topic, "50"});

  const ToolResult hz =
      RunTool({"topic", "hz", topic, "--duration", "3", "--json", "--timeout", "30"});
  ASSERT_EQ(hz.exit_code, 0) << hz.Describe();
  const auto rate = LastReport(hz);
  ASSERT_TRUE(rate.HasMember("rate_hz")) << hz.out;
  // A loose band: the point is that the figure is a rate of this publisher, not its accuracy
  // (the benchmark measures that).
  EXPECT_GT(rate["rate_hz"].GetDouble(), 25) << hz.out;
  EXPECT_LT(rate["rate_hz"].GetDouble(), 100) << hz.out;
  EXPECT_LE(rate["min_period_s"].GetDouble(), rate["mean_period_s"].GetDouble());
  EXPECT_GE(rate["max_period_s"].GetDouble(), rate["mean_period_s"].GetDouble());
  EXPECT_TRUE(Contains(hz.err, " messages, mean rate ")) << hz.err;

  const ToolResult text = RunTool({"topic", "hz", topic, "--duration", "1.5"});
  ASSERT_EQ(text.exit_code, 0) << text.Describe();
  EXPECT_TRUE(Contains(text.out, topic + ": ")) << text.out;
  EXPECT_TRUE(Contains(text.out, " Hz  period mean ")) << text.out;

  const ToolResult bw = RunTool({"topic", "bw", topic, "--duration", "2", "--json"});
  ASSERT_EQ(bw.exit_code, 0) << bw.Describe();
  const auto bandwidth = LastReport(bw);
  ASSERT_TRUE(bandwidth.HasMember("mean_bytes")) << bw.out;
  // A Reading with its stamps is about 120 bytes; the envelope is not counted.
  EXPECT_GT(bandwidth["mean_bytes"].GetDouble(), 60) << bw.out;
  EXPECT_LT(bandwidth["mean_bytes"].GetDouble(), 400) << bw.out;
  EXPECT_GT(bandwidth["bytes_per_s"].GetDouble(), 0) << bw.out;

  const ToolResult delay = RunTool({"topic", "delay", topic, "--duration", "2", "--json"});
  ASSERT_EQ(delay.exit_code, 0) << delay.Describe();
  const auto delays = LastReport(delay);
  ASSERT_TRUE(delays.HasMember("mean_delay_s")) << delay.out;
  EXPECT_GT(delays["delays"].GetInt(), 0) << delay.out;
  EXPECT_GE(delays["min_delay_s"].GetDouble(), 0) << delay.out;
  EXPECT_LT(delays["mean_delay_s"].GetDouble(), 5) << delay.out;

  const std::string notes = korvan_test::UniqueName("measure/notes");
  auto note_publisher = StartPeer("publisher", {notes, "20", "note"});
  const ToolResult no_stamp = RunTool({"topic", "delay", notes, "--timeout", "30"});
  EXPECT_EQ(no_stamp.exit_code, 1) << no_stamp.Describe();
  EXPECT_TRUE(Contains(no_stamp.err, "korvan.tooltest.Note carries no publish time"))
      << no_stamp.err;
}

TEST(ToolTopics, UnknownTopicsTimeOutNamingTheTopic) {
  const std::string topic = korvan_test::UniqueName("nobody/here");
  for (const char* command : {"info", "echo", "hz", "bw", "delay"}) {
    const ToolResult result = RunTool({"topic", command, topic, "--timeout", "0.5"});
    EXPECT_EQ(result.exit_code, 1) << command << "\n" << result.Describe();
    EXPECT_TRUE(Contains(result.err, "topic '" + topic + "' was not seen on the bus"))
        << command << "\n"
        << result.err;
    EXPECT_TRUE(Contains(result.err, "(waited 0.5 s)")) << result.err;
  }
  const ToolResult node = RunTool({"node", "info", "no_such_node", "--timeout", "0.5"});
  EXPECT_EQ(node.exit_code, 1) << node.Describe();
  EXPECT_TRUE(Contains(node.err, "node 'no_such_node' was not seen")) << node.err;
}

TEST(ToolTopics, TwoDescriptionsOfOneTypeNameAreReportedAndEachDecodedWithItsOwn) {
  const std::string topic = korvan_test::UniqueName("rivals/readings");
  auto ours = StartPeer("publisher", {topic, "20"});
  auto theirs = StartPeer("rival", {topic, "20"});

  const ToolResult info =
      RunToolUntil({"topic", "info", topic, "--timeout", "30"},
                   [](const ToolResult& r) { return Contains(r.out, "publishers: 2"); });
  ASSERT_EQ(info.exit_code, 0) << info.Describe();
  EXPECT_TRUE(Contains(info.err, "warning: on topic '" + topic + "'")) << info.err;
  EXPECT_TRUE(Contains(info.err, "pid " + std::to_string(ours->pid()))) << info.err;
  EXPECT_TRUE(Contains(info.err, "pid " + std::to_string(theirs->pid()))) << info.err;
  EXPECT_TRUE(Contains(info.err, "korvan.tooltest.Reading")) << info.err;

  const ToolResult echo = RunTool({"topic", "echo", topic, "-n", "12"});
  ASSERT_EQ(echo.exit_code, 0) << echo.Describe();
  EXPECT_TRUE(Contains(echo.err, "publish different types under one name")) << echo.err;
  EXPECT_TRUE(Contains(echo.out, "note: \"rival\"")) << echo.out;
  EXPECT_TRUE(Contains(echo.out, "label: \"front\"")) << echo.out;
  // A message decoded with the other description would show its fields by number.
  for (const auto& line : Lines(echo.out)) {
    EXPECT_FALSE(!line.empty() && std::isdigit(static_cast<unsigned char>(line[0])))
        << "decoded with the wrong description: " << line << "\n"
        << echo.out;
  }
}

}  // namespace
}  // namespace korvan_tool_test
