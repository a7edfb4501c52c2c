// Playback timing on a fake clock: due times, rate, start offset, topic filter and renames,
// loops and pauses.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>

#include "korvan/mcap/playback.h"
#include "mcap_test_util.h"

namespace korvan_mcap_test {
namespace {

constexpr int64_t kMs = 1000000;

// Time moves only when the scheduler waits: to the deadline, unless a test hook wakes it.
class FakeClock : public mcap::PlaybackClock {
 public:
  int64_t Now() override { return now; }
  void WaitUntil(int64_t deadline) override {
    if (!woken && on_wait)
      on_wait(deadline);
    if (woken) {
      woken = false;
      return;
    }
    if (deadline == mcap::kWaitForever) {
      ADD_FAILURE() << "the scheduler waits for ever";
      scheduler->Stop();
      woken = false;
      return;
    }
    now = std::max(now, deadline);
  }
  void Wake() override { woken = true; }

  int64_t now = 5000 * kMs;
  bool woken = false;
  std::function<void(int64_t deadline)> on_wait;
  mcap::PlaybackScheduler* scheduler = nullptr;
};

class ListSource : public mcap::PlaybackSource {
 public:
  ListSource(std::vector<Stored> messages, std::vector<mcap::Channel> channels)
      : messages_(std::move(messages)) {
    for (mcap::Channel& c : channels)
      channels_[c.id] = std::move(c);
  }
  mcap::Timestamp start_time() const override {
    return messages_.empty() ? 0 : messages_.front().log_time;
  }
  void Rewind(mcap::Timestamp from) override {
    next_ = 0;
    while (next_ < messages_.size() && messages_[next_].log_time < from)
      ++next_;
  }
  bool Next(mcap::Message* message) override {
    if (next_ >= messages_.size())
      return false;
    *message = messages_[next_++].view();
    return true;
  }
  const mcap::Channel* FindChannel(uint16_t id) const override {
    auto it = channels_.find(id);
    return it != channels_.end() ? &it->second : nullptr;
  }

