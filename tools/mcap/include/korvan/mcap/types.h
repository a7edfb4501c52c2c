// The records a recording is made of, as the writer takes them and the readers hand them out,
// and the small result types shared by every part of the recording library.
#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace tarvik::korvan::mcap {

// Nanoseconds since the Unix epoch.
using Timestamp = uint64_t;
inline constexpr Timestamp kMaxTimestamp = std::numeric_limits<Timestamp>::max();

enum class Compression { kNone, kZstd, kLz4 };

// The name a chunk record stores: "" for none, "zstd", "lz4".
std::string_view CompressionName(Compression compression);
// Parses a user's choice: "none" (or ""), "zstd", "lz4".
std::optional<Compression> ParseCompression(std::string_view name);

// A message type description. For protobuf: name = full type name, encoding "protobuf", data =
// a serialised google.protobuf.FileDescriptorSet (see protobuf_schema.h).
struct Schema {
  uint16_t id = 0;  // never 0 in a file; 0 asks the writer to assign one
  std::string name;
  std::string encoding;
  std::string data;
  bool operator==(const Schema& other) const;
};

struct Channel {
  uint16_t id = 0;         // 0 asks the writer to assign one
  uint16_t schema_id = 0;  // 0: no schema
  std::string topic;
  std::string message_encoding;
  std::map<std::string, std::string> metadata;
  bool operator==(const Channel& other) const;
};

// One recorded message. `data` is a view: the writer copies it; a reader's view stays valid
// until that reader's next call.
struct Message {
  uint16_t channel_id = 0;
  uint32_t sequence = 0;
  Timestamp log_time = 0;      // when it was recorded
  Timestamp publish_time = 0;  // when it was published; the log time if unknown
  std::string_view data;
};

struct Header {
  std::string profile;  // "" or an "x-" name of our own
  std::string library;  // free text: who wrote the file
};

// Where a chunk is and what it holds, as the summary lists it.
struct ChunkIndex {
  Timestamp message_start_time = 0;
  Timestamp message_end_time = 0;
  uint64_t chunk_start_offset = 0;  // file offset of the chunk record
  uint64_t chunk_length = 0;        // the whole record, opcode and length included
  std::map<uint16_t, uint64_t> message_index_offsets;  // channel -> its message index record
  uint64_t message_index_length = 0;
  std::string compression;  // as stored: "", "zstd", "lz4"
  uint64_t compressed_size = 0;
  uint64_t uncompressed_size = 0;
};

struct Statistics {
  uint64_t message_count = 0;
  uint16_t schema_count = 0;
  uint32_t channel_count = 0;
  uint32_t attachment_count = 0;
  uint32_t metadata_count = 0;
  uint32_t chunk_count = 0;
  Timestamp message_start_time = 0;  // 0 when there are no messages
  Timestamp message_end_time = 0;
  std::map<uint16_t, uint64_t> channel_message_counts;
};

// Something a reader could not read, and where: `offset` is the byte offset in the file of the
// record (or field) at fault.
struct Problem {
  uint64_t offset = 0;
  std::string message;
  // "byte <offset>: <message>"
  std::string ToString() const;
};

// Success, or an error message for the user.
class Status {
 public:
  Status() = default;
  static Status Error(std::string message) { return Status(std::move(message)); }
  bool ok() const { return message_.empty(); }
  const std::string& message() const { return message_; }

 private:
  explicit Status(std::string message)
      : message_(message.empty() ? "unknown error" : std::move(message)) {}
  std::string message_;
};

}  // namespace tarvik::korvan::mcap
