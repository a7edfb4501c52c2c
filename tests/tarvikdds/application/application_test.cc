// Applications in one process; their lifecycle signals observed through in-process
// subscribers.
#include "tarvikdds/application/application.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/test_environment.h"
#include "test_proto/test_messages.pb.h"

namespace {

using korvan_test::ChildProcess;
using korvan_test::LogCapture;
using korvan_test::UniqueName;
using korvan_test::WaitFor;
using tarvik::quessa::Application;
using tarvik::quessa::Node;
using tarvik::quessa::QoS;
using tarvik::quessa::messages::internal::AppSignal;
using namespace std::chrono_literals;

// An application whose behaviour the test scripts.
class ScriptedApp : public Application {
 public:
  explicit ScriptedApp(const std::string& name) : Application(name) {}

  std::string Init() override { return init_error; }
  std::string Proc(uint64_t now, uint64_t delta) override {
    {
      std::lock_guard<std::mutex> lock(mutex);
      deltas.push_back(delta);
      last_now = now;
    }
    ++procs;
    if (proc_sleep.count() > 0)
      std::this_thread::sleep_for(proc_sleep);
    if (block_proc) {
      std::unique_lock<std::mutex> lock(mutex);
      in_proc = true;
      changed.notify_all();
      changed.wait(lock, [this] { return !block_proc; });
      proc_finished_before_finalize = !finalized;
    }
    return proc_error;
  }
  std::string Finalize() override {
    finalized = true;
    return finalize_error;
  }

  void Release() {
    std::lock_guard<std::mutex> lock(mutex);
    block_proc = false;
    changed.notify_all();
  }

  std::string init_error;
  std::string proc_error;
  std::string finalize_error;
  std::chrono::milliseconds proc_sleep{0};
  std::atomic<int> procs{0};
  std::atomic<bool> finalized{false};
  bool block_proc = false;
  bool in_proc = false;
  bool proc_finished_before_finalize = false;
  uint64_t last_now = 0;
  std::vector<uint64_t> deltas;
  std::mutex mutex;
  std::condition_variable changed;
};

// Records the lifecycle signals of one application, in arrival order per signal kind.
class SignalRecorder {
 public:
  SignalRecorder(Node& node, const Application& app) {
    for (uint32_t s = 0; s < Application::kSignalCount; ++s) {
      subscribers_.push_back(node.CreateSubscriber<AppSignal>(
          app.GetTopicName(s), QoS(), [this, s](const std::shared_ptr<AppSignal>& signal) {
            std::lock_guard<std::mutex> lock(mutex_);
            seen_.emplace_back(s, *signal);
          }));
    }
  }
  std::vector<std::pair<uint32_t, AppSignal>> Seen() {
    std::lock_guard<std::mutex> lock(mutex_);
    return seen_;
  }
  size_t Count(uint32_t signal) { return Frames(signal).size(); }
  std::vector<uint64_t> Frames(uint32_t signal) {
    std::vector<uint64_t> frames;
    for (const auto& s : Seen()) {
      if (s.first == signal)
        frames.push_back(s.second.frame());
    }
    return frames;
  }

 private:
  std::mutex mutex_;
  std::vector<std::pair<uint32_t, AppSignal>> seen_;
  std::vector<std::shared_ptr<tarvik::quessa::Subscriber<AppSignal>>> subscribers_;
};

class ApplicationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    korvan_test::UseLocalBus();
    observer_ = Node::CreateNode(UniqueName("observer"), "");
  }
  std::unique_ptr<Node> observer_;
};

TEST_F(ApplicationTest, NameAndSignalTopics) {
  {
    korvan_test::ScopedEnv bin("USE_BIN_NAME", "1");
    ScriptedApp app("ignored");
    EXPECT_EQ(app.name(), "application_test");
  }
  korvan_test::ScopedEnv bin("USE_BIN_NAME", "yes");
  ScriptedApp app("nav");
  EXPECT_EQ(app.name(), "nav");
  EXPECT_EQ(app.GetTopicName(Application::kPreFinalize), "nav/pre_finalize");
  EXPECT_EQ(app.GetTopicName(Application::kFailedProc), "nav/failed_proc");
}

