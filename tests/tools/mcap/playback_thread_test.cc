// Playback on the real clock, controlled from another thread.
#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "korvan/mcap/playback.h"
#include "mcap_test_util.h"

namespace korvan_mcap_test {
namespace {

TEST(PlaybackThreads, PauseResumeAndStopReachABlockedNext) {
  mcap::WriterOptions options;
  std::vector<Stored> messages = {{0, 0, kStart, kStart, "now"},
                                  {1, 1, kStart + 3600000000000ull, 0, "in an hour"}};
  const std::string bytes = Write(options, messages);
  mcap::BufferSource source(bytes);
  mcap::IndexedReader reader(source);
  mcap::IndexedPlaybackSource playback(&reader);
  auto clock = mcap::MakeSteadyPlaybackClock();
  mcap::PlaybackScheduler scheduler(&playback, clock.get(), {});

  std::promise<void> first;
  auto player = std::async(std::launch::async, [&] {
    mcap::ScheduledMessage out;
    int played = 0;
    while (scheduler.Next(&out)) {
      if (++played == 1)
        first.set_value();
    }
    return played;
  });
  ASSERT_EQ(first.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  scheduler.Pause();
  EXPECT_TRUE(scheduler.paused());
  scheduler.Resume();
  EXPECT_FALSE(scheduler.paused());
  scheduler.Stop();
  ASSERT_EQ(player.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_EQ(player.get(), 1);
}

}  // namespace
}  // namespace korvan_mcap_test
