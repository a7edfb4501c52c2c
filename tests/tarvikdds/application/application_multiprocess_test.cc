// An application in one process, watched from another over DDS: its lifecycle signals and
// its performance batches.
#include <chrono>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/test_environment.h"
#include "tarvikdds/application/application.h"
#include "tarvikdds/proto/perf_monitor.pb.h"

namespace {

using korvan_test::ChildProcess;
using korvan_test::UniqueName;
using korvan_test::WaitFor;
using tarvik::quessa::Application;
using tarvik::quessa::Node;
using tarvik::quessa::QoS;
using tarvik::quessa::messages::internal::AppSignal;
using tarvik::quessa::messages::internal::SampleBatch;
using namespace std::chrono_literals;

class CountingApp : public Application {
 public:
  explicit CountingApp(const std::string& name) : Application(name) {}
  std::string Init() override { return ""; }
  std::string Proc(uint64_t, uint64_t) override {
    ++steps;
    return "";
  }
  std::string Finalize() override { return ""; }
  std::atomic<int> steps{0};
};

// args: application name, finish file. Runs ten steps at 10 ms, stops, waits to be released.
KORVAN_CHILD_ROLE(watched_application) {
  auto app = std::make_shared<CountingApp>(args.at(0));
  Application::Register(app->name(), app);
  app->Start(10);
  CHILD_CHECK(WaitFor([&] { return app->steps >= 10; }, 60s));
  Application::StopAll(false);
  printf("STOPPED\n");
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(1), 60000));
  return CHILD_RESULT();
}

// The signal topics of `app` as configuration entries keeping their samples for late joiners.
std::string SignalTopicsConfig(const std::string& app) {
  const char* suffixes[] = {"pre_init",     "post_init",     "failed_init",
                            "pre_proc",     "post_proc",     "failed_proc",
                            "pre_finalize", "post_finalize", "failed_finalize"};
  std::string json = R"({"topics": [)";
  for (size_t i = 0; i < 9; ++i) {
    if (i > 0)
      json += ",";
    json +=
        R"({"name": ")" + app + "/" + suffixes[i] + R"(", "qos": {"durability": 2, "depth": 100}})";
  }
  return json + "]}";
}

TEST(ApplicationMultiProcessTest, AnotherProcessSeesTheSignalsAndThePerformanceBatches) {
  const std::string app_name = UniqueName("watched");
  const std::string config =
      korvan_test::WriteScratchFile("signals.json", SignalTopicsConfig(app_name));
  korvan_test::ScopedEnv config_env("KORVAN_BUS_CONFIG_PATH", config.c_str());
  auto watcher = Node::CreateNode("watcher", "");

  std::mutex mutex;
  std::map<uint32_t, std::vector<AppSignal>> signals;
  std::vector<std::shared_ptr<tarvik::quessa::Subscriber<AppSignal>>> subscribers;
  CountingApp names(app_name);  // only for its topic names
  for (uint32_t s = 0; s < Application::kSignalCount; ++s) {
    subscribers.push_back(watcher->CreateSubscriber<AppSignal>(
        names.GetTopicName(s), QoS(), [&, s](const std::shared_ptr<AppSignal>& signal) {
          std::lock_guard<std::mutex> lock(mutex);
          signals[s].push_back(*signal);
        }));
  }
  std::vector<SampleBatch> batches;
  auto perf = watcher->CreateSubscriber<SampleBatch>(
      "internal/perf_monitor", QoS(), [&](const std::shared_ptr<SampleBatch>& batch) {
        std::lock_guard<std::mutex> lock(mutex);
        batches.push_back(*batch);
      });

  const std::string finish = korvan_test::ScratchPath("finish");
  ChildProcess app("watched_application", {app_name, finish}, {"KORVAN_MONITORING=1"});
  ASSERT_TRUE(app.WaitForOutput("STOPPED", 60s)) << app.output();
  auto count = [&](uint32_t s) {
    std::lock_guard<std::mutex> lock(mutex);
    return signals[s].size();
  };
  ASSERT_TRUE(WaitFor(
      [&] {
        return count(Application::kPostFinalize) == 1 && count(Application::kPreFinalize) == 1 &&
               count(Application::kPreInit) == 1 && count(Application::kPostInit) == 1 &&
               count(Application::kPostProc) >= 10 &&
               count(Application::kPreProc) == count(Application::kPostProc);
      },
      60s))
      << app.output();
  {
    std::lock_guard<std::mutex> lock(mutex);
    const auto& pre = signals[Application::kPreProc];
    const auto& post = signals[Application::kPostProc];
    for (size_t i = 0; i < pre.size(); ++i) {
      EXPECT_EQ(pre[i].frame(), i);
      EXPECT_EQ(post[i].frame(), i);
      EXPECT_EQ(pre[i].interval(), 10);
    }
    EXPECT_EQ(signals[Application::kPreInit][0].frame(), 0u);
    EXPECT_EQ(signals[Application::kPreFinalize][0].frame(), pre.size());
    EXPECT_GT(signals[Application::kPreInit][0].timestamp(), 0u);
    EXPECT_EQ(signals[Application::kFailedProc].size(), 0u);
  }
  // Every step samples four values; Finalize sends what is left.
  ASSERT_TRUE(WaitFor(
      [&] {
        std::lock_guard<std::mutex> lock(mutex);
        size_t samples = 0;
        for (const auto& b : batches)
          samples += b.samples_size();
        return samples >= 40;
      },
      60s));
  {
    std::lock_guard<std::mutex> lock(mutex);
    const auto& first = batches.front().samples(0);
    EXPECT_EQ(first.counter_name(), app_name + "_proc_start");
    EXPECT_FALSE(batches.front().has_publish_ts());
  }
  korvan_test::TouchFile(finish);
  ASSERT_TRUE(app.Wait(60s));
  EXPECT_EQ(app.exit_code(), 0) << app.output();
}

}  // namespace