TEST_F(ApplicationTest, StartTwiceAndStopWhenStoppedThrow) {
  ScriptedApp app(UniqueName("twice"));
  app.Start(-1);
  EXPECT_TRUE(app.IsRunning());
  try {
    app.Start();
    FAIL();
  } catch (const std::runtime_error& e) {
    const std::string text = e.what();
    EXPECT_EQ(text.rfind("application/application.cc : Start @line ", 0), 0u) << text;
    EXPECT_NE(text.find(" Application has already been started: " + app.name()), std::string::npos);
  }
  app.Stop();
  EXPECT_FALSE(app.IsRunning());
  try {
    app.Stop();
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string(e.what()).find("Stop @line "), std::string::npos);
    EXPECT_NE(std::string(e.what()).find("Application is not running: " + app.name()),
              std::string::npos);
  }
}

TEST_F(ApplicationTest, SignalSequenceOfAPeriodicRun) {
  ScriptedApp app(UniqueName("periodic"));
  SignalRecorder signals(*observer_, app);
  app.Start(5);
  ASSERT_TRUE(WaitFor([&] { return app.procs >= 4; }, 10s));
  app.Stop();
  // Each signal kind has its own topic (and delivery thread): check each one's frames.
  const uint64_t steps = app.frame();
  EXPECT_GE(steps, 4u);
  ASSERT_TRUE(WaitFor(
      [&] {
        return signals.Count(Application::kPreProc) == steps &&
               signals.Count(Application::kPostProc) == steps &&
               signals.Count(Application::kPreFinalize) == 1 &&
               signals.Count(Application::kPostFinalize) == 1;
      },
      10s));
  EXPECT_EQ(signals.Frames(Application::kPreInit), std::vector<uint64_t>{0});
  EXPECT_EQ(signals.Frames(Application::kPostInit), std::vector<uint64_t>{0});
  std::vector<uint64_t> expected;
  for (uint64_t f = 0; f < steps; ++f)
    expected.push_back(f);
  EXPECT_EQ(signals.Frames(Application::kPreProc), expected);
  EXPECT_EQ(signals.Frames(Application::kPostProc), expected);
  EXPECT_EQ(signals.Frames(Application::kPreFinalize), std::vector<uint64_t>{steps});
  EXPECT_EQ(signals.Frames(Application::kPostFinalize), std::vector<uint64_t>{steps});
  for (uint32_t failed :
       {Application::kFailedInit, Application::kFailedProc, Application::kFailedFinalize}) {
    EXPECT_EQ(signals.Count(failed), 0u);
  }
  for (const auto& s : signals.Seen())
    EXPECT_EQ(s.second.interval(), 5);
  EXPECT_EQ(app.deltas.front(), 0u);  // the first step has no previous one
}

TEST_F(ApplicationTest, FailuresAreSignalledAndTheRunGoesOn) {
  ScriptedApp app(UniqueName("failing"));
  app.init_error = "no map";
  app.proc_error = "lost";
  app.finalize_error = "stuck";
  SignalRecorder signals(*observer_, app);
  LogCapture log(3);
  app.Start(5);
  ASSERT_TRUE(WaitFor([&] { return app.procs >= 2; }, 10s));
  EXPECT_TRUE(app.IsRunning());
  app.Stop();
  ASSERT_TRUE(WaitFor(
      [&] {
        return signals.Count(Application::kFailedFinalize) == 1 &&
               signals.Count(Application::kFailedInit) == 1 &&
               signals.Count(Application::kFailedProc) >= 2;
      },
      10s));
  EXPECT_EQ(signals.Count(Application::kFailedInit), 1u);
  EXPECT_EQ(signals.Count(Application::kPostInit), 0u);
  EXPECT_GE(signals.Count(Application::kFailedProc), 2u);
  EXPECT_EQ(signals.Count(Application::kPostProc), 0u);
  EXPECT_EQ(signals.Count(Application::kFailedFinalize), 1u);
  for (const auto& s : signals.Seen()) {
    if (s.first == Application::kFailedInit) {
      EXPECT_EQ(s.second.error(), "no map");
    }
    if (s.first == Application::kFailedFinalize) {
      EXPECT_EQ(s.second.error(), "stuck");
    }
  }

  EXPECT_EQ(log.Count("App " + app.name() + " failed to init: no map"), 1u);
  EXPECT_EQ(log.Count("App " + app.name() + " failed to finalize: stuck"), 1u);
  EXPECT_GE(log.Count("App " + app.name() + " failed to proc: lost"), 2u);
}

