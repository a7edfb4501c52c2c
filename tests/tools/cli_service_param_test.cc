// korvan service and param commands against a real service and a real parameter server.
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

TEST(ToolServices, ListsAndCallsAServiceWithRequestsAsTextOrJson) {
  const std::string name = korvan_test::UniqueName("math/add");
  ChildProcess adder("adder", {name});
  ASSERT_TRUE(adder.WaitForOutput("READY", seconds(60))) << adder.output();

  const ToolResult list =
      RunToolUntil({"service", "list"}, [&](const ToolResult& r) { return Contains(r.out, name); });
  ASSERT_EQ(list.exit_code, 0) << list.Describe();
  const ToolResult typed = RunTool({"service", "list", "-t"});
  EXPECT_TRUE(
      Contains(typed.out, name + " [korvan.tooltest.SumRequest -> korvan.tooltest.SumResponse]"))
      << typed.Describe();
  rapidjson::Document json;
  json.Parse(RunTool({"service", "list", "--json"}).out.c_str());
  ASSERT_TRUE(json.IsArray());
  bool found = false;
  for (const auto& s : json.GetArray()) {
    if (s["name"].GetString() == name) {
      found = true;
      EXPECT_EQ(s["servers"].GetInt(), 1);
    }
  }
  EXPECT_TRUE(found);

  const ToolResult text = RunTool({"service", "call", name, "a: 2 b: 3", "--timeout", "30"});
  ASSERT_EQ(text.exit_code, 0) << text.Describe();
  EXPECT_EQ(text.out, "sum: 5\n");
  const ToolResult as_json =
      RunTool({"service", "call", name, R"({"a": 40, "b": 2})", "--json", "--timeout", "30"});
  ASSERT_EQ(as_json.exit_code, 0) << as_json.Describe();
  EXPECT_EQ(as_json.out, "{\"sum\":\"42\"}\n");

  const ToolResult bad = RunTool({"service", "call", name, "a: two", "--timeout", "30"});
  EXPECT_EQ(bad.exit_code, 2) << bad.Describe();
  EXPECT_TRUE(Contains(bad.err, "the request is not a korvan.tooltest.SumRequest: line 1, column"))
      << bad.err;
  const ToolResult incomplete = RunTool({"service", "call", name, "b: 1", "--timeout", "30"});
  EXPECT_EQ(incomplete.exit_code, 2) << incomplete.Describe();
  EXPECT_TRUE(Contains(incomplete.err, "lacks required fields")) << incomplete.err;

  const ToolResult unknown =
      RunTool({"service", "call", "no/such/service", "a: 1", "--timeout", "0.5"});
  EXPECT_EQ(unknown.exit_code, 1) << unknown.Describe();
  EXPECT_TRUE(Contains(unknown.err, "service 'no/such/service' was not seen on the bus"))
      << unknown.err;
}

