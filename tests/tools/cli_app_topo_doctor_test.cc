// korvan app, topo and doctor against real processes and broken set-ups.
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

TEST(ToolApps, ListsApplicationsAndWatchesTheirSignals) {
  const std::string app = korvan_test::UniqueName("stepper");
  ChildProcess process("application", {app});
  ASSERT_TRUE(process.WaitForOutput("READY", seconds(60))) << process.output();

  const ToolResult list =
      RunToolUntil({"app", "list"}, [&](const ToolResult& r) { return Contains(r.out, app); });
  ASSERT_EQ(list.exit_code, 0) << list.Describe();
  EXPECT_TRUE(Contains(list.out, std::to_string(process.pid()))) << list.out;
  rapidjson::Document json;
  json.Parse(RunTool({"app", "list", "--json"}).out.c_str());
  ASSERT_TRUE(json.IsArray());
  ASSERT_EQ(json.Size(), 1u);
  EXPECT_EQ(json[0]["name"].GetString(), app);

  // Every fourth step fails: within 16 signals (pre_proc and post_proc or failed_proc per
  // step) at least one failure.
  const ToolResult watch = RunTool({"app", "watch", app, "-n", "16", "--timeout", "30"});
  ASSERT_EQ(watch.exit_code, 0) << watch.Describe();
  const auto lines = Lines(watch.out);
  ASSERT_EQ(lines.size(), 16u) << watch.out;
  bool failure = false;
  bool success = false;
  for (const auto& line : lines) {
    EXPECT_TRUE(Contains(line, "  " + app + "  ")) << line;
    EXPECT_TRUE(Contains(line, "  frame ")) << line;
    success = success || Contains(line, "  post_proc  ");
    if (Contains(line, "failed_proc")) {
      failure = true;
      EXPECT_TRUE(Contains(line, "FAILED: step ") && Contains(line, " refused")) << line;
    }
  }
  EXPECT_TRUE(failure) << watch.out;
  EXPECT_TRUE(success) << watch.out;

  const ToolResult as_json = RunTool({"app", "watch", "-n", "5", "--json", "--timeout", "30"});
  ASSERT_EQ(as_json.exit_code, 0) << as_json.Describe();
  for (const auto& line : Lines(as_json.out)) {
    rapidjson::Document signal;
    signal.Parse(line.c_str());
    ASSERT_TRUE(signal.IsObject()) << line;
    EXPECT_EQ(signal["app"].GetString(), app);
    EXPECT_EQ(signal["interval_ms"].GetInt(), 50);
  }

  const ToolResult unknown = RunTool({"app", "watch", "no_such_app", "--timeout", "0.5"});
  EXPECT_EQ(unknown.exit_code, 1) << unknown.Describe();
  EXPECT_TRUE(Contains(unknown.err, "application 'no_such_app' was not seen")) << unknown.err;
}