TEST_F(ApplicationTest, FrameCounterResetsOnlyAfterInit) {
  ScriptedApp app(UniqueName("frames"));
  SignalRecorder signals(*observer_, app);
  app.Start(5);
  ASSERT_TRUE(WaitFor([&] { return app.procs >= 3; }, 10s));
  app.Stop();
  const uint64_t reached = app.frame();
  ASSERT_GE(reached, 3u);
  app.Start(-1);  // no trigger: the second run does not proc
  app.Stop();
  ASSERT_TRUE(WaitFor(
      [&] {
        return signals.Count(Application::kPostFinalize) == 2 &&
               signals.Count(Application::kPreInit) == 2 &&
               signals.Count(Application::kPostInit) == 2;
      },
      10s));

  EXPECT_EQ(signals.Frames(Application::kPreInit), (std::vector<uint64_t>{0, reached}));
  EXPECT_EQ(signals.Frames(Application::kPostInit), (std::vector<uint64_t>{0, reached}));
}

TEST_F(ApplicationTest, StartModesReplaceEachOther) {
  ScriptedApp app(UniqueName("modes"));
  app.Start(std::vector<std::vector<std::string>>{{UniqueName("ev")}});
  EXPECT_EQ(app.interval(), -1);
  app.Stop();
  app.Start(5);
  EXPECT_EQ(app.interval(), 5);
  EXPECT_TRUE(app.events().empty());
  ASSERT_TRUE(WaitFor([&] { return app.procs >= 1; }, 10s));
  app.Stop();
  app.Start(std::vector<std::vector<std::string>>{{"x"}});
  EXPECT_EQ(app.interval(), -1);
  app.Stop();

  // Interval 0 still arms a timer; -1 without events arms nothing.
  ScriptedApp fast(UniqueName("zero"));
  fast.Start(0);
  EXPECT_TRUE(WaitFor([&] { return fast.procs >= 10; }, 10s));
  fast.Stop();
  ScriptedApp idle(UniqueName("idle"));
  idle.Start(-1);
  std::this_thread::sleep_for(50ms);
  idle.Stop();
  EXPECT_EQ(idle.procs, 0);
}

TEST_F(ApplicationTest, EventSetsTriggerAsAnOrOfAnds) {
  const std::string a = UniqueName("ev_a");
  const std::string b = UniqueName("ev_b");
  const std::string c = UniqueName("ev_c");
  ScriptedApp app(UniqueName("events"));
  app.Start(std::vector<std::vector<std::string>>{{a, b}, {c}});
  auto pub_a = observer_->CreatePublisher<korvan::test::PlainMessage>(a, QoS());
  auto pub_b = observer_->CreatePublisher<korvan::test::PlainMessage>(b, QoS());
  auto pub_c = observer_->CreatePublisher<korvan::test::PlainMessage>(c, QoS());
  auto msg = std::make_shared<korvan::test::PlainMessage>();
  // One arrival at a time: each is handled before the next is sent.
  LogCapture log(5);
  auto send = [&](auto& publisher, const std::string& event, size_t nth) {
    publisher->Publish(msg);
    ASSERT_TRUE(WaitFor([&] { return log.Count(event + " recevied. ") == nth; }, 10s));
  };

  send(pub_a, a, 1);
  EXPECT_EQ(app.procs, 0);  // half of the first set
  send(pub_b, b, 1);
  ASSERT_TRUE(WaitFor([&] { return app.procs == 1; }, 10s));
  EXPECT_FALSE(app.EvaluateEventTriggers());  // everything consumed, the other set's too
  send(pub_c, c, 1);
  ASSERT_TRUE(WaitFor([&] { return app.procs == 2; }, 10s));
  send(pub_a, a, 2);
  EXPECT_EQ(app.procs, 2);
  app.Stop();
}

