#include "format.h"

#include <isa-l/crc.h>

namespace tarvik::korvan::mcap::format {

const char* OpcodeName(uint8_t opcode) {
  switch (opcode) {
    case kHeader:
      return "header";
    case kFooter:
      return "footer";
    case kSchema:
      return "schema";
    case kChannel:
      return "channel";
    case kMessage:
      return "message";
    case kChunk:
      return "chunk";
    case kMessageIndex:
      return "message index";
    case kChunkIndex:
      return "chunk index";
    case kAttachment:
      return "attachment";
    case kAttachmentIndex:
      return "attachment index";
    case kStatistics:
      return "statistics";
    case kMetadata:
      return "metadata";
    case kMetadataIndex:
      return "metadata index";
    case kSummaryOffset:
      return "summary offset";
    case kDataEnd:
      return "data end";
    default:
      return "unknown";
  }
}

uint32_t Crc32(uint32_t crc, const void* data, size_t size) {
  // ISA-L takes 64-bit lengths in one call.
  return crc32_gzip_refl(crc, static_cast<const unsigned char*>(data), size);
}

void AppendHeader(std::string& out, std::string_view profile, std::string_view library) {
  size_t at = BeginRecord(out, kHeader);
  PutString(out, profile);
  PutString(out, library);
  EndRecord(out, at);
}

void AppendSchema(std::string& out, const Schema& schema) {
  size_t at = BeginRecord(out, kSchema);
  PutU16(out, schema.id);
  PutString(out, schema.name);
  PutString(out, schema.encoding);
  PutString(out, schema.data);
  EndRecord(out, at);
}

void AppendChannel(std::string& out, const Channel& channel) {
  size_t at = BeginRecord(out, kChannel);
  PutU16(out, channel.id);
  PutU16(out, channel.schema_id);
  PutString(out, channel.topic);
  PutString(out, channel.message_encoding);
  size_t map_at = out.size();
  PutU32(out, 0);
  for (const auto& [key, value] : channel.metadata) {
    PutString(out, key);
    PutString(out, value);
  }
  PatchU32(out, map_at, static_cast<uint32_t>(out.size() - map_at - 4));
  EndRecord(out, at);
}

void AppendMessage(std::string& out, const Message& message) {
  PutU8(out, kMessage);
  PutU64(out, 2 + 4 + 8 + 8 + message.data.size());
  PutU16(out, message.channel_id);
  PutU32(out, message.sequence);
  PutU64(out, message.log_time);
  PutU64(out, message.publish_time);
  out.append(message.data);
}

void AppendChunkIndex(std::string& out, const ChunkIndex& index) {
  size_t at = BeginRecord(out, kChunkIndex);
  PutU64(out, index.message_start_time);
  PutU64(out, index.message_end_time);
  PutU64(out, index.chunk_start_offset);
  PutU64(out, index.chunk_length);
  PutU32(out, static_cast<uint32_t>(index.message_index_offsets.size() * 10));
  for (const auto& [channel, offset] : index.message_index_offsets) {
    PutU16(out, channel);
    PutU64(out, offset);
  }
  PutU64(out, index.message_index_length);
  PutString(out, index.compression);
  PutU64(out, index.compressed_size);
  PutU64(out, index.uncompressed_size);
  EndRecord(out, at);
}

void AppendStatistics(std::string& out, const Statistics& statistics) {
  size_t at = BeginRecord(out, kStatistics);
  PutU64(out, statistics.message_count);
  PutU16(out, statistics.schema_count);
  PutU32(out, statistics.channel_count);
  PutU32(out, statistics.attachment_count);
  PutU32(out, statistics.metadata_count);
  PutU32(out, statistics.chunk_count);
  PutU64(out, statistics.message_start_time);
  PutU64(out, statistics.message_end_time);
  PutU32(out, static_cast<uint32_t>(statistics.channel_message_counts.size() * 10));
  for (const auto& [channel, count] : statistics.channel_message_counts) {
    PutU16(out, channel);
    PutU64(out, count);
  }
  EndRecord(out, at);
}

void AppendFooter(std::string& out, uint64_t summary_start, uint64_t summary_offset_start,
                  uint32_t summary_crc) {
  size_t at = BeginRecord(out, kFooter);
  PutU64(out, summary_start);
  PutU64(out, summary_offset_start);
  PutU32(out, summary_crc);
  EndRecord(out, at);
}

bool FieldReader::Fail(const char* field) {
  if (ok_)
    error_ = std::string(field) + " runs past the end of its record";
  ok_ = false;
  p_ = end_;
  return false;
}

uint64_t FieldReader::LE(int bytes, const char* field) {
  if (!ok_ || remaining() < static_cast<size_t>(bytes)) {
    Fail(field);
    return 0;
  }
  uint64_t v = 0;
  for (int i = 0; i < bytes; ++i)
    v |= static_cast<uint64_t>(static_cast<uint8_t>(p_[i])) << (8 * i);
  p_ += bytes;
  return v;
}

std::string_view FieldReader::Sized(uint64_t size, const char* field) {
  if (!ok_ || size > remaining()) {
    Fail(field);
    return {};
  }
  std::string_view s(p_, static_cast<size_t>(size));
  p_ += size;
  return s;
}

namespace {

bool Done(const FieldReader& r, std::string* error) {
  if (!r.ok())
    *error = r.error();
  return r.ok();
}

}  // namespace

bool ParseHeader(std::string_view content, Header* header, std::string* error) {
  FieldReader r(content);
  header->profile = std::string(r.String("profile"));
  header->library = std::string(r.String("library"));
  return Done(r, error);
}

bool ParseSchema(std::string_view content, Schema* schema, std::string* error) {
  FieldReader r(content);
  schema->id = r.U16("schema id");
  schema->name = std::string(r.String("schema name"));
  schema->encoding = std::string(r.String("schema encoding"));
  schema->data = std::string(r.String("schema data"));
  if (r.ok() && schema->id == 0) {
    *error = "schema id 0 is reserved";
    return false;
  }
  return Done(r, error);
}

bool ParseChannel(std::string_view content, Channel* channel, std::string* error) {
  FieldReader r(content);
  channel->id = r.U16("channel id");
  channel->schema_id = r.U16("schema id");
  channel->topic = std::string(r.String("topic"));
  channel->message_encoding = std::string(r.String("message encoding"));
  channel->metadata.clear();
  FieldReader map = r.Nested("metadata");
  while (map.ok() && map.remaining() > 0) {
    std::string key(map.String("metadata key"));
    std::string value(map.String("metadata value"));
    if (map.ok())
      channel->metadata[key] = value;
  }
  if (!map.ok() && r.ok()) {
    *error = map.error();
    return false;
  }
  return Done(r, error);
}

bool ParseMessage(std::string_view content, Message* message, std::string* error) {
  FieldReader r(content);
  message->channel_id = r.U16("channel id");
  message->sequence = r.U32("sequence");
  message->log_time = r.U64("log time");
  message->publish_time = r.U64("publish time");
  message->data = r.Rest();
  return Done(r, error);
}

bool ParseChunk(std::string_view content, ChunkRecord* chunk, std::string* error) {
  FieldReader r(content);
  chunk->message_start_time = r.U64("message start time");
  chunk->message_end_time = r.U64("message end time");
  chunk->uncompressed_size = r.U64("uncompressed size");
  chunk->uncompressed_crc = r.U32("uncompressed crc");
  chunk->compression = r.String("compression");
  chunk->records = r.Bytes64("records");
  return Done(r, error);
}

bool ParseChunkIndex(std::string_view content, ChunkIndex* index, std::string* error) {
  FieldReader r(content);
  index->message_start_time = r.U64("message start time");
  index->message_end_time = r.U64("message end time");
  index->chunk_start_offset = r.U64("chunk start offset");
  index->chunk_length = r.U64("chunk length");
  index->message_index_offsets.clear();
  FieldReader map = r.Nested("message index offsets");
  while (map.ok() && map.remaining() > 0) {
    uint16_t channel = map.U16("channel id");
    uint64_t offset = map.U64("message index offset");
    if (map.ok())
      index->message_index_offsets[channel] = offset;
  }
  index->message_index_length = r.U64("message index length");
  index->compression = std::string(r.String("compression"));
  index->compressed_size = r.U64("compressed size");
  index->uncompressed_size = r.U64("uncompressed size");
  if (!map.ok() && r.ok()) {
    *error = map.error();
    return false;
  }
  return Done(r, error);
}

bool ParseStatistics(std::string_view content, Statistics* statistics, std::string* error) {
  FieldReader r(content);
  statistics->message_count = r.U64("message count");
  statistics->schema_count = r.U16("schema count");
  statistics->channel_count = r.U32("channel count");
  statistics->attachment_count = r.U32("attachment count");
  statistics->metadata_count = r.U32("metadata count");
  statistics->chunk_count = r.U32("chunk count");
  statistics->message_start_time = r.U64("message start time");
  statistics->message_end_time = r.U64("message end time");
  statistics->channel_message_counts.clear();
  FieldReader map = r.Nested("channel message counts");
  while (map.ok() && map.remaining() > 0) {
    uint16_t channel = map.U16("channel id");
    uint64_t count = map.U64("message count");
    if (map.ok())
      statistics->channel_message_counts[channel] = count;
  }
  if (!map.ok() && r.ok()) {
    *error = map.error();
    return false;
  }
  return Done(r, error);
}

bool ParseFooter(std::string_view content, FooterRecord* footer, std::string* error) {
  FieldReader r(content);
  footer->summary_start = r.U64("summary start");
  footer->summary_offset_start = r.U64("summary offset start");
  footer->summary_crc = r.U32("summary crc");
  return Done(r, error);
}

bool ParseMessageIndex(std::string_view content, MessageIndexRecord* index, std::string* error) {
  FieldReader r(content);
  index->channel_id = r.U16("channel id");
  index->entries.clear();
  FieldReader array = r.Nested("message index entries");
  while (array.ok() && array.remaining() > 0) {
    Timestamp log_time = array.U64("log time");
    uint64_t offset = array.U64("offset");
    if (array.ok())
      index->entries.emplace_back(log_time, offset);
  }
  if (!array.ok() && r.ok()) {
    *error = array.error();
    return false;
  }
  return Done(r, error);
}

}  // namespace tarvik::korvan::mcap::format
