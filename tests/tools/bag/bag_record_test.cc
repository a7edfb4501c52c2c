// `korvan bag record` against real publisher processes: what it writes is read back by our
// readers and by npm's outside readers, a recorder killed with SIGKILL leaves a file whose
// complete chunks read and that `bag recover` indexes, and files split as asked.
#include <signal.h>

#include <rapidjson/document.h>

#include <gtest/gtest.h>

#include "bag_test_util.h"
#include "korvan/bus/type_description.h"
#include "korvan/mcap/split_writer.h"
#include "support/child_process.h"
#include "support/test_environment.h"
#include "test_proto/test_messages.pb.h"

namespace {

using korvan::test::PlainMessage;
using korvan::test::StampedMessage;
using korvan_bag_test::ExpectPublishersBytes;
using korvan_bag_test::kWait;
using korvan_bag_test::MatchedSoFar;
using korvan_bag_test::OutsideExpectation;
using korvan_bag_test::ReadRecording;
using korvan_bag_test::RecordedSoFar;
using korvan_bag_test::Recording;
using korvan_bag_test::RunOutside;
using korvan_bag_test::RunTool;
using korvan_bag_test::Tool;
using korvan_test::ChildProcess;
using korvan_test::WaitFor;

// Runs the outside reader on `file` with `expectation`; skips quietly when it is not installed.
void ExpectOutsideReads(const std::string& file, const std::string& expectation) {
  std::string why;
  if (!korvan_bag_test::OutsideReadersInstalled(&why)) {
    std::printf("outside reader not run: %s\n", why.c_str());
    return;
  }
  const std::string expected = korvan_test::ScratchPath("expected.json");
  korvan_bag_test::WriteFile(expected, expectation);
  const auto result = RunOutside("read_recording.js", {file, expected});
  EXPECT_EQ(result.exit_code, 0) << result.output;
}

// Lets the publishers go once the recorder's subscriptions have matched `count` of them.
void Go(const ChildProcess& recorder, int count, const std::string& go) {
  ASSERT_TRUE(WaitFor([&] { return MatchedSoFar(recorder.output()) >= count; }, kWait))
      << recorder.output();
  korvan_test::TouchFile(go);
}

// Stops a recorder with Ctrl-C once it has written `count` messages.
void StopRecorder(ChildProcess& recorder, long count) {
  ASSERT_TRUE(WaitFor([&] { return RecordedSoFar(recorder.output()) >= count; }, kWait))
      << recorder.output();
  recorder.Kill(SIGINT);
  ASSERT_TRUE(recorder.Wait(kWait));
  EXPECT_EQ(recorder.exit_code(), 0) << recorder.output();
  EXPECT_NE(recorder.output().find("korvan: wrote "), std::string::npos) << recorder.output();
}

TEST(BagRecordTest, RecordsPublishersAsTheySentAndOutsideReadersReadIt) {
  const std::string stamped_topic = korvan_test::UniqueName("bag/stamped");
  const std::string plain_topic = korvan_test::UniqueName("bag/plain");
  const std::string file = korvan_test::ScratchPath("recorded.mcap");
  const std::string finish = korvan_test::ScratchPath("finish");
  const std::string go = korvan_test::ScratchPath("go");
  // -a before any publisher: topics that appear later are picked up.
  ChildProcess recorder(ChildProcess::Program{Tool()}, {"bag", "record", "-a", "-o", file});
  ASSERT_TRUE(recorder.WaitForOutput("recording to " + file, kWait)) << recorder.output();
  ChildProcess stamped("publisher", {stamped_topic, "stamped", "200", "200", finish, go});
  ChildProcess plain("publisher", {plain_topic, "plain", "150", "300", finish, go});
  Go(recorder, 2, go);
  ASSERT_TRUE(stamped.WaitForOutput("done 200", kWait)) << stamped.output();
  ASSERT_TRUE(plain.WaitForOutput("done 150", kWait)) << plain.output();
  StopRecorder(recorder, 350);
  EXPECT_NE(recorder.output().find("recording " + stamped_topic + " [korvan.test.StampedMessage]"),
            std::string::npos);
  EXPECT_NE(recorder.output().find("lost 0"), std::string::npos) << recorder.output();
  korvan_test::TouchFile(finish);

  const Recording recording = ReadRecording(file);
  ASSERT_TRUE(recording.indexed);
  EXPECT_TRUE(recording.complete);
  EXPECT_TRUE(recording.problems.empty());
  const auto stamped_messages = recording.OnTopic(stamped_topic);
  const auto plain_messages = recording.OnTopic(plain_topic);
  ASSERT_EQ(stamped_messages.size(), 200u);
  ASSERT_EQ(plain_messages.size(), 150u);
  for (size_t i = 0; i < stamped_messages.size(); ++i) {
    const auto& m = stamped_messages[i];
    SCOPED_TRACE("stamped message " + std::to_string(i));
    ExpectPublishersBytes(m.data);
    StampedMessage parsed;
    ASSERT_TRUE(parsed.ParseFromString(m.data));
    EXPECT_EQ(parsed.sequence(), i);
    // Publish time and sequence come from the stamps, log time is the receive time.
    EXPECT_EQ(m.publish_time, parsed.publish_ts());
    EXPECT_EQ(m.sequence, static_cast<uint32_t>(parsed.counter()));
    EXPECT_GE(m.log_time, m.publish_time);
    EXPECT_LT(m.log_time - m.publish_time, 60'000'000'000ull);
  }
  for (size_t i = 0; i < plain_messages.size(); ++i) {
    const auto& m = plain_messages[i];
    PlainMessage parsed;
    ASSERT_TRUE(parsed.ParseFromString(m.data));
    EXPECT_EQ(parsed.sequence(), i);
    EXPECT_EQ(m.sequence, i);  // counted per channel without a counter stamp
    EXPECT_EQ(m.publish_time, m.log_time);
  }
  // The schema is the description that travelled with the bus; the channel carries the
  // publisher's QoS for playback.
  for (const auto& [id, channel] : recording.channels) {
    const auto& schema = recording.schemas.at(channel.schema_id);
    EXPECT_EQ(schema.encoding, "protobuf");
    EXPECT_EQ(channel.message_encoding, "protobuf");
    EXPECT_EQ(channel.metadata.at("reliability"), "reliable");
    EXPECT_EQ(channel.metadata.at("durability"), "volatile");
    if (channel.topic == stamped_topic) {
      EXPECT_EQ(schema.data,
                tarvik::korvan::bus::DescribeType(StampedMessage::descriptor()).descriptor_set);
    }
  }

  const auto info = RunTool({"bag", "info", "--json", file});
  ASSERT_EQ(info.exit_code, 0) << info.output;
  rapidjson::Document json;
  ASSERT_FALSE(json.Parse(info.output.c_str()).HasParseError()) << info.output;
  EXPECT_EQ(json["messages"].GetUint64(), 350u);
  EXPECT_STREQ(json["compression"][0].GetString(), "zstd");
  EXPECT_TRUE(json["indexed"].GetBool());
  EXPECT_GT(json["duration_s"].GetDouble(), 0.3);
  EXPECT_LT(json["start_ns"].GetUint64(), json["end_ns"].GetUint64());
  size_t topics_found = 0;
  for (const auto& topic : json["topics"].GetArray()) {
    if (topic["topic"].GetString() == stamped_topic) {
      ++topics_found;
      EXPECT_STREQ(topic["type"].GetString(), "korvan.test.StampedMessage");
      EXPECT_EQ(topic["messages"].GetUint64(), 200u);
      EXPECT_GT(topic["rate_hz"].GetDouble(), 0);
    }
  }
  EXPECT_EQ(topics_found, 1u);
  const auto text = RunTool({"bag", "info", file});
  EXPECT_EQ(text.exit_code, 0) << text.output;
  EXPECT_NE(text.output.find(plain_topic), std::string::npos) << text.output;

  ExpectOutsideReads(file,
                     OutsideExpectation(true, {{stamped_topic, {"korvan.test.StampedMessage", 200}},
                                               {plain_topic, {"korvan.test.PlainMessage", 150}}}));
  ASSERT_TRUE(stamped.Wait(kWait));
  ASSERT_TRUE(plain.Wait(kWait));
  EXPECT_EQ(stamped.exit_code(), 0) << stamped.output();
}

TEST(BagRecordTest, KilledRecorderLeavesReadableChunksThatRecoverIndexes) {
  const std::string topic = korvan_test::UniqueName("bag/killed");
  const std::string file = korvan_test::ScratchPath("killed.mcap");
  const std::string fixed = korvan_test::ScratchPath("fixed.mcap");
  const std::string finish = korvan_test::ScratchPath("finish");
  const std::string go = korvan_test::ScratchPath("go");
  ChildProcess recorder(ChildProcess::Program{Tool()},
                        {"bag", "record", topic, "-o", file, "--compression", "lz4"});
  ChildProcess publisher("publisher", {topic, "stamped", "0", "200", finish, go});
  Go(recorder, 1, go);
  // The chunk flushed every second reaches the file while the recorder runs.
  ASSERT_TRUE(WaitFor([&] { return ReadRecording(file).messages.size() >= 300; }, kWait))
      << recorder.output();
  recorder.Kill(SIGKILL);
  ASSERT_TRUE(recorder.Wait(kWait));
  EXPECT_EQ(recorder.exit_code(), 128 + SIGKILL);
  korvan_test::TouchFile(finish);

  const Recording crashed = ReadRecording(file);
  EXPECT_FALSE(crashed.indexed);
  EXPECT_FALSE(crashed.complete);
  const size_t count = crashed.messages.size();
  ASSERT_GE(count, 300u);
  for (size_t i = 0; i < count; ++i) {
    StampedMessage parsed;
    ASSERT_TRUE(parsed.ParseFromString(crashed.messages[i].data));
    ASSERT_EQ(parsed.sequence(), i);
  }
  const auto info = RunTool({"bag", "info", file});
  EXPECT_EQ(info.exit_code, 1) << info.output;
  EXPECT_NE(info.output.find("incomplete"), std::string::npos) << info.output;
  EXPECT_NE(info.output.find("byte "), std::string::npos) << info.output;
  ExpectOutsideReads(file,
                     OutsideExpectation(false, {{topic, {"korvan.test.StampedMessage", count}}}));

  const auto recovered = RunTool({"bag", "recover", file, fixed});
  EXPECT_EQ(recovered.exit_code, 0) << recovered.output;
  EXPECT_NE(recovered.output.find(std::to_string(count) + " messages"), std::string::npos)
      << recovered.output;
  const Recording indexed = ReadRecording(fixed);
  ASSERT_TRUE(indexed.indexed);
  EXPECT_TRUE(indexed.complete);
  ASSERT_EQ(indexed.messages.size(), count);
  for (size_t i = 0; i < count; ++i) {
    EXPECT_EQ(indexed.messages[i].data, crashed.messages[i].data);
    EXPECT_EQ(indexed.messages[i].log_time, crashed.messages[i].log_time);
  }
  EXPECT_EQ(RunTool({"bag", "info", fixed}).exit_code, 0);
  ExpectOutsideReads(fixed,
                     OutsideExpectation(true, {{topic, {"korvan.test.StampedMessage", count}}}));
  ASSERT_TRUE(publisher.Wait(kWait));
  EXPECT_EQ(publisher.exit_code(), 0) << publisher.output();
}

TEST(BagRecordTest, SplitsIntoCompleteFiles) {
  const std::string topic = korvan_test::UniqueName("bag/split");
  const std::string base = korvan_test::ScratchPath("split");
  const std::string finish = korvan_test::ScratchPath("finish");
  const std::string go = korvan_test::ScratchPath("go");
  ChildProcess recorder(ChildProcess::Program{Tool()},
                        {"bag", "record", topic, "-o", base, "--split-size", "0.01"});
  ChildProcess publisher("publisher", {topic, "plain", "150", "300", finish, go});
  Go(recorder, 1, go);
  ASSERT_TRUE(publisher.WaitForOutput("done 150", kWait)) << publisher.output();
  StopRecorder(recorder, 150);
  korvan_test::TouchFile(finish);
  size_t total = 0;
  size_t files = 0;
  for (;; ++files) {
    const std::string name = tarvik::korvan::mcap::SplitWriter::FileName(base, files);
    if (::access(name.c_str(), F_OK) != 0)
      break;
    const Recording part = ReadRecording(name);
    EXPECT_TRUE(part.indexed) << name;
    EXPECT_TRUE(part.problems.empty()) << name;
    for (const auto& m : part.messages) {
      PlainMessage parsed;
      ASSERT_TRUE(parsed.ParseFromString(m.data));
      EXPECT_EQ(parsed.sequence(), total++);
    }
  }
  EXPECT_GE(files, 2u);
  EXPECT_EQ(total, 150u);
  ASSERT_TRUE(publisher.Wait(kWait));
}

TEST(BagRecordTest, WrongCommandLinesAreUsageErrors) {
  EXPECT_EQ(RunTool({"bag", "record"}).exit_code, 2);
  EXPECT_EQ(RunTool({"bag", "record", "-a", "some/topic"}).exit_code, 2);
  EXPECT_EQ(RunTool({"bag", "record", "-a", "--compression", "brotli"}).exit_code, 2);
  EXPECT_EQ(RunTool({"bag", "record", "-a", "--split-size", "-1"}).exit_code, 2);
  EXPECT_EQ(RunTool({"bag", "play", "missing.mcap", "--remap", "a=b"}).exit_code, 2);
  EXPECT_EQ(RunTool({"bag", "play", "missing.mcap", "--rate", "0"}).exit_code, 2);
  EXPECT_EQ(RunTool({"bag", "recover", "only-one.mcap"}).exit_code, 2);
  const auto missing = RunTool({"bag", "info", korvan_test::ScratchPath("missing.mcap")});
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_NE(missing.output.find("missing.mcap"), std::string::npos) << missing.output;
}

}  // namespace
