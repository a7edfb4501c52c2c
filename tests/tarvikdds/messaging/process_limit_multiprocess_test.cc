// The per-host process limit of discovery (lumis_config.max_processes_per_host): exactly that
// many processes join the bus, and the next one is refused by Init with a line that says how
// to raise the limit. The test process itself never joins, so every index is the children's.
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "korvan/bus/lumis_component.h"
#include "support/child_process.h"
#include "support/test_environment.h"
#include "tarvikdds/application/init.h"
#include "tarvikdds/messaging/dds_node.h"

namespace {

using korvan_test::ChildProcess;
using namespace std::chrono_literals;

constexpr int kLimit = 3;

// args: the number of members to wait for, stop file. Joins and reports how many members of
// this test it sees.
KORVAN_CHILD_ROLE(limit_member) {
  korvan_test::LogCapture log(2);
  if (!tarvik::quessa::tarvikdds::Init("member")) {
    for (const auto& line : log.Lines())
      printf("REFUSED %s\n", line.c_str());
    fflush(stdout);
    return 0;
  }
  printf("JOINED\n");
  fflush(stdout);
  auto node = tarvik::quessa::Node::CreateNode("member", "");  // something to discover
  const size_t expected = std::stoul(args.at(0));
  tarvik::korvan::bus::LumisComponent discovery;
  const bool all = korvan_test::WaitFor(
      [&] {
        std::vector<tarvik::korvan::bus::EntityRecord> entities;
        if (!discovery.listAllEntities(&entities))
          return false;
        std::set<int32_t> processes;
        for (const auto& e : entities) {
          // All on this host: a killed member still listed until its lease ends is no member.
          if (e.app_name == "member" && ::kill(e.process_id, 0) == 0)
            processes.insert(e.process_id);
        }
        return processes.size() >= expected;
      },
      60s);
  printf(all ? "SEES_ALL\n" : "MISSES_SOME\n");
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(1), 120000));
  return CHILD_RESULT();
}

TEST(ProcessLimitTest, LimitManyProcessesJoinAndTheNextIsRefusedLoudly) {
  const std::string config = korvan_test::WriteScratchFile(
      "limit.json", "{\"lumisConfig\": {\"maxProcessesPerHost\": " + std::to_string(kLimit) +
                        "}, \"appName\": \"member\"}");
  const std::vector<std::string> env = {"KORVAN_BUS_CONFIG_PATH=" + config};
  const std::string stop = korvan_test::ScratchPath("stop");
  std::vector<std::unique_ptr<ChildProcess>> members;
  for (int i = 0; i < kLimit; ++i) {
    members.push_back(std::make_unique<ChildProcess>(
        "limit_member", std::vector<std::string>{std::to_string(kLimit), stop}, env));
    ASSERT_TRUE(korvan_test::WaitFor(
        [&] {
          const std::string out = members.back()->output();
          return out.find("JOINED") != std::string::npos ||
                 out.find("REFUSED") != std::string::npos;
        },
        60s));
    ASSERT_NE(members.back()->output().find("JOINED"), std::string::npos)
        << "member " << i + 1 << " of " << kLimit << ":\n"
        << members.back()->output();
  }
  for (auto& member : members)
    EXPECT_TRUE(member->WaitForOutput("SEES_ALL", 90s)) << member->output();

  ChildProcess extra("limit_member", {std::to_string(kLimit), stop}, env);
  ASSERT_TRUE(extra.Wait(60s));
  EXPECT_EQ(extra.exit_code(), 0);
  const std::string out = extra.output();
  EXPECT_NE(out.find("REFUSED"), std::string::npos) << out;
  EXPECT_NE(out.find("max_processes_per_host"), std::string::npos) << out;
  EXPECT_NE(out.find("all " + std::to_string(kLimit)), std::string::npos) << out;

  // A member killed mid-work frees its place at once: its sockets close with it.
  members.front()->Kill(SIGKILL);
  ASSERT_TRUE(members.front()->Wait(10s));
  const auto killed = std::chrono::steady_clock::now();
  ChildProcess successor("limit_member", {std::to_string(kLimit), stop}, env);
  ASSERT_TRUE(korvan_test::WaitFor(
      [&] {
        const std::string o = successor.output();
        return o.find("JOINED") != std::string::npos || o.find("REFUSED") != std::string::npos;
      },
      60s));
  const double took =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - killed).count();
  std::printf("[ measured ] a successor joined %.2f s after a member was killed\n", took);
  EXPECT_NE(successor.output().find("JOINED"), std::string::npos) << successor.output();
  EXPECT_TRUE(successor.WaitForOutput("SEES_ALL", 90s)) << successor.output();
  std::printf("[ measured ] the successor saw the others %.2f s after the kill\n",
              std::chrono::duration<double>(std::chrono::steady_clock::now() - killed).count());

  korvan_test::TouchFile(stop);
  for (size_t i = 1; i < members.size(); ++i) {
    ASSERT_TRUE(members[i]->Wait(60s));
    EXPECT_EQ(members[i]->exit_code(), 0) << members[i]->output();
  }
  ASSERT_TRUE(successor.Wait(60s));
}

}  // namespace
