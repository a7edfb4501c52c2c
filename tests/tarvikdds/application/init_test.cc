// The runtime's state is process-wide, so every scenario runs in a fresh child process.
#include "tarvikdds/application/init.h"

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "infra/env.h"
#include "infra/log_helper.h"
#include "korvan/bus/korvan_bus_manager.h"
#include "korvan/bus/singleton.h"
#include "support/child_process.h"
#include "support/test_environment.h"

namespace {

namespace tarvikdds = tarvik::quessa::tarvikdds;
using korvan_test::ChildProcess;
using tarvik::korvan::bus::KorvanBusManager;
using tarvik::korvan::inf::Env;
using tarvik::korvan::inf::EnvWrapper;
using tarvik::korvan::inf::LogHelper;
using tarvik::korvan::utils::Singleton;
using namespace std::chrono_literals;

KorvanBusManager* Bus() {
  return Singleton<KorvanBusManager>::Instance();
}

// The environment every scenario starts from: no bus configuration variables, in-process
// transport only, so these tests never touch the network.
std::vector<std::string> BaseEnv(std::vector<std::string> extra = {}) {
  extra.push_back("KORVAN_BUS_TRANSPORT=local");
  return extra;
}

void RunScenario(const std::string& role, const std::vector<std::string>& env = {}) {
  std::vector<std::string> full = BaseEnv(env);
  ChildProcess child(role, {}, full);
  ASSERT_TRUE(child.Wait(60s)) << role << " hung";
  EXPECT_EQ(child.exit_code(), 0) << role << " output:\n" << child.output();
}

void Unset(const char* name) {
  ::unsetenv(name);
}

void ClearBusVariables() {
  Unset("KORVAN_BUS_CONFIG_PATH");
  Unset("LUMIS_IP");
  Unset("LUMIS_LOCATOR_IP");
  Unset("LUMIS_PORT");
}

KORVAN_CHILD_ROLE(before_any_init) {
  CHILD_CHECK(!tarvikdds::Ok());
  CHILD_CHECK(!tarvikdds::IsShutdown());
  return CHILD_RESULT();
}

KORVAN_CHILD_ROLE(second_init_redoes_nothing) {
  ClearBusVariables();
  korvan_test::LogCapture log(4);
  CHILD_CHECK(tarvikdds::Init("first"));
  CHILD_CHECK(tarvikdds::Ok());
  CHILD_CHECK(LogHelper::name() == "first");
  CHILD_CHECK(Bus()->initialisations() == 1);
  CHILD_CHECK(tarvikdds::Init("second"));
  CHILD_CHECK(LogHelper::name() == "first");
  CHILD_CHECK(Bus()->initialisations() == 1);
  CHILD_CHECK(log.Count("[korvan_internal]Register exit handle succ.") == 1);
  return CHILD_RESULT();
}

KORVAN_CHILD_ROLE(shutdown_then_wait) {
  ClearBusVariables();
  CHILD_CHECK(tarvikdds::Init("app"));
  tarvikdds::Shutdown();
  CHILD_CHECK(!tarvikdds::Ok());
  CHILD_CHECK(!tarvikdds::IsShutdown());
  tarvikdds::Shutdown();  // second call is a no-op
  auto start = std::chrono::steady_clock::now();
  tarvikdds::WaitForShutdown();
  auto waited = std::chrono::steady_clock::now() - start;
  CHILD_CHECK(waited >= 490ms);
  CHILD_CHECK(waited < 5s);
  return CHILD_RESULT();
}

KORVAN_CHILD_ROLE(shutdown_without_init) {
  tarvikdds::Shutdown();
  CHILD_CHECK(!tarvikdds::Ok());
  CHILD_CHECK(!tarvikdds::IsShutdown());
  tarvikdds::WaitForShutdown();  // returns: the state is "shut down"
  return CHILD_RESULT();
}

KORVAN_CHILD_ROLE(init_again_after_shutdown) {
  ClearBusVariables();
  CHILD_CHECK(tarvikdds::Init("one"));
  tarvikdds::Shutdown();
  CHILD_CHECK(LogHelper::name().empty());
  CHILD_CHECK(tarvikdds::Init("two"));
  CHILD_CHECK(tarvikdds::Ok());
  CHILD_CHECK(LogHelper::name() == "two");
  CHILD_CHECK(Bus()->initialisations() == 2);
  return CHILD_RESULT();
}

KORVAN_CHILD_ROLE(empty_config_path_ignores_lumis) {
  // The path form is used with "", which names no file; LUMIS_PORT (not a number) is not read.
  CHILD_CHECK(!tarvikdds::Init("app"));
  CHILD_CHECK(!tarvikdds::Ok());
  CHILD_CHECK(!tarvikdds::IsShutdown());
  CHILD_CHECK(!Bus()->isInitialised());
  return CHILD_RESULT();
}

KORVAN_CHILD_ROLE(lumis_variables_fill_the_config) {
  CHILD_CHECK(tarvikdds::Init("app"));
  auto config = Bus()->config();
  CHILD_CHECK(config.has_lumis_config());
  CHILD_CHECK(config.lumis_config().discovery_ip() == "127.0.0.1");
  CHILD_CHECK(!config.lumis_config().has_locator_ip());
  CHILD_CHECK(config.lumis_config().port() == 7411);  // "7411abc": the digits count
  return CHILD_RESULT();
}

KORVAN_CHILD_ROLE(no_lumis_variables_no_lumis_config) {
  ClearBusVariables();
  CHILD_CHECK(tarvikdds::Init("app"));
  CHILD_CHECK(!Bus()->config().has_lumis_config());
  return CHILD_RESULT();
}

KORVAN_CHILD_ROLE(bad_port_throws_and_releases_the_lock) {
  ClearBusVariables();
  ::setenv("LUMIS_PORT", args.at(0).c_str(), 1);
  korvan_test::LogCapture log(2);
  bool thrown = false;
  try {
    tarvikdds::Init("app");
  } catch (const std::invalid_argument& e) {
    thrown = args.at(1) == "invalid_argument" && std::string(e.what()) == "stoi";
  } catch (const std::out_of_range& e) {
    thrown = args.at(1) == "out_of_range" && std::string(e.what()) == "stoi";
  }
  CHILD_CHECK(thrown);
  // The exception alone names nothing: one error line says which variable was wrong.
  CHILD_CHECK(log.Count("LUMIS_PORT '" + args.at(0) + "'") == 1);
  CHILD_CHECK(log.SeverityOf("LUMIS_PORT") == google::GLOG_ERROR);
  CHILD_CHECK(!tarvikdds::Ok());
  ::setenv("LUMIS_PORT", "7400", 1);
  CHILD_CHECK(tarvikdds::Init("app"));  // the init lock was released by the throw
  return CHILD_RESULT();
}

KORVAN_CHILD_ROLE(bus_failure_keeps_state) {
  ClearBusVariables();
  ::setenv("KORVAN_BUS_CONFIG_PATH", "/nonexistent/bus.json", 1);
  CHILD_CHECK(!tarvikdds::Init("app"));
  CHILD_CHECK(!tarvikdds::Ok());
  CHILD_CHECK(!tarvikdds::IsShutdown());
  std::string good = korvan_test::WriteScratchFile("good-bus.json", R"({"topics": []})");
  ::setenv("KORVAN_BUS_CONFIG_PATH", good.c_str(), 1);
  CHILD_CHECK(tarvikdds::Init("app"));
  CHILD_CHECK(tarvikdds::Ok());
  CHILD_CHECK(Bus()->config().app_name() == "app");
  return CHILD_RESULT();
}

// args: the value of KORVAN_DOMAIN_ID. The configuration file refuses such a domain id; the
// variable is refused the same way instead of quietly meaning domain 0.
KORVAN_CHILD_ROLE(bad_domain_variable_is_refused) {
  ClearBusVariables();
  ::setenv("KORVAN_DOMAIN_ID", args.at(0).c_str(), 1);
  korvan_test::LogCapture log(2);
  CHILD_CHECK(!tarvikdds::Init("app"));
  CHILD_CHECK(!Bus()->isInitialised());
  auto lines = log.Matching("KORVAN_DOMAIN_ID");
  CHILD_CHECK(lines.size() == 1);
  for (const auto& line : lines) {
    fprintf(stderr, "%s\n", line.c_str());
    CHILD_CHECK(line.find("'" + args.at(0) + "'") != std::string::npos);
    CHILD_CHECK(line.find("0..232") != std::string::npos);
  }
  // The configuration file route reads the variable too when the file sets no domain.
  std::string path = korvan_test::WriteScratchFile("domainless.json", R"({"topics": []})");
  ::setenv("KORVAN_BUS_CONFIG_PATH", path.c_str(), 1);
  CHILD_CHECK(!tarvikdds::Init("app"));
  CHILD_CHECK(log.Count("KORVAN_DOMAIN_ID") == 2);
  // A domain set in the file wins, and the variable is then not read.
  path = korvan_test::WriteScratchFile("domain.json", R"({"lumisConfig": {"domainId": 7}})");
  ::setenv("KORVAN_BUS_CONFIG_PATH", path.c_str(), 1);
  CHILD_CHECK(tarvikdds::Init("app"));
  return CHILD_RESULT();
}

KORVAN_CHILD_ROLE(domain_variable_limits_are_accepted) {
  ClearBusVariables();
  ::setenv("KORVAN_DOMAIN_ID", args.at(0).c_str(), 1);
  CHILD_CHECK(tarvikdds::Init("app"));
  return CHILD_RESULT();
}

class FailingAtExit : public EnvWrapper {
 public:
  FailingAtExit() : EnvWrapper(Env::Default()) {}
  int AtExit(void (*)()) override {
    ++calls;
    return -1;
  }
  int calls = 0;
};

KORVAN_CHILD_ROLE(atexit_failure) {
  ClearBusVariables();
  FailingAtExit failing;
  Env::Replace(&failing);
  korvan_test::LogCapture log(4);
  CHILD_CHECK(!tarvikdds::Init("app"));
  CHILD_CHECK(log.Count("[korvan_internal]Register exit handle failed") == 1);
  CHILD_CHECK(!tarvikdds::Ok());
  CHILD_CHECK(!Bus()->isInitialised());  // the bus is not touched
  CHILD_CHECK(!tarvikdds::Init("app"));
  CHILD_CHECK(failing.calls == 2);  // each Init tries the registration again
  Env::Replace(nullptr);
  CHILD_CHECK(tarvikdds::Init("app"));
  CHILD_CHECK(log.Count("Register exit handle succ.") == 1);
  return CHILD_RESULT();
}

KORVAN_CHILD_ROLE(concurrent_first_inits) {
  ClearBusVariables();
  std::atomic<int> succeeded{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      if (tarvikdds::Init("app"))
        ++succeeded;
    });
  }
  for (auto& t : threads)
    t.join();
  CHILD_CHECK(succeeded == 8);
  CHILD_CHECK(Bus()->initialisations() == 1);
  return CHILD_RESULT();
}

