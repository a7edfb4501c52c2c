// Damaged and hostile recordings: each kind of damage is reported with the byte offset of the
// record at fault, and everything else in the file is still read.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "korvan/mcap/info.h"
#include "korvan/mcap/recover.h"
#include "mcap_test_util.h"

namespace korvan_mcap_test {
namespace {

void PutU64(std::string& bytes, uint64_t at, uint64_t v) {
  for (int i = 0; i < 8; ++i)
    bytes[at + i] = static_cast<char>(v >> (8 * i));
}
uint64_t U64At(const std::string& bytes, uint64_t at) {
  uint64_t v = 0;
  for (int i = 0; i < 8; ++i)
    v |= static_cast<uint64_t>(static_cast<uint8_t>(bytes[at + i])) << (8 * i);
  return v;
}

// Offsets in a chunk record: opcode and length, then start and end time, uncompressed size,
// CRC, the compression string and the records' length.
constexpr uint64_t kUncompressedSizeAt = 9 + 16;
constexpr uint64_t kCompressionAt = 9 + 28 + 4;

struct Damaged {
  Recording r;
  std::vector<mcap::ChunkIndex> chunks;  // in file order
  // Messages of the recording that are not in chunk `k`.
  // Messages of the recording that are not in chunk `k` (chunks hold runs of log times).
  std::vector<Stored> Without(size_t k) const {
    std::vector<Stored> out;
    for (const Stored& m : r.messages)
      if (m.log_time < chunks[k].message_start_time || m.log_time > chunks[k].message_end_time)
        out.push_back(m);
    return out;
  }
  // Messages before chunk `k`.
  std::vector<Stored> Before(size_t k) const {
    std::vector<Stored> out;
    for (const Stored& m : r.messages)
      if (m.log_time < chunks[k].message_start_time)
        out.push_back(m);
    return out;
  }
};

Damaged Make(mcap::Compression compression) {
  mcap::WriterOptions options;
  options.compression = compression;
  options.chunk_size = 1200;
  Damaged d{MakeRecording(options, 120), {}};
  mcap::BufferSource source(d.r.bytes);
  mcap::IndexedReader reader(source);
  d.chunks = reader.chunk_indexes();
  EXPECT_GT(d.chunks.size(), 6u);
  return d;
}

TEST(BadInput, NotAnMcapFile) {
  Damaged d = Make(mcap::Compression::kZstd);
  std::string wrong = d.r.bytes;
  wrong[1] = 'X';
  for (const std::string& bytes : {std::string(), std::string("abc"),
                                   std::string("GIF89a and more bytes than a magic"), wrong}) {
    std::vector<mcap::Problem> problems;
    EXPECT_TRUE(ReadStream(bytes, &problems).empty());
    EXPECT_TRUE(HasProblem(problems, 0, "not an MCAP file")) << Describe(problems);
    mcap::BufferSource source(bytes);
    mcap::IndexedReader indexed(source);
    EXPECT_FALSE(indexed.ok());
    EXPECT_TRUE(HasProblem(indexed.problems(), 0, "not an MCAP file"));
  }
}

TEST(BadInput, TruncatedFileKeepsItsCompleteChunks) {
  Damaged d = Make(mcap::Compression::kZstd);
  const mcap::ChunkIndex& torn = d.chunks[4];
  for (uint64_t into : {uint64_t{4}, uint64_t{30}, torn.chunk_length - 1}) {
    const std::string cut = d.r.bytes.substr(0, torn.chunk_start_offset + into);
    std::vector<mcap::Problem> problems;
    EXPECT_EQ(ReadStream(cut, &problems), d.Before(4));
    const char* expected = into < 9 ? "ends inside a record's opcode and length"
                                    : "truncated chunk record: it declares";
    EXPECT_TRUE(HasProblem(problems, torn.chunk_start_offset, expected)) << Describe(problems);

    mcap::BufferSource source(cut);
    mcap::IndexedReader indexed(source);
    EXPECT_FALSE(indexed.ok());
    EXPECT_TRUE(HasProblem(indexed.problems(), cut.size() - 8, "incomplete"))
        << Describe(indexed.problems());
  }
  // Cut right after a chunk's message indexes: nothing is torn, the footer is missing.
  const std::string clean_cut = d.r.bytes.substr(0, d.chunks[5].chunk_start_offset);
  std::vector<mcap::Problem> problems;
  EXPECT_EQ(ReadStream(clean_cut, &problems), d.Before(5));
  EXPECT_TRUE(HasProblem(problems, clean_cut.size(), "ends without a footer"))
      << Describe(problems);
}

TEST(BadInput, ChunkWhoseCrcFailsIsSkipped) {
  for (mcap::Compression compression : {mcap::Compression::kNone, mcap::Compression::kZstd}) {
    Damaged d = Make(compression);
    const mcap::ChunkIndex& bad = d.chunks[3];
    std::string bytes = d.r.bytes;
    // The middle of the records; for zstd this may also break the frame itself.
    bytes[bad.chunk_start_offset + bad.chunk_length - bad.compressed_size / 2] ^= 0x10;
    std::vector<mcap::Problem> problems;
    EXPECT_EQ(ReadStream(bytes, &problems), d.Without(3));
    ASSERT_EQ(problems.size(), 2u) << Describe(problems);  // the chunk, and the data CRC
    EXPECT_TRUE(
        HasProblem(problems, bad.chunk_start_offset,
                   compression == mcap::Compression::kNone ? "chunk CRC mismatch" : "chunk"))
        << Describe(problems);
    EXPECT_NE(problems[0].message.find("chunk skipped"), std::string::npos);
    EXPECT_NE(problems[1].message.find("data section CRC mismatch"), std::string::npos);

    EXPECT_EQ(ReadIndexed(bytes, &problems), d.Without(3));
    EXPECT_TRUE(HasProblem(problems, bad.chunk_start_offset, "chunk")) << Describe(problems);
  }
}

TEST(BadInput, UnknownCompressionIsSkipped) {
  Damaged d = Make(mcap::Compression::kZstd);
  std::string bytes = d.r.bytes;
  const uint64_t at = d.chunks[2].chunk_start_offset;
  ASSERT_EQ(bytes.substr(at + kCompressionAt, 4), "zstd");
  bytes.replace(at + kCompressionAt, 4, "zzzz");
  std::vector<mcap::Problem> problems;
  EXPECT_EQ(ReadStream(bytes, &problems), d.Without(2));
  EXPECT_TRUE(HasProblem(problems, at, "unknown compression \"zzzz\"")) << Describe(problems);
  EXPECT_EQ(ReadIndexed(bytes, &problems), d.Without(2));
  EXPECT_TRUE(HasProblem(problems, at, "unknown compression \"zzzz\"")) << Describe(problems);
}

TEST(BadInput, OversizedLengthsAllocateNothingLarge) {
  Damaged d = Make(mcap::Compression::kZstd);
  const uint64_t at = d.chunks[2].chunk_start_offset;
  std::vector<mcap::Problem> problems;

  // A record length far past the file's end ends the streaming read there.
  std::string bytes = d.r.bytes;
  PutU64(bytes, at + 1, uint64_t{1} << 62);
  EXPECT_EQ(ReadStream(bytes, &problems), d.Before(2));
  EXPECT_TRUE(HasProblem(problems, at, "truncated chunk record: it declares 4611686018427387904"))
      << Describe(problems);

  // An uncompressed size past the limit: that chunk is skipped, the rest read.
  bytes = d.r.bytes;
  PutU64(bytes, at + kUncompressedSizeAt, uint64_t{1} << 40);
  EXPECT_EQ(ReadStream(bytes, &problems), d.Without(2));
  EXPECT_TRUE(HasProblem(problems, at, "more than the limit")) << Describe(problems);

  // Sizes within the limit that do not match the data.
  for (int64_t delta : {-1, 1, 1000000}) {
    bytes = d.r.bytes;
    PutU64(bytes, at + kUncompressedSizeAt,
           U64At(bytes, at + kUncompressedSizeAt) + static_cast<uint64_t>(delta));
    EXPECT_EQ(ReadIndexed(bytes, &problems), d.Without(2));
    EXPECT_TRUE(HasProblem(problems, at, delta < 0 ? "more than the" : "decompresses to"))
        << Describe(problems);
  }

  // Records over the reader's limit are skipped without being read.
  Damaged plain = Make(mcap::Compression::kNone);
  mcap::ReaderOptions small;
  small.max_record_size = 1000;
  EXPECT_LT(ReadStream(plain.r.bytes, &problems, small).size(), plain.r.messages.size());
  EXPECT_TRUE(HasProblem(problems, plain.chunks[2].chunk_start_offset,
                         "larger than the limit of 1000 bytes; skipped"))
      << Describe(problems);
}

TEST(BadInput, DamagedSummaryAndCrcs) {
  Damaged d = Make(mcap::Compression::kLz4);
  const uint64_t footer = d.r.bytes.size() - 8 - 29;
  const uint64_t summary_start = U64At(d.r.bytes, footer + 9);
  std::vector<mcap::Problem> problems;

  // A flipped bit in the summary: the indexed reader refuses it, the stream is unharmed.
  std::string bytes = d.r.bytes;
  bytes[summary_start + 20] ^= 0x01;
  mcap::BufferSource source(bytes);
  mcap::IndexedReader indexed(source);
  EXPECT_FALSE(indexed.ok());
  EXPECT_TRUE(HasProblem(indexed.problems(), summary_start, "summary CRC mismatch"))
      << Describe(indexed.problems());
  EXPECT_EQ(ReadStream(bytes, &problems), d.r.messages);

  // A flipped bit in the header: only the data section CRC notices.
  bytes = d.r.bytes;
  bytes[8 + 9 + 4 + 4 + 2] ^= 0x01;  // the library's name
  EXPECT_EQ(ReadStream(bytes, &problems), d.r.messages);
  ASSERT_EQ(problems.size(), 1u) << Describe(problems);
  EXPECT_NE(problems[0].message.find("data section CRC mismatch"), std::string::npos);
  EXPECT_EQ(problems[0].offset, summary_start - 13);  // the data end record

  // Chunk indexes pointing outside the data, or at something else (no summary CRC).
  bytes = d.r.bytes;
  bytes.replace(footer + 9 + 16, 4, std::string(4, '\0'));  // summary CRC: not given
  uint64_t at = summary_start;
  std::vector<uint64_t> index_records;
  while (at < footer) {
    if (static_cast<uint8_t>(bytes[at]) == 0x08)
      index_records.push_back(at);
    at += 9 + U64At(bytes, at + 1);
  }
  ASSERT_EQ(index_records.size(), d.chunks.size());
  PutU64(bytes, index_records[1] + 9 + 16, bytes.size() - 10);
  PutU64(bytes, index_records[2] + 9 + 16, 8);  // the header
  mcap::BufferSource pointed(bytes);
  mcap::IndexedReader misled(pointed);
  ASSERT_TRUE(misled.ok()) << Describe(misled.problems());
  EXPECT_TRUE(HasProblem(misled.problems(), index_records[1], "outside the data section"))
      << Describe(misled.problems());
  mcap::Message m;
  size_t count = 0;
  while (misled.Next(&m))
    ++count;
  EXPECT_TRUE(HasProblem(misled.problems(), 8, "no chunk record")) << Describe(misled.problems());
  EXPECT_EQ(count, d.r.messages.size() - d.Before(3).size() + d.Before(1).size());
}

// Random damage: whatever a reader makes of it, it does not crash, and what Recover writes is
// always a clean recording.
TEST(BadInput, RandomDamageNeverBreaksTheReaders) {
  Damaged d = Make(mcap::Compression::kZstd);
  std::mt19937 random(7);
  for (int round = 0; round < 200; ++round) {
    std::string bytes = d.r.bytes;
    int flips = 1 + static_cast<int>(random() % 4);
    for (int i = 0; i < flips; ++i)
      bytes[random() % bytes.size()] ^= static_cast<char>(1 + random() % 255);
    if (round % 3 == 0)
      bytes.resize(random() % bytes.size());
    std::vector<mcap::Problem> problems;
    std::vector<Stored> streamed = ReadStream(bytes, &problems);
    ReadIndexed(bytes, &problems);
    mcap::BufferSource source(bytes);
    mcap::ReadInfo(source);

    mcap::BufferSink out;
    mcap::RecoverResult result = mcap::Recover(source, &out);
    ASSERT_TRUE(result.status.ok()) << result.status.message();
    EXPECT_EQ(result.message_count, streamed.size());
    std::vector<Stored> recovered = ReadIndexed(out.data(), &problems);
    EXPECT_TRUE(problems.empty()) << "round " << round << "\n" << Describe(problems);
    EXPECT_EQ(ReadStream(out.data(), &problems), streamed) << "round " << round;
  }
}

}  // namespace
}  // namespace korvan_mcap_test