TEST(ToolParams, ListsGetsAndSetsEveryValueType) {
  const std::string node = korvan_test::UniqueName("tuned");
  ChildProcess server("parameters", {node});
  ASSERT_TRUE(server.WaitForOutput("READY", seconds(60))) << server.output();

  const ToolResult list = RunTool({"param", "list", node, "--timeout", "30"});
  ASSERT_EQ(list.exit_code, 0) << list.Describe();
  const auto lines = Lines(list.out);
  ASSERT_EQ(lines.size(), 6u) << list.out;
  EXPECT_EQ(lines[0].substr(0, 4), "NAME");
  // Sorted by name: enabled, gains, label, retries, speed.
  EXPECT_TRUE(Contains(lines[1], "enabled") && Contains(lines[1], "bool") &&
              Contains(lines[1], "true"))
      << lines[1];
  EXPECT_TRUE(Contains(lines[2], "korvan.tooltest.Gains") && Contains(lines[2], "kp: 1 ki: 0.5"))
      << lines[2];
  EXPECT_TRUE(Contains(lines[3], "string") && Contains(lines[3], "front")) << lines[3];
  EXPECT_TRUE(Contains(lines[4], "int") && Contains(lines[4], "3")) << lines[4];
  EXPECT_TRUE(Contains(lines[5], "double") && Contains(lines[5], "1.5")) << lines[5];

  const ToolResult json = RunTool({"param", "list", node, "--json"});
  ASSERT_EQ(json.exit_code, 0) << json.Describe();
  rapidjson::Document document;
  document.Parse(json.out.c_str());
  ASSERT_TRUE(document.IsArray()) << json.out;
  ASSERT_EQ(document.Size(), 5u);
  EXPECT_DOUBLE_EQ(document[1]["value"]["ki"].GetDouble(), 0.5);
  EXPECT_EQ(document[3]["value"].GetInt(), 3);

  const ToolResult get = RunTool({"param", "get", node, "gains"});
  ASSERT_EQ(get.exit_code, 0) << get.Describe();
  EXPECT_EQ(get.out, "gains (korvan.tooltest.Gains): kp: 1 ki: 0.5\n");
  EXPECT_EQ(RunTool({"param", "get", node, "speed", "--json"}).out,
            "{\"name\":\"speed\",\"type\":\"double\",\"value\":1.5}\n");

  struct Change {
    const char* name;
    const char* value;
    const char* shown;
  };
  for (const Change& change : {Change{"enabled", "false", "false"}, Change{"retries", "-7", "-7"},
                               Change{"speed", "2.25", "2.25"}, Change{"label", "rear", "rear"},
                               Change{"gains", "kp: 3 kd: 0.1", "kp: 3 kd: 0.1"}}) {
    const ToolResult set = RunTool({"param", "set", node, change.name, change.value});
    ASSERT_EQ(set.exit_code, 0) << change.name << "\n" << set.Describe();
    const ToolResult again = RunTool({"param", "get", node, change.name});
    EXPECT_TRUE(Contains(again.out, std::string("): ") + change.shown)) << again.Describe();
  }
  EXPECT_TRUE(server.WaitForOutput("CHANGED gains", seconds(30)));

  // A value of another type than the parameter's: refused before anything is sent.
  struct Wrong {
    const char* name;
    const char* value;
    const char* says;
  };
  for (const Wrong& wrong :
       {Wrong{"speed", "fast", "is double: 'fast' is not a double"},
        Wrong{"retries", "1.5", "is int: '1.5' is not an int"},
        Wrong{"enabled", "maybe", "is bool: 'maybe' is not a bool"},
        Wrong{"gains", "kp: \"high\"", "is korvan.tooltest.Gains: the value is not a"},
        Wrong{"gains", "{\"kq\": 1}", "is korvan.tooltest.Gains: the value is not a"}}) {
    const ToolResult set = RunTool({"param", "set", node, wrong.name, wrong.value});
    EXPECT_EQ(set.exit_code, 2) << wrong.name << "\n" << set.Describe();
    EXPECT_TRUE(Contains(set.err, wrong.says)) << set.err;
    EXPECT_EQ(Lines(set.err).size(), 1u) << set.err;
  }
  EXPECT_TRUE(Contains(RunTool({"param", "get", node, "speed"}).out, "): 2.25"));

  const ToolResult missing = RunTool({"param", "get", node, "no_such_parameter"});
  EXPECT_EQ(missing.exit_code, 1) << missing.Describe();
  EXPECT_TRUE(Contains(missing.err, "has no parameter 'no_such_parameter'")) << missing.err;
  const ToolResult missing_set = RunTool({"param", "set", node, "no_such_parameter", "1"});
  EXPECT_EQ(missing_set.exit_code, 1) << missing_set.Describe();
  const ToolResult nobody = RunTool({"param", "list", "no_such_node", "--timeout", "0.5"});
  EXPECT_EQ(nobody.exit_code, 1) << nobody.Describe();
  EXPECT_TRUE(Contains(nobody.err, "node 'no_such_node' serves no parameters")) << nobody.err;
}

}  // namespace
}  // namespace korvan_tool_test