TEST(InitTest, BeforeAnyInitNothingRuns) {
  RunScenario("before_any_init");
}
TEST(InitTest, SecondInitReturnsAtOnce) {
  RunScenario("second_init_redoes_nothing");
}
TEST(InitTest, ShutdownThenWaitTakesOnePollingPeriod) {
  RunScenario("shutdown_then_wait");
}
TEST(InitTest, ShutdownWithoutInitCompletes) {
  RunScenario("shutdown_without_init");
}
TEST(InitTest, InitAfterShutdownRunsInFull) {
  RunScenario("init_again_after_shutdown");
}
TEST(InitTest, ConcurrentFirstInitsInitialiseOnce) {
  RunScenario("concurrent_first_inits");
}
TEST(InitTest, BusFailureLeavesStateUninitialised) {
  RunScenario("bus_failure_keeps_state");
}
TEST(InitTest, AtExitFailureMakesInitFail) {
  RunScenario("atexit_failure");
}

TEST(InitTest, EmptyConfigPathUsesThePathForm) {
  RunScenario("empty_config_path_ignores_lumis",
              {"KORVAN_BUS_CONFIG_PATH=", "LUMIS_PORT=not-a-number"});
}

TEST(InitTest, LumisVariablesFillTheConfiguration) {
  RunScenario("lumis_variables_fill_the_config", {"LUMIS_IP=127.0.0.1", "LUMIS_PORT=7411abc"});
}

