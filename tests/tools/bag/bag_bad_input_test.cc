// `korvan bag info | play | recover` on files that are not whole recordings: each names the
// byte offset at fault, uses what is readable, exits 1 and never crashes.
#include <gtest/gtest.h>

#include "bag_test_util.h"
#include "korvan/mcap/protobuf_schema.h"
#include "korvan/mcap/reader.h"
#include "korvan/mcap/writer.h"
#include "support/test_environment.h"
#include "test_proto/test_messages.pb.h"

namespace {

namespace mcap = tarvik::korvan::mcap;
using korvan_bag_test::ReadFile;
using korvan_bag_test::ReadRecording;
using korvan_bag_test::RunTool;
using korvan_bag_test::WriteFile;

constexpr int kMessages = 60;
// In a chunk record: opcode and length (9), start and end time, uncompressed size and CRC (28),
// the compression string's length (4), then the string.
constexpr uint64_t kCompressionAt = 9 + 28 + 4;

// A recording of PlainMessages in several chunks, and where its chunks are.
struct Sample {
  std::string bytes;
  std::vector<mcap::ChunkIndex> chunks;
};

Sample MakeSample(mcap::Compression compression) {
  mcap::BufferSink sink;
  mcap::Writer writer;
  mcap::WriterOptions options;
  options.compression = compression;
  options.chunk_size = 1500;
  EXPECT_TRUE(writer.Open(&sink, options).ok());
  mcap::Schema schema = mcap::ProtobufSchema(korvan::test::PlainMessage::descriptor());
  schema.id = 1;
  EXPECT_TRUE(writer.AddSchema(schema).ok());
  EXPECT_TRUE(
      writer.AddChannel({0, 1, korvan_test::UniqueName("bag/damaged"), "protobuf", {}}).ok());
  for (int i = 0; i < kMessages; ++i) {
    korvan::test::PlainMessage m;
    m.set_sequence(static_cast<uint64_t>(i));
    m.set_payload(std::string(100, 'x'));
    const std::string data = m.SerializeAsString();
    const uint64_t time = 1700000000000000000ull + static_cast<uint64_t>(i) * 1000000;
    EXPECT_TRUE(writer.Write({0, static_cast<uint32_t>(i), time, time, data}).ok());
  }
  EXPECT_TRUE(writer.Close().ok());
  Sample sample{sink.data(), {}};
  mcap::BufferSource source(sample.bytes);
  mcap::IndexedReader reader(source);
  sample.chunks = reader.chunk_indexes();
  EXPECT_GE(sample.chunks.size(), 3u);
  return sample;
}

struct Case {
  std::string name;
  std::string bytes;
  uint64_t offset;  // the byte the tools must name
  int recover_exit;
};

std::vector<Case> Cases() {
  std::vector<Case> cases;
  cases.push_back({"not_a_recording", std::string(200, 'x') + "\nnot a recording\n", 0, 1});
  {
    const Sample s = MakeSample(mcap::Compression::kZstd);
    const mcap::ChunkIndex& second = s.chunks[1];
    const uint64_t cut = second.chunk_start_offset + second.chunk_length / 2;
    // A recorder killed mid-chunk: recovering it is what recover is for.
    cases.push_back({"truncated", s.bytes.substr(0, cut), second.chunk_start_offset, 0});
  }
  {
    Sample s = MakeSample(mcap::Compression::kNone);
    const mcap::ChunkIndex& second = s.chunks[1];
    s.bytes[second.chunk_start_offset + second.chunk_length - 20] ^= 0x01;
    cases.push_back({"crc_fails", s.bytes, second.chunk_start_offset, 1});
  }
  {
    Sample s = MakeSample(mcap::Compression::kZstd);
    const mcap::ChunkIndex& second = s.chunks[1];
    EXPECT_EQ(s.bytes.substr(second.chunk_start_offset + kCompressionAt, 4), "zstd");
    s.bytes[second.chunk_start_offset + kCompressionAt + 3] = 'x';
    cases.push_back({"unknown_compression", s.bytes, second.chunk_start_offset, 1});
  }
  return cases;
}

TEST(BagBadInputTest, EachDamageIsNamedWithItsOffsetAndTheRestIsRead) {
  for (const Case& c : Cases()) {
    SCOPED_TRACE(c.name);
    const std::string file = korvan_test::ScratchPath(c.name + ".mcap");
    WriteFile(file, c.bytes);
    const std::string at = "byte " + std::to_string(c.offset) + ":";

    const auto info = RunTool({"bag", "info", file});
    EXPECT_EQ(info.exit_code, 1) << info.output;
    EXPECT_NE(info.output.find(at), std::string::npos) << info.output;
    const auto json = RunTool({"bag", "info", "--json", file});
    EXPECT_EQ(json.exit_code, 1) << json.output;
    EXPECT_NE(json.output.find("\"offset\":" + std::to_string(c.offset)), std::string::npos)
        << json.output;

    // Nothing subscribes: play publishes what it can read at once.
    const auto played = RunTool({"bag", "play", file, "--wait", "0", "--rate", "100"});
    EXPECT_EQ(played.exit_code, 1) << played.output;
    EXPECT_NE(played.output.find(at), std::string::npos) << played.output;

    const std::string out = korvan_test::ScratchPath(c.name + "_recovered.mcap");
    const auto recovered = RunTool({"bag", "recover", file, out});
    EXPECT_EQ(recovered.exit_code, c.recover_exit) << recovered.output;
    EXPECT_NE(recovered.output.find(at), std::string::npos) << recovered.output;
    // What was readable is in the recovered file, indexed.
    const auto readable = ReadRecording(file);
    const auto fixed = ReadRecording(out);
    EXPECT_TRUE(fixed.indexed);
    EXPECT_EQ(fixed.messages.size(), readable.messages.size());
    if (c.name != "not_a_recording") {
      EXPECT_GT(readable.messages.size(), 0u);
      EXPECT_LT(readable.messages.size(), static_cast<size_t>(kMessages));
    }
  }
}

TEST(BagBadInputTest, RecoverRefusesToWriteOverItsInput) {
  const std::string file = korvan_test::ScratchPath("self.mcap");
  const std::string bytes = MakeSample(mcap::Compression::kZstd).bytes;
  WriteFile(file, bytes);
  const auto result = RunTool({"bag", "recover", file, file});
  EXPECT_EQ(result.exit_code, 1) << result.output;
  EXPECT_EQ(ReadFile(file), bytes);
  EXPECT_TRUE(ReadRecording(file).indexed);
}

}  // namespace
