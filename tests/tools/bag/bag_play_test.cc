// `korvan bag play`: a file written by npm's @mcap/core reaches a subscriber process, and a
// recording played back while recording again gives the same messages with the same timing.
#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include <gtest/gtest.h>

#include "bag_test_util.h"
#include "korvan/mcap/protobuf_schema.h"
#include "korvan/mcap/writer.h"
#include "support/child_process.h"
#include "support/test_environment.h"
#include "tarvikdds/bus/stamp_fields.h"
#include "test_proto/test_messages.pb.h"

namespace {

using korvan::test::PlainMessage;
using korvan::test::StampedMessage;
using korvan_bag_test::ExpectPublishersBytes;
using korvan_bag_test::kWait;
using korvan_bag_test::ReadRecording;
using korvan_bag_test::RecordedMessage;
using korvan_bag_test::RecordedSoFar;
using korvan_bag_test::Recording;
using korvan_bag_test::RunTool;
using korvan_bag_test::Tool;
using korvan_test::ChildProcess;
using korvan_test::WaitFor;

TEST(BagPlayTest, PlaysARecordingTheOutsideWriterMade) {
  std::string why;
  if (!korvan_bag_test::OutsideReadersInstalled(&why))
    GTEST_SKIP() << why;
  const std::string topic = korvan_test::UniqueName("bag/outside");
  const std::string file = korvan_test::ScratchPath("theirs.mcap");
  const auto written = korvan_bag_test::RunOutside("write_for_play.js", {file, topic, "40"});
  ASSERT_EQ(written.exit_code, 0) << written.output;

  ChildProcess subscriber("outside_subscriber", {topic, "40"});
  ASSERT_TRUE(subscriber.WaitForOutput("ready", kWait)) << subscriber.output();
  const auto played = RunTool({"bag", "play", file});
  EXPECT_EQ(played.exit_code, 0) << played.output;
  EXPECT_NE(played.output.find("played 40 messages"), std::string::npos) << played.output;
  ASSERT_TRUE(subscriber.Wait(kWait));
  EXPECT_EQ(subscriber.exit_code(), 0) << subscriber.output();
  EXPECT_NE(subscriber.output().find("received 40"), std::string::npos) << subscriber.output();
}

// Starts a recorder of `topics` into `file`, subscribed to all of them.
std::unique_ptr<ChildProcess> StartRecorder(const std::vector<std::string>& topics,
                                            const std::string& file) {
  std::vector<std::string> args = {"bag", "record", "-o", file};
  args.insert(args.end(), topics.begin(), topics.end());
  auto recorder = std::make_unique<ChildProcess>(ChildProcess::Program{Tool()}, args);
  for (const std::string& topic : topics)
    EXPECT_TRUE(recorder->WaitForOutput("recording " + topic, kWait)) << recorder->output();
  return recorder;
}

void StopRecorder(ChildProcess& recorder, long count) {
  ASSERT_TRUE(WaitFor([&] { return RecordedSoFar(recorder.output()) >= count; }, kWait))
      << recorder.output();
  recorder.Kill(SIGINT);
  ASSERT_TRUE(recorder.Wait(kWait));
  EXPECT_EQ(recorder.exit_code(), 0) << recorder.output();
}

// The content of a stamped message without its stamps, which a player writes afresh.
std::string WithoutStamps(const std::string& bytes) {
  StampedMessage m;
  EXPECT_TRUE(m.ParseFromString(bytes));
  m.clear_publish_ts();
  m.clear_counter();
  m.clear_publisher_id();
  m.clear_crc();
  m.clear_publish_ptp_ts();
  std::string out;
  EXPECT_TRUE(tarvik::korvan::bus::SerializeDeterministic(m, &out));
  return out;
}

uint64_t FirstLogTime(const Recording& recording) {
  uint64_t first = UINT64_MAX;
  for (const RecordedMessage& m : recording.messages)
    first = std::min(first, m.log_time);
  return first;
}

TEST(BagPlayTest, PlayedBackAndRecordedAgainTheMessagesMatch) {
  const std::string stamped_topic = korvan_test::UniqueName("bag/round_stamped");
  const std::string plain_topic = korvan_test::UniqueName("bag/round_plain");
  const std::string first_file = korvan_test::ScratchPath("first.mcap");
  const std::string second_file = korvan_test::ScratchPath("second.mcap");
  const std::string finish = korvan_test::ScratchPath("finish");
  const std::string go = korvan_test::ScratchPath("go");
  {
    auto recorder = StartRecorder({stamped_topic, plain_topic}, first_file);
    ChildProcess stamped("publisher", {stamped_topic, "stamped", "100", "50", finish, go});
    ChildProcess plain("publisher", {plain_topic, "plain", "60", "30", finish, go});
    // Both sides of both matches, then the publishers go.
    ASSERT_TRUE(
        WaitFor([&] { return korvan_bag_test::MatchedSoFar(recorder->output()) >= 2; }, kWait))
        << recorder->output();
    korvan_test::TouchFile(go);
    ASSERT_TRUE(stamped.WaitForOutput("done 100", kWait)) << stamped.output();
    ASSERT_TRUE(plain.WaitForOutput("done 60", kWait)) << plain.output();
    StopRecorder(*recorder, 160);
    korvan_test::TouchFile(finish);
    ASSERT_TRUE(stamped.Wait(kWait));
    ASSERT_TRUE(plain.Wait(kWait));
  }
  const Recording first = ReadRecording(first_file);
  ASSERT_EQ(first.messages.size(), 160u);

  {
    auto recorder = StartRecorder({stamped_topic, plain_topic}, second_file);
    const auto played = RunTool({"bag", "play", first_file});
    EXPECT_EQ(played.exit_code, 0) << played.output;
    EXPECT_NE(played.output.find("played 160 messages"), std::string::npos) << played.output;
    StopRecorder(*recorder, 160);
  }
  const Recording second = ReadRecording(second_file);
  ASSERT_EQ(second.messages.size(), 160u);

  const uint64_t first_start = FirstLogTime(first);
  const uint64_t second_start = FirstLogTime(second);
  for (const std::string& topic : {stamped_topic, plain_topic}) {
    const auto before = first.OnTopic(topic);
    const auto after = second.OnTopic(topic);
    ASSERT_EQ(before.size(), after.size()) << topic;
    for (size_t i = 0; i < before.size(); ++i) {
      SCOPED_TRACE(topic + " message " + std::to_string(i));
      if (topic == stamped_topic) {
        EXPECT_EQ(WithoutStamps(after[i].data), WithoutStamps(before[i].data));
        // Stamped afresh by the player's publisher: counters of its own, later times, a CRC
        // that holds.
        ExpectPublishersBytes(after[i].data);
        EXPECT_EQ(after[i].sequence - after[0].sequence, i);
        EXPECT_GT(after[i].publish_time, before[i].publish_time);
      } else {
        EXPECT_EQ(after[i].data, before[i].data);
      }
      // The same offset from the start, within what a shared machine's scheduling allows.
      const double offset_before = static_cast<double>(before[i].log_time - first_start) / 1e9;
      const double offset_after = static_cast<double>(after[i].log_time - second_start) / 1e9;
      EXPECT_NEAR(offset_after, offset_before, 0.5);
    }
  }

  // Played again: only the stamped topic, renamed, from 1 s on, four times as fast.
  const std::string renamed = stamped_topic + "_renamed";
  const std::string third_file = korvan_test::ScratchPath("third.mcap");
  {
    auto recorder = StartRecorder({renamed, plain_topic}, third_file);
    const auto played = RunTool({"bag", "play", first_file, "--topics", stamped_topic, "--remap",
                                 stamped_topic + ":=" + renamed, "--start", "1", "--rate", "4"});
    EXPECT_EQ(played.exit_code, 0) << played.output;
    size_t expected = 0;
    for (const RecordedMessage& m : first.OnTopic(stamped_topic))
      expected += m.log_time >= first_start + 1'000'000'000ull ? 1 : 0;
    StopRecorder(*recorder, static_cast<long>(expected));
    const Recording third = ReadRecording(third_file);
    EXPECT_EQ(third.OnTopic(plain_topic).size(), 0u);
    const auto moved = third.OnTopic(renamed);
    ASSERT_EQ(moved.size(), expected);
    const auto original = first.OnTopic(stamped_topic);
    const size_t skipped = original.size() - expected;
    EXPECT_EQ(WithoutStamps(moved.front().data), WithoutStamps(original[skipped].data));
    const double span_before =
        static_cast<double>(original.back().log_time - original[skipped].log_time) / 1e9;
    const double span_after =
        static_cast<double>(moved.back().log_time - moved.front().log_time) / 1e9;
    EXPECT_NEAR(span_after, span_before / 4, 0.5);
  }
}

// The tool on a pseudo-terminal: its standard input, output and error are the terminal.
class OnTerminal {
 public:
  explicit OnTerminal(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {Tool()};
    argv.insert(argv.end(), args.begin(), args.end());
    pid_ = forkpty(&master_, nullptr, nullptr, nullptr);
    if (pid_ == 0) {
      std::vector<char*> raw;
      for (auto& a : argv)
        raw.push_back(const_cast<char*>(a.c_str()));
      raw.push_back(nullptr);
      execv(raw[0], raw.data());
      _exit(127);
    }
    fcntl(master_, F_SETFL, O_NONBLOCK);
  }
  ~OnTerminal() {
    if (pid_ > 0 && !reaped_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (master_ >= 0)
      close(master_);
  }
  // Everything written so far.
  const std::string& Output() {
    char buffer[4096];
    ssize_t n;
    while ((n = read(master_, buffer, sizeof(buffer))) > 0)
      output_.append(buffer, static_cast<size_t>(n));
    return output_;
  }
  bool WaitFor(const std::function<bool(const std::string&)>& seen) {
    return korvan_test::WaitFor([&] { return seen(Output()); }, kWait);
  }
  void Type(const std::string& keys) {
    ASSERT_EQ(write(master_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }
  bool Canonical() {
    termios mode{};
    tcgetattr(master_, &mode);
    return (mode.c_lflag & ICANON) != 0 && (mode.c_lflag & ECHO) != 0;
  }
  int Wait() {
    int status = 0;
    korvan_test::WaitFor(
        [&] {
          Output();
          return waitpid(pid_, &status, WNOHANG) == pid_;
        },
        kWait);
    reaped_ = true;
    Output();
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  pid_t pid_ = -1;
  int master_ = -1;
  bool reaped_ = false;
  std::string output_;
};

// The number of messages the last "[paused] ..." status line reports, or -1.
long PausedAt(const std::string& output) {
  const size_t at = output.rfind("[paused]");
  if (at == std::string::npos)
    return -1;
  const size_t comma = output.find(", ", at);
  return comma == std::string::npos ? -1 : std::atol(output.c_str() + comma + 2);
}

TEST(BagPlayTest, SpacePausesAndResumesAndTheTerminalIsRestored) {
  // Two seconds of messages, nothing subscribed.
  const std::string file = korvan_test::ScratchPath("paced.mcap");
  {
    tarvik::korvan::mcap::Writer writer;
    ASSERT_TRUE(writer.Open(file).ok());
    auto schema = tarvik::korvan::mcap::ProtobufSchema(PlainMessage::descriptor());
    schema.id = 1;
    ASSERT_TRUE(writer.AddSchema(schema).ok());
    ASSERT_TRUE(
        writer.AddChannel({0, 1, korvan_test::UniqueName("bag/paced"), "protobuf", {}}).ok());
    for (uint32_t i = 0; i < 40; ++i) {
      PlainMessage m;
      m.set_sequence(i);
      const std::string data = m.SerializeAsString();
      const uint64_t t = 1700000000000000000ull + i * 50'000'000ull;
      ASSERT_TRUE(writer.Write({0, i, t, t, data}).ok());
    }
    ASSERT_TRUE(writer.Close().ok());
  }
  OnTerminal play({"bag", "play", file, "--wait", "0"});
  ASSERT_TRUE(play.WaitFor([](const std::string& out) {
    return out.find("[playing]") != std::string::npos;
  })) << play.Output();
  EXPECT_FALSE(play.Canonical());
  play.Type(" ");
  ASSERT_TRUE(play.WaitFor([](const std::string& out) { return PausedAt(out) >= 0; }))
      << play.Output();
  // Paused: the count stays, status line after status line (the first may still see a
  // message that was on its way).
  const auto paused_lines = [](const std::string& out) {
    size_t n = 0;
    for (size_t at = out.find("[paused]"); at != std::string::npos;
         at = out.find("[paused]", at + 1))
      ++n;
    return n;
  };
  const size_t before = paused_lines(play.Output());
  ASSERT_TRUE(play.WaitFor([&](const std::string& out) { return paused_lines(out) > before; }))
      << play.Output();
  const long count = PausedAt(play.Output());
  const size_t seen = paused_lines(play.Output());
  ASSERT_TRUE(play.WaitFor([&](const std::string& out) { return paused_lines(out) > seen; }))
      << play.Output();
  EXPECT_EQ(PausedAt(play.Output()), count);
  EXPECT_LT(count, 40);
  play.Type(" ");
  EXPECT_EQ(play.Wait(), 0) << play.Output();
  EXPECT_NE(play.Output().find("played 40 messages"), std::string::npos) << play.Output();
  EXPECT_TRUE(play.Canonical());
}

}  // namespace