TEST(InitTest, NoLumisVariablesNoLumisConfig) {
  RunScenario("no_lumis_variables_no_lumis_config");
}

TEST(InitTest, PortThatIsNoNumberThrowsInvalidArgument) {
  ChildProcess child("bad_port_throws_and_releases_the_lock", {"x12", "invalid_argument"},
                     BaseEnv());
  ASSERT_TRUE(child.Wait(60s));
  EXPECT_EQ(child.exit_code(), 0) << child.output();
}

TEST(InitTest, PortOutOfIntRangeThrowsOutOfRange) {
  ChildProcess child("bad_port_throws_and_releases_the_lock", {"99999999999", "out_of_range"},
                     BaseEnv());
  ASSERT_TRUE(child.Wait(60s));
  EXPECT_EQ(child.exit_code(), 0) << child.output();
}

TEST(InitTest, DomainVariableOutsideTheDomainRangeMakesInitFail) {
  for (const char* value : {"abc", "233", "-1", "1e20", "7x", " 5", "99999999999999999999"}) {
    SCOPED_TRACE(value);
    ChildProcess child("bad_domain_variable_is_refused", {value}, BaseEnv());
    ASSERT_TRUE(child.Wait(60s));
    EXPECT_EQ(child.exit_code(), 0) << child.output();
  }
}

TEST(InitTest, DomainVariableAtItsLimitsIsAccepted) {
  for (const char* value : {"0", "232", ""}) {
    SCOPED_TRACE(value);
    ChildProcess child("domain_variable_limits_are_accepted", {value}, BaseEnv());
    ASSERT_TRUE(child.Wait(60s));
    EXPECT_EQ(child.exit_code(), 0) << child.output();
  }
}

}  // namespace
