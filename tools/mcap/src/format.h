// The byte layout of records: opcodes, the magic, little-endian field writers and a bounds-
// checked field reader. Shared by the writer and the readers; internal to the library.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "korvan/mcap/types.h"

namespace tarvik::korvan::mcap::format {

enum Opcode : uint8_t {
  kHeader = 0x01,
  kFooter = 0x02,
  kSchema = 0x03,
  kChannel = 0x04,
  kMessage = 0x05,
  kChunk = 0x06,
  kMessageIndex = 0x07,
  kChunkIndex = 0x08,
  kAttachment = 0x09,
  kAttachmentIndex = 0x0A,
  kStatistics = 0x0B,
  kMetadata = 0x0C,
  kMetadataIndex = 0x0D,
  kSummaryOffset = 0x0E,
  kDataEnd = 0x0F,
};

inline constexpr char kMagic[8] = {'\x89', 'M', 'C', 'A', 'P', '0', '\r', '\n'};
inline constexpr size_t kMagicSize = sizeof(kMagic);
// Opcode and content length.
inline constexpr size_t kRecordPrefixSize = 9;
// Footer content: summary_start, summary_offset_start, summary_crc.
inline constexpr size_t kFooterContentSize = 20;
inline constexpr size_t kFooterRecordSize = kRecordPrefixSize + kFooterContentSize;

const char* OpcodeName(uint8_t opcode);

// Standard reflected CRC-32 (zlib's), continued from `crc` (0 to start).
uint32_t Crc32(uint32_t crc, const void* data, size_t size);

// ---- writing: appends little-endian fields to a byte string ----
inline void PutU8(std::string& out, uint8_t v) {
  out.push_back(static_cast<char>(v));
}
inline void PutLE(std::string& out, uint64_t v, int bytes) {
  char b[8];
  for (int i = 0; i < bytes; ++i)
    b[i] = static_cast<char>(v >> (8 * i));
  out.append(b, static_cast<size_t>(bytes));
}
inline void PutU16(std::string& out, uint16_t v) {
  PutLE(out, v, 2);
}
inline void PutU32(std::string& out, uint32_t v) {
  PutLE(out, v, 4);
}
inline void PutU64(std::string& out, uint64_t v) {
  PutLE(out, v, 8);
}
inline void PutString(std::string& out, std::string_view s) {
  PutU32(out, static_cast<uint32_t>(s.size()));
  out.append(s);
}
inline void PatchU64(std::string& out, size_t at, uint64_t v) {
  for (int i = 0; i < 8; ++i)
    out[at + static_cast<size_t>(i)] = static_cast<char>(v >> (8 * i));
}
inline void PatchU32(std::string& out, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i)
    out[at + static_cast<size_t>(i)] = static_cast<char>(v >> (8 * i));
}

// Starts a record; returns where its length goes, for EndRecord.
inline size_t BeginRecord(std::string& out, Opcode opcode) {
  PutU8(out, opcode);
  size_t at = out.size();
  PutU64(out, 0);
  return at;
}
inline void EndRecord(std::string& out, size_t length_at) {
  PatchU64(out, length_at, out.size() - length_at - 8);
}

void AppendHeader(std::string& out, std::string_view profile, std::string_view library);
void AppendSchema(std::string& out, const Schema& schema);
void AppendChannel(std::string& out, const Channel& channel);
void AppendMessage(std::string& out, const Message& message);
void AppendChunkIndex(std::string& out, const ChunkIndex& index);
void AppendStatistics(std::string& out, const Statistics& statistics);
void AppendFooter(std::string& out, uint64_t summary_start, uint64_t summary_offset_start,
                  uint32_t summary_crc);

// ---- reading: a cursor over one record's content ----
// Every read checks the bounds; after the first failure ok() is false and reads return zeros.
class FieldReader {
 public:
  FieldReader(const char* data, size_t size) : p_(data), end_(data + size) {}
  explicit FieldReader(std::string_view s) : FieldReader(s.data(), s.size()) {}

  bool ok() const { return ok_; }
  size_t remaining() const { return static_cast<size_t>(end_ - p_); }
  const char* position() const { return p_; }
  // Why it failed: the field that did not fit.
  const std::string& error() const { return error_; }

  uint8_t U8(const char* field) { return static_cast<uint8_t>(LE(1, field)); }
  uint16_t U16(const char* field) { return static_cast<uint16_t>(LE(2, field)); }
  uint32_t U32(const char* field) { return static_cast<uint32_t>(LE(4, field)); }
  uint64_t U64(const char* field) { return LE(8, field); }
  std::string_view String(const char* field) { return Sized(U32(field), field); }
  std::string_view Bytes64(const char* field) { return Sized(U64(field), field); }
  // Everything left.
  std::string_view Rest() {
    std::string_view s(p_, remaining());
    p_ = end_;
    return s;
  }
  // A uint32-prefixed map or array: a reader over its bytes.
  FieldReader Nested(const char* field) {
    std::string_view s = Sized(U32(field), field);
    FieldReader nested(s);
    if (!ok_)
      nested.ok_ = false;
    return nested;
  }

 private:
  uint64_t LE(int bytes, const char* field);
  std::string_view Sized(uint64_t size, const char* field);
  bool Fail(const char* field);

  const char* p_;
  const char* end_;
  bool ok_ = true;
  std::string error_;
};

// Parsers of record contents. False (with `error` set) when a field runs past the record.
bool ParseHeader(std::string_view content, Header* header, std::string* error);
bool ParseSchema(std::string_view content, Schema* schema, std::string* error);
bool ParseChannel(std::string_view content, Channel* channel, std::string* error);
// `message->data` points into `content`.
bool ParseMessage(std::string_view content, Message* message, std::string* error);
// The chunk's fields; `records` points into `content`.
struct ChunkRecord {
  Timestamp message_start_time = 0;
  Timestamp message_end_time = 0;
  uint64_t uncompressed_size = 0;
  uint32_t uncompressed_crc = 0;
  std::string_view compression;
  std::string_view records;
};
bool ParseChunk(std::string_view content, ChunkRecord* chunk, std::string* error);
bool ParseChunkIndex(std::string_view content, ChunkIndex* index, std::string* error);
bool ParseStatistics(std::string_view content, Statistics* statistics, std::string* error);
struct FooterRecord {
  uint64_t summary_start = 0;
  uint64_t summary_offset_start = 0;
  uint32_t summary_crc = 0;
};
bool ParseFooter(std::string_view content, FooterRecord* footer, std::string* error);
struct MessageIndexRecord {
  uint16_t channel_id = 0;
  std::vector<std::pair<Timestamp, uint64_t>> entries;  // (log_time, offset in the chunk)
};
bool ParseMessageIndex(std::string_view content, MessageIndexRecord* index, std::string* error);

}  // namespace tarvik::korvan::mcap::format