TEST(ToolTopology, PrintsATreeTheLibrarySnapshotAndAGraph) {
  const std::string topic = korvan_test::UniqueName("topo/readings");
  ChildProcess publisher("publisher", {topic, "10"});
  ChildProcess subscriber("subscriber", {topic});
  ASSERT_TRUE(publisher.WaitForOutput("READY", seconds(60)));
  ASSERT_TRUE(subscriber.WaitForOutput("READY", seconds(60)));

  const ToolResult tree = RunToolUntil({"topo"}, [&](const ToolResult& r) {
    return Contains(r.out, "publishes   " + topic) && Contains(r.out, "subscribes  " + topic);
  });
  ASSERT_EQ(tree.exit_code, 0) << tree.Describe();
  EXPECT_TRUE(
      Contains(tree.out, "pid " + std::to_string(publisher.pid()) + ")\n  node reading_source"))
      << tree.out;
  EXPECT_TRUE(Contains(tree.out, "publishes   " + topic + " [korvan.tooltest.Reading]"))
      << tree.out;

  const ToolResult json = RunTool({"topo", "--json"});
  ASSERT_EQ(json.exit_code, 0) << json.Describe();
  rapidjson::Document snapshot;
  snapshot.Parse(json.out.c_str());
  ASSERT_TRUE(snapshot.IsArray()) << json.out;
  bool publishes = false;
  for (const auto& app : snapshot.GetArray()) {
    EXPECT_TRUE(app.HasMember("app_name"));
    for (const auto& node : app["nodes"].GetArray()) {
      EXPECT_FALSE(Contains(node["node_name"].GetString(), "korvan_cli")) << json.out;
      if (node.HasMember("publisher")) {
        for (const auto& name : node["publisher"].GetArray())
          publishes = publishes || name.GetString() == topic;
      }
    }
  }
  EXPECT_TRUE(publishes) << json.out;

  const ToolResult dot = RunTool({"topo", "--dot"});
  ASSERT_EQ(dot.exit_code, 0) << dot.Describe();
  EXPECT_EQ(dot.out.rfind("digraph bus {", 0), 0u) << dot.out;
  EXPECT_TRUE(Contains(dot.out, "\"node:reading_source@")) << dot.out;
  EXPECT_TRUE(Contains(dot.out, " -> \"topic:" + topic + "\";")) << dot.out;
  EXPECT_TRUE(Contains(dot.out, "\"topic:" + topic + "\" -> \"node:reading_sink@")) << dot.out;
  EXPECT_EQ(dot.out.substr(dot.out.size() - 2), "}\n");
}

TEST(ToolDoctor, ReportsAWorkingSetUpAndWhatToFixInBrokenOnes) {
  ChildProcess publisher("publisher", {korvan_test::UniqueName("doctor/readings"), "10"});
  ASSERT_TRUE(publisher.WaitForOutput("READY", seconds(60)));
  const ToolResult healthy = RunToolUntil(
      {"doctor"}, [](const ToolResult& r) { return Contains(r.out, "1 process on 1 host"); });
  ASSERT_EQ(healthy.exit_code, 0) << healthy.Describe();
  EXPECT_TRUE(Contains(healthy.out, "no problems found")) << healthy.out;
  EXPECT_TRUE(Contains(healthy.out, "127.0.0.1 (lo)")) << healthy.out;
  const ToolResult json = RunTool({"doctor", "--json"});
  rapidjson::Document report;
  report.Parse(json.out.c_str());
  ASSERT_TRUE(report.IsObject()) << json.out;
  EXPECT_TRUE(report["ok"].GetBool());

  const std::string broken =
      korvan_test::WriteScratchFile("broken.json", R"({"lumis_config": {"domain": 3}})");
  struct Case {
    std::vector<std::string> env;
    const char* says;
  };
  for (const Case& c : std::vector<Case>{
           {{"KORVAN_DOMAIN_ID=999"}, "KORVAN_DOMAIN_ID '999' is not a domain of 0..232"},
           {{"LUMIS_IP=10.254.254.254"}, "no interface of this host has the address"},
           {{"LUMIS_IP=not-an-address"}, "LUMIS_IP 'not-an-address' is not an IP address"},
           {{"LUMIS_PORT=seventy"}, "LUMIS_PORT 'seventy' is not a number"},
           {{"LUMIS_PORT=65000", "KORVAN_DOMAIN_ID=200"}, "beyond 65535"},
           {{"KORVAN_BUS_CONFIG_PATH=" + korvan_test::ScratchPath("missing.json")}, "No such file"},
           {{"KORVAN_BUS_CONFIG_PATH=" + broken}, "not a bus configuration"}}) {
    const ToolResult result =
        RunTool({"doctor", "--timeout", "0.5"}, c.env, std::chrono::seconds(60));
    EXPECT_EQ(result.exit_code, 1) << c.env[0] << "\n" << result.Describe();
    EXPECT_TRUE(Contains(result.out, c.says)) << c.env[0] << "\n" << result.out;
    EXPECT_TRUE(Contains(result.out, "fix: ")) << result.out;
    EXPECT_TRUE(Contains(result.out, "problems found: fix the errors above")) << result.out;
  }
}

}  // namespace
}  // namespace korvan_tool_test
