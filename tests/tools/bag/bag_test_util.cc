#include "bag_test_util.h"

#include <unistd.h>

#include <fstream>
#include <memory>

#include <gtest/gtest.h>

#include <sstream>

#include "support/child_process.h"
#include "tarvikdds/bus/stamp_fields.h"
#include "test_proto/test_messages.pb.h"

namespace korvan_bag_test {

namespace mcap = tarvik::korvan::mcap;

std::string Tool() {
  return KORVAN_TOOL_PATH;
}

ToolResult RunTool(const std::vector<std::string>& args, std::chrono::milliseconds timeout) {
  korvan_test::ChildProcess child(korvan_test::ChildProcess::Program{Tool()}, args);
  ToolResult result;
  if (!child.Wait(timeout)) {
    child.Kill(SIGKILL);
    child.Wait(10s);
    result.output = "(killed after the time-out) ";
  }
  result.exit_code = child.exit_code();
  result.output += child.output();
  return result;
}

bool OutsideReadersInstalled(std::string* why) {
  const std::string node = KORVAN_NODE_PATH;
  if (node.empty() || ::access(node.c_str(), X_OK) != 0) {
    *why = "node is not installed (scripts/setup installs it)";
    return false;
  }
  const std::string modules = std::string(KORVAN_OUTSIDE_DIR) + "/node_modules/@mcap/core";
  if (::access(modules.c_str(), R_OK) != 0) {
    *why = "the npm outside readers are not installed (scripts/setup installs them)";
    return false;
  }
  return true;
}

ToolResult RunOutside(const std::string& script, const std::vector<std::string>& args) {
  std::vector<std::string> argv = {std::string(KORVAN_OUTSIDE_DIR) + "/" + script};
  argv.insert(argv.end(), args.begin(), args.end());
  korvan_test::ChildProcess child(korvan_test::ChildProcess::Program{KORVAN_NODE_PATH}, argv);
  ToolResult result;
  if (!child.Wait(kWait)) {
    child.Kill(SIGKILL);
    child.Wait(10s);
  }
  result.exit_code = child.exit_code();
  result.output = child.output();
  return result;
}

std::map<std::string, size_t> Recording::CountByTopic() const {
  std::map<std::string, size_t> counts;
  for (const RecordedMessage& m : messages)
    ++counts[m.topic];
  return counts;
}

std::vector<RecordedMessage> Recording::OnTopic(const std::string& topic) const {
  std::vector<RecordedMessage> out;
  for (const RecordedMessage& m : messages) {
    if (m.topic == topic)
      out.push_back(m);
  }
  return out;
}

namespace {

template <typename Reader>
void Collect(Reader& reader, Recording* out) {
  mcap::Message message;
  while (reader.Next(&message)) {
    RecordedMessage m;
    const mcap::Channel& channel = reader.channels().at(message.channel_id);
    m.topic = channel.topic;
    auto schema = reader.schemas().find(channel.schema_id);
    if (schema != reader.schemas().end())
      m.schema_name = schema->second.name;
    m.sequence = message.sequence;
    m.log_time = message.log_time;
    m.publish_time = message.publish_time;
    m.data = std::string(message.data);
    out->messages.push_back(std::move(m));
  }
  out->schemas = reader.schemas();
  out->channels = reader.channels();
  out->problems.insert(out->problems.end(), reader.problems().begin(), reader.problems().end());
}

}  // namespace

Recording ReadRecording(const std::string& path) {
  Recording out;
  mcap::Status status;
  std::unique_ptr<mcap::FileSource> source = mcap::FileSource::Open(path, &status);
  if (!source) {
    out.problems.push_back(mcap::Problem{0, status.message()});
    return out;
  }
  {
    mcap::IndexedReader indexed(*source);
    if (indexed.ok()) {
      out.indexed = true;
      Collect(indexed, &out);
    }
  }
  mcap::StreamReader stream(*source);
  if (!out.indexed) {
    Collect(stream, &out);
  } else {
    mcap::Message message;
    while (stream.Next(&message)) {
    }
  }
  out.complete = stream.complete();
  return out;
}

long RecordedSoFar(const std::string& output) {
  const std::string marker = " msgs,";
  const size_t at = output.rfind(marker);
  if (at == std::string::npos)
    return -1;
  size_t begin = at;
  while (begin > 0 && output[begin - 1] >= '0' && output[begin - 1] <= '9')
    --begin;
  return begin == at ? -1 : std::stol(output.substr(begin, at - begin));
}

void ExpectPublishersBytes(const std::string& bytes) {
  korvan::test::StampedMessage parsed;
  ASSERT_TRUE(parsed.ParseFromString(bytes));
  std::string again;
  ASSERT_TRUE(tarvik::korvan::bus::SerializeDeterministic(parsed, &again));
  EXPECT_EQ(again, bytes);
  const uint32_t carried = parsed.crc();
  parsed.set_crc(0);
  std::string zeroed;
  ASSERT_TRUE(tarvik::korvan::bus::SerializeDeterministic(parsed, &zeroed));
  EXPECT_EQ(tarvik::korvan::bus::Crc32(zeroed.data(), zeroed.size()), carried);
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

long MatchedSoFar(const std::string& output) {
  const size_t at = output.rfind(" publisher");
  if (at == std::string::npos)
    return -1;
  size_t begin = at;
  while (begin > 0 && output[begin - 1] >= '0' && output[begin - 1] <= '9')
    --begin;
  return begin == at ? -1 : std::stol(output.substr(begin, at - begin));
}

std::string OutsideExpectation(bool indexed, const std::map<std::string, OutsideTopic>& topics) {
  std::string json = std::string("{\"indexed\":") + (indexed ? "true" : "false") + ",\"topics\":{";
  bool first = true;
  for (const auto& [name, topic] : topics) {
    json += (first ? "\"" : ",\"") + name + "\":{\"type\":\"" + topic.type +
            "\",\"count\":" + std::to_string(topic.count) +
            ",\"first_sequence\":" + std::to_string(topic.first_sequence) + "}";
    first = false;
  }
  return json + "}}";
}

}  // namespace korvan_bag_test
