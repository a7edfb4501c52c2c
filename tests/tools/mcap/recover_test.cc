// Recovering cut and crashed recordings: every message of every complete chunk comes back,
// in a file with a full summary.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "korvan/mcap/recover.h"
#include "mcap_test_util.h"

namespace korvan_mcap_test {
namespace {

std::vector<Stored> RecoverAndRead(const std::string& bytes, mcap::RecoverResult* result) {
  mcap::BufferSource source(bytes);
  mcap::BufferSink out;
  *result = mcap::Recover(source, &out);
  EXPECT_TRUE(result->status.ok()) << result->status.message();
  mcap::BufferSource recovered(out.data());
  mcap::IndexedReader reader(recovered);
  EXPECT_TRUE(reader.ok()) << Describe(reader.problems());
  std::vector<Stored> messages;
  mcap::Message m;
  while (reader.Next(&m))
    messages.push_back(Stored::From(m));
  EXPECT_TRUE(reader.problems().empty()) << Describe(reader.problems());
  EXPECT_EQ(reader.statistics()->message_count, messages.size());
  return messages;
}

TEST(Recover, FileCutAtManyPoints) {
  for (mcap::Compression compression : {mcap::Compression::kZstd, mcap::Compression::kLz4}) {
    mcap::WriterOptions options;
    options.compression = compression;
    options.chunk_size = 800;
    Recording r = MakeRecording(options, 150);
    mcap::BufferSource source(r.bytes);
    mcap::IndexedReader whole(source);
    const std::vector<mcap::ChunkIndex>& chunks = whole.chunk_indexes();

    // Every 149th byte, and one byte either side of every chunk's end.
    std::vector<uint64_t> cuts;
    for (uint64_t at = 0; at <= r.bytes.size(); at += 149)
      cuts.push_back(at);
    for (const mcap::ChunkIndex& chunk : chunks) {
      cuts.push_back(chunk.chunk_start_offset + chunk.chunk_length - 1);
      cuts.push_back(chunk.chunk_start_offset + chunk.chunk_length);
    }
    for (uint64_t cut : cuts) {
      // What a cut there keeps: the messages of the chunks that end before it.
      size_t expected = 0;
      for (const mcap::ChunkIndex& chunk : chunks)
        if (chunk.chunk_start_offset + chunk.chunk_length <= cut)
          expected = std::max<size_t>(expected, (chunk.message_end_time - kStart) / 10000000 + 1);
      mcap::RecoverResult result;
      std::vector<Stored> got = RecoverAndRead(r.bytes.substr(0, cut), &result);
      ASSERT_EQ(got.size(), expected) << "cut at " << cut << " of " << r.bytes.size();
      EXPECT_TRUE(std::equal(got.begin(), got.end(), r.messages.begin())) << "cut at " << cut;
      EXPECT_EQ(result.message_count, expected);
      EXPECT_EQ(result.input_complete, cut == r.bytes.size());
      EXPECT_EQ(result.problems.empty(), cut == r.bytes.size());
    }
  }
}

TEST(Recover, KeepsChannelsAndRefusesToOverwriteItsInput) {
  Recording r = MakeRecording({}, 40);
  // Cut before any chunk: the channels survive without messages.
  const uint64_t first_chunk = [&] {
    mcap::BufferSource source(r.bytes);
    mcap::IndexedReader reader(source);
    return reader.chunk_indexes().front().chunk_start_offset;
  }();
  const std::string cut = r.bytes.substr(0, first_chunk + 5);
  mcap::BufferSource source(cut);
  mcap::BufferSink out;
  mcap::RecoverResult result = mcap::Recover(source, &out);
  ASSERT_TRUE(result.status.ok());
  EXPECT_EQ(result.message_count, 0u);
  mcap::BufferSource recovered(out.data());
  mcap::IndexedReader reader(recovered);
  ASSERT_TRUE(reader.ok());
  EXPECT_EQ(reader.channels().size(), r.channels.size());
  EXPECT_EQ(reader.schemas().size(), r.schemas.size());
  EXPECT_EQ(reader.channels().at(0), r.channels[0]);

  char path[] = "/tmp/korvan_mcap_recover_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_EQ(::write(fd, r.bytes.data(), r.bytes.size()), static_cast<ssize_t>(r.bytes.size()));
  ::close(fd);
  result = mcap::Recover(path, path);
  EXPECT_FALSE(result.status.ok());
  EXPECT_NE(result.status.message().find("over its input"), std::string::npos);
  result = mcap::Recover(std::string(path) + ".missing", std::string(path) + ".out");
  EXPECT_FALSE(result.status.ok());
  std::remove(path);
}

// A recorder killed with SIGKILL in the middle of a chunk: the chunks it closed are in the
// file, and recover makes a complete recording of them.
TEST(Recover, WriterKilledMidChunk) {
  char path[] = "/tmp/korvan_mcap_killed_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  ::close(fd);
  int ready[2];
  int hold[2];
  ASSERT_EQ(::pipe(ready), 0);
  ASSERT_EQ(::pipe(hold), 0);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    mcap::WriterOptions options;
    options.chunk_size = 4096;
    mcap::Writer writer;
    if (!writer.Open(path, options).ok() || !writer.AddChannel({0, 0, "/t", "raw", {}}).ok())
      _exit(2);
    uint32_t n = 0;
    uint64_t flushed = 0;
    while (writer.stats().chunk_count < 5) {
      std::string data(100 + n % 50, static_cast<char>('a' + n % 26));
      if (!writer.Write({0, n, kStart + n, kStart + n, data}).ok())
        _exit(3);
      ++n;
      if (writer.stats().open_chunk_bytes == 0)
        flushed = n;
    }
    // More messages in the open chunk, which the kill loses.
    for (int i = 0; i < 10; ++i, ++n)
      if (!writer.Write({0, n, kStart + n, kStart + n, "lost"}).ok())
        _exit(4);
    if (::write(ready[1], &flushed, sizeof(flushed)) != sizeof(flushed))
      _exit(5);
    char c;
    _exit(::read(hold[0], &c, 1) < 0 ? 6 : 0);  // blocks until killed
  }
  ::close(ready[1]);
  ::close(hold[0]);
  uint64_t flushed = 0;
  pollfd wait{ready[0], POLLIN, 0};
  ASSERT_EQ(::poll(&wait, 1, 30000), 1) << "the writer never reported its chunks";
  ASSERT_EQ(::read(ready[0], &flushed, sizeof(flushed)), static_cast<ssize_t>(sizeof(flushed)));
  ::kill(child, SIGKILL);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status));
  ::close(ready[0]);
  ::close(hold[1]);

  mcap::Status open_status;
  auto source = mcap::FileSource::Open(path, &open_status);
  ASSERT_NE(source, nullptr);
  mcap::StreamReader stream(*source);
  mcap::Message m;
  uint64_t streamed = 0;
  while (stream.Next(&m))
    EXPECT_EQ(m.sequence, streamed++);
  EXPECT_EQ(streamed, flushed);
  EXPECT_FALSE(stream.complete());

  const std::string out = std::string(path) + ".recovered";
  mcap::RecoverResult result = mcap::Recover(path, out);
  ASSERT_TRUE(result.status.ok()) << result.status.message();
  EXPECT_EQ(result.message_count, flushed);
  EXPECT_EQ(result.chunks_read, 5u);
  auto recovered = mcap::FileSource::Open(out, &open_status);
  mcap::IndexedReader reader(*recovered);
  ASSERT_TRUE(reader.ok()) << Describe(reader.problems());
  EXPECT_EQ(reader.statistics()->message_count, flushed);
  std::remove(path);
  std::remove(out.c_str());
}

}  // namespace
}  // namespace korvan_mcap_test
