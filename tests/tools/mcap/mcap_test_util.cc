#include "mcap_test_util.h"

#include <gtest/gtest.h>

namespace korvan_mcap_test {

namespace {

std::vector<mcap::Schema> Schemas() {
  return {
      mcap::Schema{1, "korvan.test.PlainMessage", "protobuf", std::string("\x0a\x02", 2) + "ab"},
      mcap::Schema{2, "other.Type", "jsonschema", "{}"}};
}

std::vector<mcap::Channel> Channels() {
  return {mcap::Channel{0, 1, "/a", "protobuf", {{"rate", "10"}, {"owner", "planner"}}},
          mcap::Channel{1, 2, "/b", "json", {}}, mcap::Channel{2, 0, "/c", "raw", {}}};
}

}  // namespace

std::string Write(const mcap::WriterOptions& options, const std::vector<Stored>& messages) {
  mcap::BufferSink sink;
  mcap::Writer writer;
  EXPECT_TRUE(writer.Open(&sink, options).ok());
  for (const mcap::Schema& schema : Schemas())
    EXPECT_TRUE(writer.AddSchema(schema).ok());
  for (const mcap::Channel& channel : Channels())
    EXPECT_TRUE(writer.AddChannel(channel).ok());
  for (const Stored& m : messages)
    EXPECT_TRUE(writer.Write(m.view()).ok());
  mcap::Status status = writer.Close();
  EXPECT_TRUE(status.ok()) << status.message();
  return sink.data();
}

Recording MakeRecording(const mcap::WriterOptions& options, int count, size_t large) {
  Recording r;
  r.schemas = Schemas();
  r.channels = Channels();
  for (int i = 0; i < count; ++i) {
    Stored m;
    m.channel_id = static_cast<uint16_t>(i % 3);
    m.sequence = static_cast<uint32_t>(i);
    m.log_time = kStart + static_cast<mcap::Timestamp>(i) * 10000000u;
    m.publish_time = m.log_time - 1000;
    size_t size = i % 17 == 16 ? large : static_cast<size_t>(i % 5) * 40;
    for (size_t b = 0; b < size; ++b)
      m.data.push_back(static_cast<char>('a' + (i + b / 7) % 26));
    r.messages.push_back(std::move(m));
  }
  r.bytes = Write(options, r.messages);
  return r;
}

std::vector<Stored> ReadStream(const std::string& bytes, std::vector<mcap::Problem>* problems,
                               const mcap::ReaderOptions& options) {
  mcap::BufferSource source(bytes);
  mcap::StreamReader reader(source, options);
  std::vector<Stored> out;
  mcap::Message m;
  while (reader.Next(&m))
    out.push_back(Stored::From(m));
  *problems = reader.problems();
  return out;
}

std::vector<Stored> ReadIndexed(const std::string& bytes, std::vector<mcap::Problem>* problems,
                                const mcap::ReaderOptions& options) {
  mcap::BufferSource source(bytes);
  mcap::IndexedReader reader(source, options);
  std::vector<Stored> out;
  mcap::Message m;
  while (reader.Next(&m))
    out.push_back(Stored::From(m));
  *problems = reader.problems();
  return out;
}

std::string Describe(const std::vector<mcap::Problem>& problems) {
  std::string text;
  for (const mcap::Problem& p : problems)
    text += p.ToString() + "\n";
  return text.empty() ? "(no problems)" : text;
}

bool HasProblem(const std::vector<mcap::Problem>& problems, uint64_t offset,
                const std::string& text) {
  for (const mcap::Problem& p : problems)
    if (p.offset == offset && p.message.find(text) != std::string::npos)
      return true;
  return false;
}

}  // namespace korvan_mcap_test
