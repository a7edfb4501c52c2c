// Writes a recording: header, schemas and channels as they are added, messages packed into
// compressed chunks, each chunk followed by its message indexes, and on Close the summary
// (schemas, channels, chunk indexes, statistics), the summary offsets and the footer.
//
// Crash safety: schemas and channels go to the sink at once, and each chunk is flushed to the
// sink (for a file: to the kernel) as soon as it is closed, so a process killed at any point
// leaves a file whose complete chunks a streaming reader reads; Recover (recover.h) rewrites
// such a file with its summary. A chunk is closed when its records reach
// WriterOptions::chunk_size and on Flush(): a recorder that wants a bound on what a crash can
// lose calls Flush() periodically.
//
// One thread uses a Writer at a time. The writer owns the file it opens; a Sink passed to
// Open stays the caller's and must outlive the writer's Close.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "korvan/mcap/io.h"
#include "korvan/mcap/types.h"

namespace tarvik::korvan::mcap {

class Compressor;

struct WriterOptions {
  Compression compression = Compression::kZstd;
  // 0: the compression library's default level.
  int compression_level = 0;
  // Uncompressed bytes of records after which the open chunk is closed. A message larger
  // than this gets a chunk of its own.
  uint64_t chunk_size = 1024 * 1024;
  // "" or an "x-" name of our own.
  std::string profile;
  std::string library = "korvan-mcap";
};

struct WriterStats {
  uint64_t message_count = 0;
  uint64_t chunk_count = 0;          // chunks closed so far
  uint64_t bytes_written = 0;        // handed to the sink: the file's size without the open chunk
  uint64_t open_chunk_bytes = 0;     // uncompressed records waiting in the open chunk
  uint64_t uncompressed_bytes = 0;   // records of the closed chunks before compression
  Timestamp message_start_time = 0;  // of the messages written, 0 before the first
  Timestamp message_end_time = 0;
};

class Writer {
 public:
  Writer();
  // Closes the recording if it is still open (errors are lost: call Close to see them).
  ~Writer();
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  // Creates (or truncates) the file and writes the header.
  Status Open(const std::string& path, const WriterOptions& options = {});
  // Writes into a sink the caller keeps.
  Status Open(Sink* sink, const WriterOptions& options = {});

  // Registers a schema under schema.id (never 0). Adding the same id again with the same
  // content does nothing; with other content it fails.
  Status AddSchema(const Schema& schema);
  // Registers a channel under channel.id; its schema_id is 0 or an added schema.
  Status AddChannel(const Channel& channel);
  // The lowest ids not yet taken, for callers that do not bring their own.
  uint16_t FreeSchemaId() const;
  uint16_t FreeChannelId() const;

  // Appends a message on an added channel; `message.data` is copied.
  Status Write(const Message& message);
  // Closes the open chunk and flushes the sink.
  Status Flush();
  // Writes the last chunk, the summary and the footer, and closes the file. The recording is
  // complete only after this returns ok.
  Status Close();

  bool is_open() const { return sink_ != nullptr; }
  // The first write error; once set, every later call fails with it.
  const Status& status() const { return status_; }
  WriterStats stats() const;
  const std::map<uint16_t, Schema>& schemas() const { return schemas_; }
  const std::map<uint16_t, Channel>& channels() const { return channels_; }

 private:
  Status Emit(const void* data, size_t size);
  Status CloseChunk();
  Status Fail(Status status);

  WriterOptions options_;
  std::unique_ptr<Sink> owned_sink_;
  Sink* sink_ = nullptr;
  Status status_;
  uint64_t offset_ = 0;    // bytes handed to the sink
  uint32_t data_crc_ = 0;  // of every byte written before the data end record

  std::map<uint16_t, Schema> schemas_;
  std::map<uint16_t, Channel> channels_;
  std::vector<bool> channel_known_;  // by id, for the per-message check

  // The open chunk: its records, their time span, and per channel (by id) the message
  // index entries (log time, offset in the records).
  std::string chunk_;
  Timestamp chunk_start_time_ = 0;
  Timestamp chunk_end_time_ = 0;
  std::vector<std::vector<std::pair<Timestamp, uint64_t>>> chunk_index_entries_;
  std::vector<uint16_t> chunk_channels_;  // channels with entries in the open chunk
  std::unique_ptr<Compressor> compressor_;
  std::string compressed_;
  std::string scratch_;

  std::vector<ChunkIndex> chunk_indexes_;
  Statistics statistics_;
  std::vector<uint64_t> channel_counts_;  // by channel id
  uint64_t uncompressed_bytes_ = 0;
};

}  // namespace tarvik::korvan::mcap
