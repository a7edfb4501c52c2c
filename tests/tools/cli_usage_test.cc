// The installed tool's command line: help on every level, usage errors, the runtime info, the
// bash completion installed with it, and Ctrl-C.
#include <signal.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/test_environment.h"
#include "tool_runner.h"

namespace korvan_tool_test {
namespace {

using std::chrono::seconds;

TEST(ToolUsage, HelpOnEveryLevelExitsZero) {
  const std::vector<std::vector<std::string>> commands = {{},
                                                          {"node"},
                                                          {"node", "list"},
                                                          {"node", "info"},
                                                          {"topic"},
                                                          {"topic", "list"},
                                                          {"topic", "info"},
                                                          {"topic", "echo"},
                                                          {"topic", "hz"},
                                                          {"topic", "bw"},
                                                          {"topic", "delay"},
                                                          {"topic", "pub"},
                                                          {"service"},
                                                          {"service", "list"},
                                                          {"service", "call"},
                                                          {"param"},
                                                          {"param", "list"},
                                                          {"param", "get"},
                                                          {"param", "set"},
                                                          {"app"},
                                                          {"app", "list"},
                                                          {"app", "watch"},
                                                          {"topo"},
                                                          {"doctor"},
                                                          {"info"}};
  for (auto command : commands) {
    std::string line = "korvan";
    for (const auto& word : command)
      line += " " + word;
    command.push_back("--help");
    const ToolResult result = RunTool(command);
    EXPECT_EQ(result.exit_code, 0) << line << "\n" << result.Describe();
    EXPECT_NE(result.out.find("Usage"), std::string::npos) << line << "\n" << result.Describe();
  }
  // The top level lists every group.
  const std::string top = RunTool({"--help"}).out;
  for (const char* group : {"node", "topic", "service", "param", "app", "topo", "doctor", "info"})
    EXPECT_NE(top.find(group), std::string::npos) << group;
}

TEST(ToolUsage, UsageErrorsExitTwoWithoutTouchingTheBus) {
  const std::vector<std::vector<std::string>> commands = {
      {},
      {"bogus"},
      {"topic"},
      {"topic", "echo"},
      {"topic", "pub", "t", "korvan.tooltest.Reading"},
      {"topic", "echo", "t", "--count", "-3"},
      {"topic", "hz", "t", "--window", "1"},
      {"topic", "list", "--timeout", "0"},
      {"topic", "list", "--no-such-option"},
      {"param", "set", "node", "name"},
      {"topo", "--dot", "--json"},
      {"service", "call", "only_a_service"}};
  for (const auto& command : commands) {
    std::string line = "korvan";
    for (const auto& word : command)
      line += " " + word;
    const ToolResult result = RunTool(command);
    EXPECT_EQ(result.exit_code, 2) << line << "\n" << result.Describe();
    EXPECT_FALSE(result.err.empty()) << line;
  }
}

TEST(ToolUsage, InfoPrintsTheRuntimeAndTheConfigurationItLoaded) {
  const ToolResult plain = RunTool({"info"});
  ASSERT_EQ(plain.exit_code, 0) << plain.Describe();
  EXPECT_NE(plain.out.find("runtime: running (Ok=1, IsShutdown=0)"), std::string::npos);
  EXPECT_NE(plain.out.find("bus configuration:"), std::string::npos);

  const std::string config = korvan_test::WriteScratchFile(
      "info.json", R"({"lumis_config": {"lease_ms": 4000}, "app_name": "configured"})");
  const ToolResult json = RunTool({"info", "--json"}, {"KORVAN_BUS_CONFIG_PATH=" + config});
  ASSERT_EQ(json.exit_code, 0) << json.Describe();
  EXPECT_NE(json.out.find("\"runtime\":\"running\""), std::string::npos) << json.out;
  EXPECT_NE(json.out.find("\"lease_ms\":4000"), std::string::npos) << json.out;

  const ToolResult missing =
      RunTool({"info"}, {"KORVAN_BUS_CONFIG_PATH=" + korvan_test::ScratchPath("none.json")});
  EXPECT_EQ(missing.exit_code, 1) << missing.Describe();
  EXPECT_NE(missing.out.find("failed to start"), std::string::npos) << missing.Describe();
}

// Completes the command line `line` (the cursor at its end) with the installed script.
std::vector<std::string> Complete(const std::string& line) {
  const std::string script =
      "source \"$1\"\n"
      "COMP_LINE=\"$2\"\n"
      "read -r -a COMP_WORDS <<< \"$2\"\n"
      "[[ $2 == *' ' ]] && COMP_WORDS+=('')\n"
      "COMP_WORDS[0]=\"$3\"\n"
      "COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n"
      "_korvan\n"
      "printf '%s\\n' \"${COMPREPLY[@]}\"\n";
  ToolProcess bash({"-c", script, "bash", CompletionPath(), line, ToolPath()}, {}, "/bin/bash");
  const ToolResult result = bash.Finish(seconds(60));
  EXPECT_EQ(result.exit_code, 0) << result.Describe();
  std::vector<std::string> words;
  for (const auto& word : Lines(result.out)) {
    if (!word.empty())
      words.push_back(word);
  }
  return words;
}

bool Has(const std::vector<std::string>& words, const std::string& word) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

TEST(ToolUsage, BashCompletionOffersCommandsOptionsAndNamesOnTheBus) {
  EXPECT_EQ(Complete("korvan to"), (std::vector<std::string>{"topic", "topo"}));
  const auto topic = Complete("korvan topic ");
  for (const char* command : {"list", "info", "echo", "hz", "bw", "delay", "pub"})
    EXPECT_TRUE(Has(topic, command)) << command;
  EXPECT_TRUE(Has(Complete("korvan topic echo --f"), "--field"));
  EXPECT_TRUE(Has(Complete("korvan param set -"), "--timeout"));
  EXPECT_TRUE(Complete("korvan topic echo --count ").empty());

  const std::string name = korvan_test::UniqueName("completion/readings");
  korvan_test::ChildProcess publisher("publisher", {name, "20"});
  ASSERT_TRUE(publisher.WaitForOutput("READY", seconds(60)));
  std::vector<std::string> topics;
  ASSERT_TRUE(korvan_test::WaitFor(
      [&] {
        topics = Complete("korvan topic hz ");
        return Has(topics, name);
      },
      seconds(60)));
  EXPECT_TRUE(Has(Complete("korvan topic pub " + name + " "), "korvan.tooltest.Reading"));
  EXPECT_TRUE(Has(Complete("korvan node info "), "reading_source"));
}

TEST(ToolUsage, CtrlCEndsALongRunningCommandWithASummary) {
  const std::string name = korvan_test::UniqueName("interrupt/readings");
  korvan_test::ChildProcess publisher("publisher", {name, "50"});
  ASSERT_TRUE(publisher.WaitForOutput("READY", seconds(60)));
  for (const char* command : {"echo", "hz"}) {
    ToolProcess tool({"topic", command, name, "--timeout", "30"});
    ASSERT_TRUE(tool.WaitForOut(command == std::string("echo") ? "value:" : "Hz", seconds(60)))
        << tool.err();
    tool.Signal(SIGINT);
    const ToolResult result = tool.Finish(seconds(30));
    EXPECT_EQ(result.exit_code, 0) << result.Describe();
    const auto lines = Lines(result.err);
    ASSERT_FALSE(lines.empty()) << result.Describe();
    EXPECT_NE(lines.back().find(" messages, mean rate "), std::string::npos) << result.Describe();
    EXPECT_NE(lines.back().find(" Hz"), std::string::npos) << result.Describe();
  }
}

}  // namespace
}  // namespace korvan_tool_test