TEST_F(ApplicationTest, OverrunsOfThreeIntervalsAreReported) {
  LogCapture log(3);
  ScriptedApp slow(UniqueName("slow"));
  slow.proc_sleep = 40ms;
  slow.Start(10);
  ASSERT_TRUE(WaitFor([&] { return slow.procs >= 2; }, 10s));
  slow.Stop();
  auto lines = log.Matching("app name: " + slow.name() + " pre proc ts: ");
  ASSERT_GE(lines.size(), 1u);
  EXPECT_NE(lines[0].find("us, m_interval: 10000us"), std::string::npos) << lines[0];
  EXPECT_NE(lines[0].find("[tarvikdds_logs]["), std::string::npos) << lines[0];

  ScriptedApp quick(UniqueName("quick"));
  quick.Start(50);
  ASSERT_TRUE(WaitFor([&] { return quick.procs >= 2; }, 10s));
  quick.Stop();
  EXPECT_EQ(log.Count("app name: " + quick.name() + " pre proc ts: "), 0u);
}

TEST_F(ApplicationTest, StopWaitsForASlowStepAndLaterStepsDoNothing) {
  ScriptedApp app(UniqueName("blocking"));
  app.block_proc = true;
  app.Start(5);
  {
    std::unique_lock<std::mutex> lock(app.mutex);
    ASSERT_TRUE(app.changed.wait_for(lock, 10s, [&] { return app.in_proc; }));
  }
  std::thread stopper([&] { app.Stop(); });
  app.Release();
  stopper.join();
  EXPECT_TRUE(app.proc_finished_before_finalize);
  EXPECT_TRUE(app.finalized);
  LogCapture log(4);
  const int before = app.procs;
  app.CallProc();
  EXPECT_EQ(app.procs, before);
  EXPECT_EQ(log.Count("app name: " + app.name() + " CallProc stopped"), 1u);
}

TEST_F(ApplicationTest, RegistryOrderAndTheUnknownNameRule) {
  Application::StopAll(true);
  auto first = std::make_shared<ScriptedApp>("first");
  auto second = std::make_shared<ScriptedApp>("second");
  Application::Register("first", first);
  Application::Register("second", second);
  EXPECT_EQ(Application::GetInstance("second"), second);
  EXPECT_EQ(Application::GetInstance("no-such-app"), first);
  EXPECT_EQ(Application::GetInstanceCount(), 2u);
  auto replacement = std::make_shared<ScriptedApp>("first");
  Application::Register("first", replacement);
  EXPECT_EQ(Application::GetInstanceAt(0), replacement);
  second->Start(-1);
  Application::StopAll(true);
  EXPECT_FALSE(second->IsRunning());
  EXPECT_EQ(Application::GetInstanceCount(), 0u);
  // Ids start at 0 again: the next registration is what unknown names find.
  auto later = std::make_shared<ScriptedApp>("later");
  Application::Register("later", later);
  EXPECT_EQ(Application::GetInstance("anything"), later);
  // With nothing under id 0, an unknown name finds nothing and leaves an empty entry.
  Application::StopAll(true);
  EXPECT_EQ(Application::GetInstance("ghost"), nullptr);
  EXPECT_EQ(Application::GetInstanceCount(), 1u);
  Application::StopAll(true);
}

KORVAN_CHILD_ROLE(init_throws) {
  class Throwing : public ScriptedApp {
   public:
    Throwing() : ScriptedApp("thrower") {}
    std::string Init() override { throw std::runtime_error("boom"); }
  };
  Throwing app;
  app.Start(-1);
  return 0;
}

TEST_F(ApplicationTest, UncaughtExceptionsAreReportedByTheTerminateHandler) {
  ChildProcess child("init_throws", {}, {"KORVAN_BUS_TRANSPORT=local"});
  ASSERT_TRUE(child.Wait(60s));
  EXPECT_EQ(child.exit_code(), 128 + SIGABRT);
  EXPECT_NE(child.output().find("caught unhandled std::exception. what(): boom"), std::string::npos)
      << child.output();
}

KORVAN_CHILD_ROLE(topic_on_chip) {
  ScriptedApp app("nav");
  CHILD_CHECK(app.GetTopicName(Application::kPostInit) == "nav_S2/post_init");
  return CHILD_RESULT();
}

TEST_F(ApplicationTest, SignalTopicsCarryTheChipIndex) {
  ChildProcess child("topic_on_chip", {}, {"KORVAN_SOC_INDEX=2", "KORVAN_BUS_TRANSPORT=local"});
  ASSERT_TRUE(child.Wait(60s));
  EXPECT_EQ(child.exit_code(), 0) << child.output();
}

}  // namespace
