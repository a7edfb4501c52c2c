// Round trips through the writer and both readers, the file layout outside readers rely on,
// and the writer's checks of what it is given.
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "compression.h"
#include "format.h"
#include "korvan/mcap/info.h"
#include "korvan/mcap/writer.h"
#include "mcap_test_util.h"

namespace korvan_mcap_test {
namespace {

namespace f = mcap::format;

uint64_t U64At(const std::string& bytes, uint64_t at) {
  uint64_t v = 0;
  for (int i = 0; i < 8; ++i)
    v |= static_cast<uint64_t>(static_cast<uint8_t>(bytes[at + i])) << (8 * i);
  return v;
}

class RoundTrip : public ::testing::TestWithParam<mcap::Compression> {};

TEST_P(RoundTrip, BothReadersGetEverythingBack) {
  mcap::WriterOptions options;
  options.compression = GetParam();
  options.chunk_size = 2000;  // many chunks, and messages larger than a chunk
  Recording r = MakeRecording(options, 300, 5000);

  std::vector<mcap::Problem> problems;
  EXPECT_EQ(ReadStream(r.bytes, &problems), r.messages);
  EXPECT_TRUE(problems.empty()) << Describe(problems);
  // Written in log-time order, so the indexed order is the same.
  EXPECT_EQ(ReadIndexed(r.bytes, &problems), r.messages);
  EXPECT_TRUE(problems.empty()) << Describe(problems);

  mcap::BufferSource source(r.bytes);
  mcap::StreamReader stream(source);
  mcap::Message m;
  while (stream.Next(&m)) {
  }
  EXPECT_TRUE(stream.complete());
  EXPECT_EQ(stream.header()->library, "korvan-mcap");
  ASSERT_EQ(stream.schemas().size(), r.schemas.size());
  for (const mcap::Schema& s : r.schemas)
    EXPECT_EQ(stream.schemas().at(s.id), s);
  for (const mcap::Channel& c : r.channels)
    EXPECT_EQ(stream.channels().at(c.id), c);

  mcap::IndexedReader indexed(source);
  ASSERT_TRUE(indexed.ok()) << Describe(indexed.problems());
  for (const mcap::Channel& c : r.channels)
    EXPECT_EQ(indexed.channels().at(c.id), c);
  const mcap::Statistics& stats = *indexed.statistics();
  EXPECT_EQ(stats.message_count, 300u);
  EXPECT_EQ(stats.schema_count, 2u);
  EXPECT_EQ(stats.channel_count, 3u);
  EXPECT_EQ(stats.chunk_count, indexed.chunk_indexes().size());
  EXPECT_GT(stats.chunk_count, 15u);
  EXPECT_EQ(stats.message_start_time, kStart);
  EXPECT_EQ(stats.message_end_time, kStart + 299 * 10000000ull);
  EXPECT_EQ(stats.channel_message_counts,
            (std::map<uint16_t, uint64_t>{{0, 100}, {1, 100}, {2, 100}}));
  for (const mcap::ChunkIndex& index : indexed.chunk_indexes()) {
    EXPECT_EQ(index.compression, std::string(mcap::CompressionName(GetParam())));
    if (GetParam() != mcap::Compression::kNone && index.uncompressed_size > 4000) {
      EXPECT_LT(index.compressed_size, index.uncompressed_size);
    }
  }
}

// The message indexes after each chunk and the summary offsets are only read by outside
// readers; check them against the chunk contents here.
TEST_P(RoundTrip, IndexesPointAtTheirRecords) {
  mcap::WriterOptions options;
  options.compression = GetParam();
  options.chunk_size = 1500;
  Recording r = MakeRecording(options, 100);
  mcap::BufferSource source(r.bytes);
  mcap::IndexedReader reader(source);
  ASSERT_TRUE(reader.ok());
  uint64_t indexed_messages = 0;
  mcap::Decompressor decompressor;
  for (const mcap::ChunkIndex& index : reader.chunk_indexes()) {
    f::ChunkRecord chunk;
    std::string error, records;
    ASSERT_TRUE(f::ParseChunk(
        std::string_view(r.bytes).substr(index.chunk_start_offset + 9, index.chunk_length - 9),
        &chunk, &error));
    ASSERT_TRUE(decompressor.Decompress(chunk.compression, chunk.records, chunk.uncompressed_size,
                                        &records, &error));
    // Message indexes follow the chunk directly and fill message_index_length.
    const uint64_t end = index.chunk_start_offset + index.chunk_length;
    uint64_t total = 0;
    for (const auto& [channel, offset] : index.message_index_offsets) {
      EXPECT_EQ(offset, end + total);
      ASSERT_EQ(static_cast<uint8_t>(r.bytes[offset]), f::kMessageIndex);
      const uint64_t length = U64At(r.bytes, offset + 1);
      f::MessageIndexRecord record;
      ASSERT_TRUE(f::ParseMessageIndex(std::string_view(r.bytes).substr(offset + 9, length),
                                       &record, &error));
      EXPECT_EQ(record.channel_id, channel);
      for (const auto& [log_time, at] : record.entries) {
        // Each entry names a message record of its channel and log time.
        ASSERT_LT(at + 9, records.size());
        ASSERT_EQ(static_cast<uint8_t>(records[at]), f::kMessage);
        mcap::Message m;
        ASSERT_TRUE(f::ParseMessage(
            std::string_view(records).substr(at + 9, U64At(records, at + 1)), &m, &error));
        EXPECT_EQ(m.channel_id, channel);
        EXPECT_EQ(m.log_time, log_time);
        ++indexed_messages;
      }
      total += 9 + length;
    }
    EXPECT_EQ(total, index.message_index_length);
  }
  EXPECT_EQ(indexed_messages, r.messages.size());
}

INSTANTIATE_TEST_SUITE_P(Compressions, RoundTrip,
                         ::testing::Values(mcap::Compression::kNone, mcap::Compression::kZstd,
                                           mcap::Compression::kLz4),
                         [](const auto& info) {
                           return info.param == mcap::Compression::kNone
                                      ? std::string("none")
                                      : std::string(mcap::CompressionName(info.param));
                         });

TEST(IndexedReader, SeeksByTimeAndChannelAcrossOverlappingChunks) {
  // Log times go back and forth, so chunks overlap and the reader has to merge them.
  std::vector<Stored> messages;
  for (int i = 0; i < 200; ++i) {
    mcap::Timestamp t = kStart + static_cast<mcap::Timestamp>((i * 37) % 200) * 1000;
    messages.push_back(Stored{static_cast<uint16_t>(i % 3), static_cast<uint32_t>(i), t, t,
                              std::string(static_cast<size_t>(i % 50), 'x')});
  }
  mcap::WriterOptions options;
  options.chunk_size = 500;
  const std::string bytes = Write(options, messages);
  mcap::BufferSource source(bytes);
  mcap::IndexedReader reader(source);
  ASSERT_TRUE(reader.ok());

  auto expect_range = [&](mcap::Timestamp start, mcap::Timestamp end,
                          std::vector<uint16_t> channels) {
    std::vector<Stored> expected;
    for (const Stored& m : messages)
      if (m.log_time >= start && m.log_time <= end &&
          (channels.empty() ||
           std::find(channels.begin(), channels.end(), m.channel_id) != channels.end()))
        expected.push_back(m);
    std::stable_sort(expected.begin(), expected.end(),
                     [](const Stored& a, const Stored& b) { return a.log_time < b.log_time; });
    reader.Seek(start, end, channels);
    std::vector<Stored> got;
    mcap::Message m;
    while (reader.Next(&m))
      got.push_back(Stored::From(m));
    EXPECT_EQ(got, expected) << "range " << start - kStart << ".." << end - kStart;
  };
  expect_range(0, mcap::kMaxTimestamp, {});
  expect_range(kStart + 50000, kStart + 120000, {});
  expect_range(kStart + 50000, kStart + 50000, {});
  expect_range(kStart + 10000, kStart + 190000, {2});
  expect_range(kStart + 10000, kStart + 190000, {0, 1});
  expect_range(kStart + 300000, mcap::kMaxTimestamp, {});
  EXPECT_TRUE(reader.problems().empty()) << Describe(reader.problems());
}

TEST(Writer, EmptyRecordingIsValid) {
  for (bool with_channels : {false, true}) {
    mcap::BufferSink sink;
    mcap::Writer writer;
    ASSERT_TRUE(writer.Open(&sink).ok());
    if (with_channels) {
      ASSERT_TRUE(writer.AddSchema({1, "a.B", "protobuf", ""}).ok());
      ASSERT_TRUE(writer.AddChannel({0, 1, "/t", "protobuf", {}}).ok());
    }
    ASSERT_TRUE(writer.Close().ok());
    mcap::BufferSource source(sink.data());
    mcap::IndexedReader indexed(source);
    ASSERT_TRUE(indexed.ok()) << Describe(indexed.problems());
    EXPECT_EQ(indexed.statistics()->message_count, 0u);
    EXPECT_EQ(indexed.channels().size(), with_channels ? 1u : 0u);
    mcap::StreamReader stream(source);
    mcap::Message m;
    EXPECT_FALSE(stream.Next(&m));
    EXPECT_TRUE(stream.complete());
    EXPECT_TRUE(stream.problems().empty()) << Describe(stream.problems());
  }
}

TEST(Writer, RejectsWhatAReaderCouldNotUse) {
  mcap::BufferSink sink;
  mcap::Writer writer;
  EXPECT_FALSE(writer.Write({}).ok());  // not open
  ASSERT_TRUE(writer.Open(&sink).ok());
  EXPECT_FALSE(writer.AddSchema({0, "a.B", "protobuf", ""}).ok());
  ASSERT_TRUE(writer.AddSchema({1, "a.B", "protobuf", "x"}).ok());
  EXPECT_TRUE(writer.AddSchema({1, "a.B", "protobuf", "x"}).ok());  // the same again
  EXPECT_FALSE(writer.AddSchema({1, "a.B", "protobuf", "y"}).ok());
  EXPECT_FALSE(writer.AddChannel({0, 7, "/t", "protobuf", {}}).ok());  // no schema 7
  ASSERT_TRUE(writer.AddChannel({0, 1, "/t", "protobuf", {}}).ok());
  EXPECT_FALSE(writer.AddChannel({0, 1, "/u", "protobuf", {}}).ok());
  EXPECT_EQ(writer.FreeSchemaId(), 2);
  EXPECT_EQ(writer.FreeChannelId(), 1);
  mcap::Message m;
  m.channel_id = 3;
  EXPECT_FALSE(writer.Write(m).ok());
  // Caller mistakes do not spoil the recording.
  m.channel_id = 0;
  EXPECT_TRUE(writer.Write(m).ok());
  EXPECT_TRUE(writer.status().ok());
  EXPECT_TRUE(writer.Close().ok());
  std::vector<mcap::Problem> problems;
  EXPECT_EQ(ReadIndexed(sink.data(), &problems).size(), 1u);
}

// What a killed recorder leaves: chunks are on disk as soon as they are closed, and Flush
// closes the open one.
TEST(Writer, ClosedChunksAreInTheFileBeforeClose) {
  char path[] = "/tmp/korvan_mcap_flush_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  ::close(fd);
  mcap::WriterOptions options;
  options.chunk_size = 1000;
  mcap::Writer writer;
  ASSERT_TRUE(writer.Open(path, options).ok());
  ASSERT_TRUE(writer.AddChannel({0, 0, "/t", "raw", {}}).ok());
  std::string payload(300, 'p');
  int written = 0;
  while (writer.stats().chunk_count < 3) {
    ASSERT_TRUE(writer.Write({0, 0, kStart + static_cast<uint64_t>(written), 0, payload}).ok());
    ++written;
  }
  ASSERT_TRUE(writer.Write({0, 0, kStart + 1000000, 0, payload}).ok());  // open chunk
  auto read_count = [&] {
    mcap::Status status;
    auto source = mcap::FileSource::Open(path, &status);
    mcap::StreamReader reader(*source);
    mcap::Message m;
    int count = 0;
    while (reader.Next(&m))
      ++count;
    EXPECT_FALSE(reader.complete());
    return count;
  };
  EXPECT_EQ(read_count(), written);
  ASSERT_TRUE(writer.Flush().ok());
  EXPECT_EQ(read_count(), written + 1);
  ASSERT_TRUE(writer.Close().ok());
  std::remove(path);
}

TEST(Info, FromTheSummaryAndFromAnIncompleteFile) {
  mcap::WriterOptions options;
  options.compression = mcap::Compression::kLz4;
  options.chunk_size = 1000;
  // 101 messages, 10 ms apart: 1 s, channels 0 and 2 get 34 and 33.
  Recording r = MakeRecording(options, 101);
  mcap::BufferSource source(r.bytes);
  mcap::RecordingInfo info = mcap::ReadInfo(source);
  EXPECT_TRUE(info.indexed);
  EXPECT_TRUE(info.problems.empty()) << Describe(info.problems);
  EXPECT_EQ(info.file_size, r.bytes.size());
  EXPECT_EQ(info.start, kStart);
  EXPECT_EQ(info.end, kStart + 1000000000ull);
  EXPECT_DOUBLE_EQ(info.duration_s, 1.0);
  EXPECT_EQ(info.message_count, 101u);
  EXPECT_EQ(info.compressions, std::vector<std::string>{"lz4"});
  ASSERT_EQ(info.channels.size(), 3u);
  EXPECT_EQ(info.channels[0].topic, "/a");
  EXPECT_EQ(info.channels[0].schema_name, "korvan.test.PlainMessage");
  EXPECT_EQ(info.channels[0].message_count, 34u);
  EXPECT_DOUBLE_EQ(info.channels[0].rate_hz, 34.0);
  EXPECT_EQ(info.channels[2].schema_name, "");
  EXPECT_EQ(info.channels[2].message_count, 33u);

  // Cut in the middle: the summary is gone, the complete chunks are counted.
  const std::string cut = r.bytes.substr(0, r.bytes.size() / 2);
  mcap::BufferSource cut_source(cut);
  mcap::RecordingInfo partial = mcap::ReadInfo(cut_source);
  EXPECT_FALSE(partial.indexed);
  EXPECT_FALSE(partial.complete);
  EXPECT_GT(partial.message_count, 10u);
  EXPECT_LT(partial.message_count, 101u);
  EXPECT_EQ(partial.start, kStart);
  EXPECT_EQ(partial.end, kStart + (partial.message_count - 1) * 10000000ull);
  EXPECT_EQ(partial.channels.size(), 3u);
  EXPECT_FALSE(partial.problems.empty());
  const std::string text = mcap::FormatInfo(partial);
  EXPECT_NE(text.find("/a"), std::string::npos) << text;
  EXPECT_NE(text.find("recover"), std::string::npos) << text;
  EXPECT_NE(text.find(" Hz"), std::string::npos) << text;
}

}  // namespace
}  // namespace korvan_mcap_test
