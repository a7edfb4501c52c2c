// Recordings split by size and by duration: predictable names, each file complete with every
// channel, and together every message once, in order.
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "korvan/mcap/split_writer.h"
#include "mcap_test_util.h"

namespace korvan_mcap_test {
namespace {

class Split : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/korvan_mcap_split_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
  }
  void TearDown() override {
    for (const std::string& file : files_)
      std::remove(file.c_str());
    ::rmdir(dir_.c_str());
  }

  // Writes 200 messages of 1000 bytes, 50 ms apart, on two channels.
  std::vector<std::string> Record(const mcap::SplitOptions& split,
                                  std::vector<std::string>* closed) {
    mcap::WriterOptions options;
    options.compression = mcap::Compression::kNone;
    options.chunk_size = 8000;
    mcap::SplitWriter writer(dir_ + "/rec.mcap", options, split);
    writer.set_on_file_closed([closed](const std::string& file) { closed->push_back(file); });
    EXPECT_TRUE(writer.AddSchema({1, "a.B", "protobuf", "desc"}).ok());
    EXPECT_TRUE(writer.AddChannel({0, 1, "/x", "protobuf", {}}).ok());
    EXPECT_TRUE(writer.AddChannel({1, 0, "/y", "raw", {}}).ok());
    for (uint32_t i = 0; i < 200; ++i) {
      std::string data(1000, static_cast<char>('a' + i % 26));
      EXPECT_TRUE(
          writer.Write({static_cast<uint16_t>(i % 2), i, kStart + i * 50000000ull, 0, data}).ok());
    }
    EXPECT_TRUE(writer.Close().ok());
    files_ = writer.files();
    return writer.files();
  }

  // Reads the files in order, checking each is complete; returns their messages' time spans.
  std::vector<std::pair<mcap::Timestamp, mcap::Timestamp>> Check(
      const std::vector<std::string>& files, uint64_t max_bytes) {
    std::vector<std::pair<mcap::Timestamp, mcap::Timestamp>> spans;
    uint32_t next = 0;
    for (const std::string& file : files) {
      mcap::Status status;
      auto source = mcap::FileSource::Open(file, &status);
      EXPECT_NE(source, nullptr) << status.message();
      if (source == nullptr)
        continue;
      mcap::IndexedReader reader(*source);
      EXPECT_TRUE(reader.ok()) << file << "\n" << Describe(reader.problems());
      EXPECT_EQ(reader.channels().size(), 2u) << file;
      EXPECT_EQ(reader.schemas().size(), 1u) << file;
      const mcap::Statistics& stats = *reader.statistics();
      spans.emplace_back(stats.message_start_time, stats.message_end_time);
      mcap::Message m;
      while (reader.Next(&m))
        EXPECT_EQ(m.sequence, next++);
      if (max_bytes != 0) {
        // The summary comes on top of the limit: a few hundred bytes here.
        EXPECT_LE(source->size(), max_bytes + 600) << file;
      }
    }
    EXPECT_EQ(next, 200u);
    return spans;
  }

  std::string dir_;
  std::vector<std::string> files_;
};

TEST_F(Split, BySize) {
  mcap::SplitOptions split;
  split.max_bytes = 30000;
  std::vector<std::string> closed;
  std::vector<std::string> files = Record(split, &closed);
  // 200 kB of messages in files of at most 30 kB.
  ASSERT_GE(files.size(), 7u);
  for (size_t i = 0; i < files.size(); ++i)
    EXPECT_EQ(files[i], dir_ + "/rec_" + std::to_string(i) + ".mcap");
  EXPECT_EQ(closed, files);
  Check(files, split.max_bytes);
}

TEST_F(Split, ByDuration) {
  mcap::SplitOptions split;
  split.max_duration_ns = 2000000000;  // 2 s of a 10 s recording
  std::vector<std::string> closed;
  std::vector<std::string> files = Record(split, &closed);
  ASSERT_EQ(files.size(), 5u);
  auto spans = Check(files, 0);
  for (size_t i = 0; i < spans.size(); ++i) {
    EXPECT_EQ(spans[i].first, kStart + i * 2000000000ull);
    EXPECT_LT(spans[i].second - spans[i].first, split.max_duration_ns);
  }
}

TEST(SplitNames, AreNumberedFromZero) {
  EXPECT_EQ(mcap::SplitWriter::FileName("out/run", 0), "out/run_0.mcap");
  EXPECT_EQ(mcap::SplitWriter::FileName("run", 12), "run_12.mcap");
}

}  // namespace
}  // namespace korvan_mcap_test
