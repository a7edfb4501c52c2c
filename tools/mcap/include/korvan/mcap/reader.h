// Reading recordings, two ways:
//  - StreamReader goes through the file from the start, record by record, decompressing and
//    checking chunks as it meets them. It needs no summary, so it reads incomplete files (a
//    recorder that crashed) up to the last complete record.
//  - IndexedReader reads the summary through the footer and then only the chunks a time
//    range needs, handing out messages in log-time order.
//
// Neither trusts the file: a wrong magic, a truncated record, a chunk whose CRC fails or whose
// compression is unknown, lengths past the file or past the limits of ReaderOptions are each
// reported as a Problem naming the byte offset, and reading goes on with what is readable.
// Allocations are bounded by the file's size and by the limits.
//
// A reader reads from a Source it does not own (keep it alive). One thread uses a reader at a
// time.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <queue>
#include <string>
#include <vector>

#include "korvan/mcap/io.h"
#include "korvan/mcap/types.h"

namespace tarvik::korvan::mcap {

class Decompressor;

struct ReaderOptions {
  // Records longer than this (a chunk counts with its compressed content) are skipped.
  uint64_t max_record_size = 256ull << 20;
  // Chunks that declare more uncompressed bytes than this are skipped.
  uint64_t max_chunk_size = 256ull << 20;
  // The summary (read whole by IndexedReader) may not be larger than this.
  uint64_t max_summary_size = 256ull << 20;
  // Check the chunk, data section and summary CRCs where the file gives them.
  bool verify_crcs = true;
  // Problems kept in problems(); later ones are only counted.
  size_t max_problems = 100;
};

// A chunk a StreamReader met.
struct ChunkInfo {
  uint64_t offset = 0;      // of the chunk record
  uint64_t length = 0;      // of the whole record
  std::string compression;  // as stored: "", "zstd", "lz4"
  Timestamp message_start_time = 0;
  Timestamp message_end_time = 0;
  uint64_t message_count = 0;  // messages handed out from it
  bool readable = false;       // false: skipped, see problems()
};

// The problems a reader met, with a cap on how many it keeps.
class ProblemList {
 public:
  explicit ProblemList(size_t max) : max_(max) {}
  void Add(uint64_t offset, std::string message);
  const std::vector<Problem>& list() const { return list_; }
  // All problems, including those past the cap.
  uint64_t count() const { return count_; }

 private:
  size_t max_;
  uint64_t count_ = 0;
  std::vector<Problem> list_;
};

class StreamReader {
 public:
  explicit StreamReader(const Source& source, const ReaderOptions& options = {});
  ~StreamReader();
  StreamReader(const StreamReader&) = delete;
  StreamReader& operator=(const StreamReader&) = delete;

  // The next message in file order; false once nothing more can be read. `message->data`
  // stays valid until the next call. A message's channel (and the channel's schema) is in
  // channels() by the time the message is handed out; messages on channels the file never
  // defined are reported and skipped.
  bool Next(Message* message);

  // What was read so far.
  const std::optional<Header>& header() const { return header_; }
  const std::map<uint16_t, Schema>& schemas() const { return schemas_; }
  const std::map<uint16_t, Channel>& channels() const { return channels_; }
  const std::vector<ChunkInfo>& chunks() const { return chunks_; }
  const std::vector<Problem>& problems() const { return problems_.list(); }
  uint64_t problem_count() const { return problems_.count(); }
  // True once the reader went through the footer and the closing magic: the file is whole.
  bool complete() const { return complete_; }
  // Offset of the next record outside chunks: after the end, how far the file was readable.
  uint64_t position() const { return position_; }

 private:
  bool ReadRecord();  // false at the end
  bool NextInChunk(Message* message);
  void EnterChunk(uint64_t offset, uint64_t length, std::string_view content);
  bool TakeMessage(const Message& message, uint64_t offset);
  void AddSchema(const Schema& schema, uint64_t offset);
  void AddChannel(const Channel& channel, uint64_t offset);