 private:
  std::vector<Stored> messages_;
  std::map<uint16_t, mcap::Channel> channels_;
  size_t next_ = 0;
};

// Messages on /a, /b, /c in turn at the given milliseconds after kStart.
ListSource Source(std::vector<int64_t> ms) {
  std::vector<Stored> messages;
  for (size_t i = 0; i < ms.size(); ++i) {
    mcap::Timestamp t = kStart + static_cast<mcap::Timestamp>(ms[i] * kMs);
    messages.push_back(Stored{static_cast<uint16_t>(i % 3), static_cast<uint32_t>(i), t, t, "m"});
  }
  return ListSource(messages,
                    {{0, 0, "/a", "raw", {}}, {1, 0, "/b", "raw", {}}, {2, 0, "/c", "raw", {}}});
}

struct Played {
  uint32_t sequence;
  std::string topic;
  int64_t at;  // clock time it was handed out, from the start
  uint64_t pass;
};

std::vector<Played> Play(mcap::PlaybackSource& source, mcap::PlaybackOptions options,
                         FakeClock& clock, size_t at_most = 100) {
  mcap::PlaybackScheduler scheduler(&source, &clock, std::move(options));
  clock.scheduler = &scheduler;
  const int64_t start = clock.now;
  std::vector<Played> played;
  mcap::ScheduledMessage out;
  while (played.size() < at_most && scheduler.Next(&out)) {
    EXPECT_EQ(out.due, clock.now);  // never early, and the fake clock is never late
    played.push_back({out.message.sequence, out.topic, (clock.now - start) / kMs, out.pass});
  }
  clock.scheduler = nullptr;
  return played;
}

std::vector<int64_t> Times(const std::vector<Played>& played) {
  std::vector<int64_t> at;
  for (const Played& p : played)
    at.push_back(p.at);
  return at;
}

TEST(Playback, DueTimesAreTheRecordedOffsetsDividedByTheRate) {
  for (auto [rate, expected] : std::vector<std::pair<double, std::vector<int64_t>>>{
           {1.0, {0, 100, 300, 1000}}, {2.0, {0, 50, 150, 500}}, {0.5, {0, 200, 600, 2000}}}) {
    ListSource source = Source({0, 100, 300, 1000});
    FakeClock clock;
    mcap::PlaybackOptions options;
    options.rate = rate;
    EXPECT_EQ(Times(Play(source, options, clock)), expected) << "rate " << rate;
  }
}

TEST(Playback, StartOffsetSkipsTheBeginningAndKeepsItsGap) {
  ListSource source = Source({0, 100, 300, 1000});
  FakeClock clock;
  mcap::PlaybackOptions options;
  options.start_offset_s = 0.2;
  std::vector<Played> played = Play(source, options, clock);
  ASSERT_EQ(played.size(), 2u);
  EXPECT_EQ(played[0].sequence, 2u);
  EXPECT_EQ(Times(played), (std::vector<int64_t>{100, 800}));
  // Past the end: nothing.
  options.start_offset_s = 5;
  EXPECT_TRUE(Play(source, options, clock).empty());
}

TEST(Playback, TopicFilterAndRenames) {
  ListSource source = Source({0, 10, 20, 30, 40, 50});
  FakeClock clock;
  mcap::PlaybackOptions options;
  options.topics = {"/a", "/c"};
  options.remaps = {*mcap::ParseTopicRemap("/a:=/robot/a")};
  std::vector<Played> played = Play(source, options, clock);
  std::vector<std::string> topics;
  for (const Played& p : played)
    topics.push_back(p.topic);
  EXPECT_EQ(topics, (std::vector<std::string>{"/robot/a", "/c", "/robot/a", "/c"}));
  EXPECT_EQ(Times(played), (std::vector<int64_t>{0, 20, 30, 50}));
}

TEST(Playback, LoopsStartOverRightAfterTheLastMessage) {
  ListSource source = Source({0, 100, 200});
  FakeClock clock;
  mcap::PlaybackOptions options;
  options.loop = true;
  std::vector<Played> played = Play(source, options, clock, 7);
  EXPECT_EQ(Times(played), (std::vector<int64_t>{0, 100, 200, 200, 300, 400, 400}));
  EXPECT_EQ(played[3].pass, 1u);
  EXPECT_EQ(played[6].pass, 2u);
  EXPECT_EQ(played[6].sequence, 0u);

  // A loop over nothing ends instead of spinning.
  options.topics = {"/none"};
  EXPECT_TRUE(Play(source, options, clock).empty());
  ListSource empty({}, {});
  EXPECT_TRUE(Play(empty, options, clock).empty());
}

TEST(Playback, PausedTimeDoesNotCount) {
  ListSource source = Source({0, 1000, 2000});
  FakeClock clock;
  mcap::PlaybackScheduler scheduler(&source, &clock, {});
  clock.scheduler = &scheduler;
  const int64_t start = clock.now;
  mcap::ScheduledMessage out;
  ASSERT_TRUE(scheduler.Next(&out));
  // While waiting for the second message: pause, let 5 s go by, resume.
  clock.on_wait = [&](int64_t deadline) {
    if (deadline != mcap::kWaitForever) {
      clock.now += 400 * kMs;
      scheduler.Pause();
      EXPECT_TRUE(scheduler.paused());
    } else {
      clock.now += 5000 * kMs;
      scheduler.Resume();
      clock.on_wait = nullptr;
    }
  };
  ASSERT_TRUE(scheduler.Next(&out));
  EXPECT_EQ(clock.now - start, 6000 * kMs);
  ASSERT_TRUE(scheduler.Next(&out));
  EXPECT_EQ(clock.now - start, 7000 * kMs);
  EXPECT_FALSE(scheduler.Next(&out));
}

TEST(Playback, StopEndsPlayback) {
  ListSource source = Source({0, 1000});
  FakeClock clock;
  mcap::PlaybackScheduler scheduler(&source, &clock, {});
  clock.scheduler = &scheduler;
  mcap::ScheduledMessage out;
  ASSERT_TRUE(scheduler.Next(&out));
  clock.on_wait = [&](int64_t) { scheduler.Stop(); };
  EXPECT_FALSE(scheduler.Next(&out));
  EXPECT_FALSE(scheduler.Next(&out));
}

TEST(Playback, RejectsUnusableOptions) {
  ListSource source = Source({0});
  FakeClock clock;
  const double nan = std::nan("");
  const double inf = std::numeric_limits<double>::infinity();
  for (auto [rate, offset] : std::vector<std::pair<double, double>>{
           {0, 0}, {-1, 0}, {nan, 0}, {inf, 0}, {1, -0.5}, {1, nan}, {1, inf}}) {
    mcap::PlaybackOptions options;
    options.rate = rate;
    options.start_offset_s = offset;
    mcap::PlaybackScheduler scheduler(&source, &clock, options);
    EXPECT_FALSE(scheduler.status().ok()) << rate << " " << offset;
    mcap::ScheduledMessage out;
    EXPECT_FALSE(scheduler.Next(&out));
  }
}

TEST(Playback, ParsesTopicRemaps) {
  auto remap = mcap::ParseTopicRemap("/ns/a:=/ns/b");
  ASSERT_TRUE(remap);
  EXPECT_EQ(remap->from, "/ns/a");
  EXPECT_EQ(remap->to, "/ns/b");
  for (const char* bad : {"", ":=", ":=b", "a:=", "ab", "a:b", "a:=b:=c"})
    EXPECT_FALSE(mcap::ParseTopicRemap(bad)) << bad;
}

TEST(Playback, PlaysAnIndexedRecordingFromAnOffset) {
  mcap::WriterOptions options;
  options.chunk_size = 500;
  Recording r = MakeRecording(options, 50);  // 10 ms apart
  mcap::BufferSource bytes(r.bytes);
  mcap::IndexedReader reader(bytes);
  mcap::IndexedPlaybackSource source(&reader);
  FakeClock clock;
  mcap::PlaybackOptions play;
  play.rate = 10;
  play.start_offset_s = 0.1;
  std::vector<Played> played = Play(source, play, clock);
  ASSERT_EQ(played.size(), 40u);
  for (size_t i = 0; i < played.size(); ++i) {
    EXPECT_EQ(played[i].sequence, 10 + i);
    EXPECT_EQ(played[i].at, static_cast<int64_t>(i));  // 10 ms of log time at rate 10
  }
}

}  // namespace
}  // namespace korvan_mcap_test