  const Source& source_;
  ReaderOptions options_;
  ProblemList problems_;
  std::unique_ptr<Decompressor> decompressor_;

  uint64_t position_ = 0;
  bool started_ = false;
  bool done_ = false;
  bool complete_ = false;
  bool past_data_end_ = false;
  bool data_crc_valid_ = true;  // false once a skipped record left bytes out of the CRC
  uint32_t data_crc_ = 0;

  std::string record_;      // the last record read outside chunks
  std::string chunk_data_;  // a decompressed chunk
  std::string_view chunk_records_;
  size_t chunk_position_ = 0;
  bool in_chunk_ = false;
  // The message record read outside a chunk, waiting to be handed out.
  std::optional<Message> pending_;

  std::optional<Header> header_;
  std::map<uint16_t, Schema> schemas_;
  std::map<uint16_t, Channel> channels_;
  std::vector<bool> reported_channel_;  // unknown channel ids reported once each
  std::vector<ChunkInfo> chunks_;
};

class IndexedReader {
 public:
  // Reads the footer and the summary; ok() tells whether that worked.
  explicit IndexedReader(const Source& source, const ReaderOptions& options = {});
  ~IndexedReader();
  IndexedReader(const IndexedReader&) = delete;
  IndexedReader& operator=(const IndexedReader&) = delete;

  // False when the file has no usable summary (not an MCAP file, incomplete, damaged):
  // problems() says why. A StreamReader still reads such a file; Recover rewrites it.
  bool ok() const { return ok_; }

  const Header& header() const { return header_; }
  const std::map<uint16_t, Schema>& schemas() const { return schemas_; }
  const std::map<uint16_t, Channel>& channels() const { return channels_; }
  const std::vector<ChunkIndex>& chunk_indexes() const { return chunk_indexes_; }
  // Null when the summary has no statistics record.
  const Statistics* statistics() const { return statistics_ ? &*statistics_ : nullptr; }
  const std::vector<Problem>& problems() const { return problems_.list(); }
  uint64_t problem_count() const { return problems_.count(); }

  // Starts handing out, through Next, the messages whose log time is in [start, end], on
  // `channel_ids` (all when empty), in log-time order (equal times in file order). Only the
  // chunks that overlap the range are read. Next without a Seek reads everything.
  void Seek(Timestamp start, Timestamp end = kMaxTimestamp,
            const std::vector<uint16_t>& channel_ids = {});
  // The next message; false at the end of the range. `message->data` stays valid until the
  // next call. Chunks that cannot be read are reported and skipped.
  bool Next(Message* message);

 private:
  struct LoadedChunk;
  struct Cursor {
    Timestamp log_time;
    size_t order;  // of the chunk among those selected
    std::shared_ptr<LoadedChunk> chunk;
    bool operator>(const Cursor& other) const;
  };

  bool ReadSummary();
  void Load(size_t order);

  const Source& source_;
  ReaderOptions options_;
  ProblemList problems_;
  std::unique_ptr<Decompressor> decompressor_;
  bool ok_ = false;

  Header header_;
  std::map<uint16_t, Schema> schemas_;
  std::map<uint16_t, Channel> channels_;
  std::vector<ChunkIndex> chunk_indexes_;
  std::optional<Statistics> statistics_;

  // The range being read.
  bool seeked_ = false;
  Timestamp start_ = 0;
  Timestamp end_ = kMaxTimestamp;
  std::vector<bool> wanted_channels_;        // by id; empty: all
  std::vector<const ChunkIndex*> selected_;  // overlapping chunks, by start time
  size_t next_chunk_ = 0;
  std::priority_queue<Cursor, std::vector<Cursor>, std::greater<Cursor>> cursors_;
  std::shared_ptr<LoadedChunk> current_;  // keeps the last message's bytes alive
  std::string record_;
};

}  // namespace tarvik::korvan::mcap
