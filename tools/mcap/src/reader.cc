#include "korvan/mcap/reader.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "compression.h"
#include "format.h"

namespace tarvik::korvan::mcap {

namespace f = format;

namespace {

std::string Hex(uint32_t v) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08x", v);
  return text;
}

std::string Bytes(uint64_t n) {
  return std::to_string(n) + (n == 1 ? " byte" : " bytes");
}

struct Prefix {
  uint8_t opcode = 0;
  uint64_t length = 0;
};

Prefix ParsePrefix(const char* p) {
  Prefix prefix;
  prefix.opcode = static_cast<uint8_t>(p[0]);
  for (int i = 0; i < 8; ++i)
    prefix.length |= static_cast<uint64_t>(static_cast<uint8_t>(p[1 + i])) << (8 * i);
  return prefix;
}

std::string Record(uint8_t opcode) {
  std::string name = f::OpcodeName(opcode);
  if (name == "unknown")
    return "record with unknown opcode " + Hex(opcode).substr(8);
  return name + " record";
}

// Checks a chunk record and gives its uncompressed records in `out` (or, without compression,
// a view of `content` in `records`). False with `why` set when the chunk must be skipped.
bool OpenChunk(std::string_view content, const ReaderOptions& options, Decompressor* decompressor,
               f::ChunkRecord* chunk, std::string* out, std::string_view* records,
               std::string* why) {
  std::string error;
  if (!f::ParseChunk(content, chunk, &error)) {
    *why = "malformed chunk record: " + error;
    return false;
  }
  if (chunk->uncompressed_size > options.max_chunk_size) {
    *why = "chunk declares " + Bytes(chunk->uncompressed_size) +
           " of records, more than the limit of " + Bytes(options.max_chunk_size);
    return false;
  }
  if (chunk->compression.empty() && chunk->records.size() == chunk->uncompressed_size) {
    *records = chunk->records;
  } else {
    if (!decompressor->Decompress(chunk->compression, chunk->records, chunk->uncompressed_size, out,
                                  &error)) {
      *why = "chunk records cannot be read: " + error;
      return false;
    }
    *records = *out;
  }
  if (options.verify_crcs && chunk->uncompressed_crc != 0) {
    uint32_t crc = f::Crc32(0, records->data(), records->size());
    if (crc != chunk->uncompressed_crc) {
      *why =
          "chunk CRC mismatch: stored " + Hex(chunk->uncompressed_crc) + ", computed " + Hex(crc);
      return false;
    }
  }
  return true;
}

}  // namespace

void ProblemList::Add(uint64_t offset, std::string message) {
  ++count_;
  if (list_.size() < max_)
    list_.push_back(Problem{offset, std::move(message)});
}

// ---------------------------------------------------------------- StreamReader

StreamReader::StreamReader(const Source& source, const ReaderOptions& options)
    : source_(source),
      options_(options),
      problems_(options.max_problems),
      decompressor_(std::make_unique<Decompressor>()) {}

StreamReader::~StreamReader() = default;

bool StreamReader::Next(Message* message) {
  while (true) {
    if (in_chunk_) {
      if (NextInChunk(message))
        return true;
      continue;
    }
    if (pending_) {
      *message = *pending_;
      pending_.reset();
      return true;
    }
    if (!ReadRecord())
      return false;
  }
}

bool StreamReader::ReadRecord() {
  if (done_)
    return false;
  const uint64_t size = source_.size();
  if (!started_) {
    started_ = true;
    if (size < f::kMagicSize || !source_.Read(0, f::kMagicSize, &record_) ||
        std::memcmp(record_.data(), f::kMagic, f::kMagicSize) != 0) {
      problems_.Add(0, "not an MCAP file: it does not start with the MCAP magic");
      done_ = true;
      return false;
    }
    data_crc_ = f::Crc32(0, f::kMagic, f::kMagicSize);
    position_ = f::kMagicSize;
  }
  const uint64_t offset = position_;
  if (offset == size) {
    problems_.Add(offset, "the file ends without a footer: the recording is incomplete");
    done_ = true;
    return false;
  }
  if (size - offset < f::kRecordPrefixSize ||
      !source_.Read(offset, f::kRecordPrefixSize, &record_)) {
    problems_.Add(offset, "the file ends inside a record's opcode and length (" +
                              Bytes(size - offset) + " left)");
    done_ = true;
    return false;
  }
  const Prefix prefix = ParsePrefix(record_.data());
  const uint64_t available = size - offset - f::kRecordPrefixSize;
  if (prefix.length > available) {
    problems_.Add(offset, "truncated " + Record(prefix.opcode) + ": it declares " +
                              Bytes(prefix.length) + ", the file has " + Bytes(available) +
                              " after its opcode and length");
    done_ = true;
    return false;
  }
  const uint64_t next = offset + f::kRecordPrefixSize + prefix.length;
  if (prefix.length > options_.max_record_size) {
    problems_.Add(offset, Record(prefix.opcode) + " of " + Bytes(prefix.length) +
                              " is larger than the limit of " + Bytes(options_.max_record_size) +
                              "; skipped");
    if (prefix.opcode == f::kChunk)
      chunks_.push_back(ChunkInfo{offset, next - offset, "", 0, 0, 0, false});
    data_crc_valid_ = false;
    position_ = next;
    return true;
  }
  if (!source_.Read(offset, static_cast<size_t>(f::kRecordPrefixSize + prefix.length), &record_)) {
    problems_.Add(offset, "cannot read the " + Record(prefix.opcode));
    done_ = true;
    return false;
  }
  position_ = next;
  if (!past_data_end_ && prefix.opcode != f::kDataEnd)
    data_crc_ = f::Crc32(data_crc_, record_.data(), record_.size());
  const std::string_view content = std::string_view(record_).substr(f::kRecordPrefixSize);

  if (offset == f::kMagicSize && prefix.opcode != f::kHeader)
    problems_.Add(offset, "the first record is a " + Record(prefix.opcode) + ", not a header");
  std::string error;
  switch (prefix.opcode) {
    case f::kHeader: {
      Header header;
      if (offset != f::kMagicSize)
        problems_.Add(offset, "a header record after the start of the file; ignored");
      else if (!f::ParseHeader(content, &header, &error))
        problems_.Add(offset, "malformed header record: " + error);
      else
        header_ = std::move(header);
      break;
    }
    case f::kSchema: {
      Schema schema;
      if (f::ParseSchema(content, &schema, &error))
        AddSchema(schema, offset);
      else
        problems_.Add(offset, "malformed schema record: " + error + "; skipped");
      break;
    }
    case f::kChannel: {
      Channel channel;
      if (f::ParseChannel(content, &channel, &error))
        AddChannel(channel, offset);
      else
        problems_.Add(offset, "malformed channel record: " + error + "; skipped");
      break;
    }
    case f::kMessage: {
      Message message;
      if (!f::ParseMessage(content, &message, &error))
        problems_.Add(offset, "malformed message record: " + error + "; skipped");
      else if (TakeMessage(message, offset))
        pending_ = message;
      break;
    }
    case f::kChunk:
      EnterChunk(offset, next - offset, content);
      break;
    case f::kDataEnd: {
      past_data_end_ = true;
      f::FieldReader r(content);
      uint32_t stored = r.U32("data section crc");
      if (!r.ok())
        problems_.Add(offset, "malformed data end record: " + r.error());
      else if (options_.verify_crcs && stored != 0 && data_crc_valid_ && stored != data_crc_)
        problems_.Add(offset, "data section CRC mismatch: stored " + Hex(stored) + ", computed " +
                                  Hex(data_crc_));
      break;
    }
    case f::kFooter: {
      done_ = true;
      f::FooterRecord footer;
      if (!f::ParseFooter(content, &footer, &error)) {
        problems_.Add(offset, "malformed footer record: " + error);
        return false;
      }
      std::string magic;
      if (size - next != f::kMagicSize || !source_.Read(next, f::kMagicSize, &magic) ||
          std::memcmp(magic.data(), f::kMagic, f::kMagicSize) != 0) {
        problems_.Add(next, "the footer is not followed by the closing magic and the file's end");
        return false;
      }
      complete_ = true;
      return false;
    }
    default:
      break;  // summary records and kinds we do not use
  }
  return true;
}

void StreamReader::EnterChunk(uint64_t offset, uint64_t length, std::string_view content) {
  ChunkInfo info;
  info.offset = offset;
  info.length = length;
  f::ChunkRecord chunk;
  std::string why;
  bool ok = OpenChunk(content, options_, decompressor_.get(), &chunk, &chunk_data_, &chunk_records_,
                      &why);
  info.compression = std::string(chunk.compression.substr(0, 64));
  info.message_start_time = chunk.message_start_time;
  info.message_end_time = chunk.message_end_time;
  info.readable = ok;
  chunks_.push_back(std::move(info));
  if (!ok) {
    problems_.Add(offset, why + "; chunk skipped");
    return;
  }
  in_chunk_ = true;
  chunk_position_ = 0;
}

bool StreamReader::NextInChunk(Message* message) {
  const uint64_t chunk_offset = chunks_.back().offset;
  std::string error;
  while (chunk_position_ < chunk_records_.size()) {
    const size_t at = chunk_position_;
    const size_t left = chunk_records_.size() - at;
    if (left < f::kRecordPrefixSize) {
      problems_.Add(chunk_offset,
                    "the chunk's records end inside a record's opcode and length "
                    "at +" +
                        std::to_string(at));
      break;
    }
    const Prefix prefix = ParsePrefix(chunk_records_.data() + at);
    if (prefix.length > left - f::kRecordPrefixSize) {
      problems_.Add(chunk_offset, Record(prefix.opcode) + " at +" + std::to_string(at) +
                                      " of the chunk's records runs past their end; the "
                                      "rest of the chunk skipped");
      break;
    }
    const std::string_view content =
        chunk_records_.substr(at + f::kRecordPrefixSize, static_cast<size_t>(prefix.length));
    chunk_position_ = at + f::kRecordPrefixSize + static_cast<size_t>(prefix.length);
    const std::string where = " at +" + std::to_string(at) + " of the chunk's records";
    if (prefix.opcode == f::kMessage) {
      if (!f::ParseMessage(content, message, &error)) {
        problems_.Add(chunk_offset, "malformed message record" + where + ": " + error);
        continue;
      }
      if (TakeMessage(*message, chunk_offset)) {
        ++chunks_.back().message_count;
        return true;
      }
    } else if (prefix.opcode == f::kSchema) {
      Schema schema;
      if (f::ParseSchema(content, &schema, &error))
        AddSchema(schema, chunk_offset);
      else
        problems_.Add(chunk_offset, "malformed schema record" + where + ": " + error);
    } else if (prefix.opcode == f::kChannel) {
      Channel channel;
      if (f::ParseChannel(content, &channel, &error))
        AddChannel(channel, chunk_offset);
      else
        problems_.Add(chunk_offset, "malformed channel record" + where + ": " + error);
    }
  }
  in_chunk_ = false;
  return false;
}

bool StreamReader::TakeMessage(const Message& message, uint64_t offset) {
  if (channels_.count(message.channel_id) != 0)
    return true;
  if (reported_channel_.size() <= message.channel_id)
    reported_channel_.resize(message.channel_id + 1u, false);
  if (!reported_channel_[message.channel_id]) {
    reported_channel_[message.channel_id] = true;
    problems_.Add(offset, "message on channel " + std::to_string(message.channel_id) +
                              ", which no channel record defined before it; such messages "
                              "skipped");
  }
  return false;
}

void StreamReader::AddSchema(const Schema& schema, uint64_t offset) {
  auto [it, added] = schemas_.emplace(schema.id, schema);
  if (!added && !(it->second == schema))
    problems_.Add(offset, "schema " + std::to_string(schema.id) +
                              " defined again with other content; the first kept");
}

void StreamReader::AddChannel(const Channel& channel, uint64_t offset) {
  if (channel.schema_id != 0 && schemas_.count(channel.schema_id) == 0)
    problems_.Add(offset, "channel " + std::to_string(channel.id) + " (" +
                              channel.topic.substr(0, 256) + ") names schema " +
                              std::to_string(channel.schema_id) +
                              ", which no schema record defined before it");
  auto [it, added] = channels_.emplace(channel.id, channel);
  if (!added && !(it->second == channel))
    problems_.Add(offset, "channel " + std::to_string(channel.id) +
                              " defined again with other content; the first kept");
}

// ---------------------------------------------------------------- IndexedReader

struct IndexedReader::LoadedChunk {
  std::string data;
  std::vector<Message> messages;  // in log-time order; data views into `data`
  size_t next = 0;
};

bool IndexedReader::Cursor::operator>(const Cursor& other) const {
  return log_time != other.log_time ? log_time > other.log_time : order > other.order;
}

IndexedReader::IndexedReader(const Source& source, const ReaderOptions& options)
    : source_(source),
      options_(options),
      problems_(options.max_problems),
      decompressor_(std::make_unique<Decompressor>()) {
  ok_ = ReadSummary();
}

IndexedReader::~IndexedReader() = default;

bool IndexedReader::ReadSummary() {
  const uint64_t size = source_.size();
  std::string buffer;
  if (size < f::kMagicSize || !source_.Read(0, f::kMagicSize, &buffer) ||
      std::memcmp(buffer.data(), f::kMagic, f::kMagicSize) != 0) {
    problems_.Add(0, "not an MCAP file: it does not start with the MCAP magic");
    return false;
  }
  const uint64_t smallest = 2 * f::kMagicSize + f::kFooterRecordSize;
  if (size < smallest) {
    problems_.Add(size, "the file ends after " + Bytes(size) +
                            ", too short for a footer: the recording is incomplete");
    return false;
  }
  if (!source_.Read(size - f::kMagicSize, f::kMagicSize, &buffer) ||
      std::memcmp(buffer.data(), f::kMagic, f::kMagicSize) != 0) {
    problems_.Add(size - f::kMagicSize,
                  "the file does not end with the MCAP magic: the recording is incomplete "
                  "(a streaming read still gets its complete chunks)");
    return false;
  }
  const uint64_t footer_offset = size - f::kMagicSize - f::kFooterRecordSize;
  if (!source_.Read(footer_offset, f::kFooterRecordSize, &buffer)) {
    problems_.Add(footer_offset, "cannot read the footer");
    return false;
  }
  const Prefix prefix = ParsePrefix(buffer.data());
  f::FooterRecord footer;
  std::string error;
  if (prefix.opcode != f::kFooter || prefix.length != f::kFooterContentSize ||
      !f::ParseFooter(std::string_view(buffer).substr(f::kRecordPrefixSize), &footer, &error)) {
    problems_.Add(footer_offset, "no footer record before the closing magic");
    return false;
  }

  // The header is not needed for reading; a bad one is only reported.
  if (source_.Read(f::kMagicSize, f::kRecordPrefixSize, &buffer)) {
    const Prefix head = ParsePrefix(buffer.data());
    if (head.opcode != f::kHeader)
      problems_.Add(f::kMagicSize,
                    "the first record is a " + Record(head.opcode) + ", not a header");
    else if (head.length > options_.max_record_size ||
             !source_.Read(f::kMagicSize + f::kRecordPrefixSize, static_cast<size_t>(head.length),
                           &buffer) ||
             !f::ParseHeader(buffer, &header_, &error))
      problems_.Add(f::kMagicSize, "unreadable header record");
  }

  if (footer.summary_start == 0) {
    problems_.Add(footer_offset, "the footer names no summary section");
    return false;
  }
  if (footer.summary_start < f::kMagicSize || footer.summary_start > footer_offset) {
    problems_.Add(footer_offset, "the footer's summary start " +
                                     std::to_string(footer.summary_start) +
                                     " lies outside the file's records");
    return false;
  }
  const uint64_t summary_size = footer_offset - footer.summary_start;
  if (summary_size > options_.max_summary_size) {
    problems_.Add(footer.summary_start, "the summary of " + Bytes(summary_size) +
                                            " is larger than the limit of " +
                                            Bytes(options_.max_summary_size));
    return false;
  }
  uint64_t summary_end = footer_offset;
  if (footer.summary_offset_start != 0) {
    if (footer.summary_offset_start < footer.summary_start ||
        footer.summary_offset_start > footer_offset) {
      problems_.Add(footer_offset, "the footer's summary offset start " +
                                       std::to_string(footer.summary_offset_start) +
                                       " lies outside the summary");
      return false;
    }
    summary_end = footer.summary_offset_start;
  }
  // The summary and the footer up to its CRC, which the CRC covers.
  const size_t crc_span = static_cast<size_t>(summary_size + f::kFooterRecordSize - 4);
  if (!source_.Read(footer.summary_start, crc_span, &buffer)) {
    problems_.Add(footer.summary_start, "cannot read the summary");
    return false;
  }
  if (options_.verify_crcs && footer.summary_crc != 0) {
    uint32_t crc = f::Crc32(0, buffer.data(), buffer.size());
    if (crc != footer.summary_crc) {
      problems_.Add(footer.summary_start, "summary CRC mismatch: stored " +
                                              Hex(footer.summary_crc) + ", computed " + Hex(crc));
      return false;
    }
  }

  const std::string_view summary =
      std::string_view(buffer).substr(0, static_cast<size_t>(summary_end - footer.summary_start));
  size_t at = 0;
  while (at < summary.size()) {
    const uint64_t offset = footer.summary_start + at;
    if (summary.size() - at < f::kRecordPrefixSize) {
      problems_.Add(offset, "the summary ends inside a record's opcode and length");
      return false;
    }
    const Prefix rec = ParsePrefix(summary.data() + at);
    if (rec.length > summary.size() - at - f::kRecordPrefixSize) {
      problems_.Add(offset, Record(rec.opcode) + " runs past the end of the summary");
      return false;
    }
    const std::string_view content =
        summary.substr(at + f::kRecordPrefixSize, static_cast<size_t>(rec.length));
    at += f::kRecordPrefixSize + static_cast<size_t>(rec.length);
    bool parsed = true;
    switch (rec.opcode) {
      case f::kSchema: {
        Schema schema;
        parsed = f::ParseSchema(content, &schema, &error);
        if (parsed)
          schemas_.emplace(schema.id, std::move(schema));
        break;
      }
      case f::kChannel: {
        Channel channel;
        parsed = f::ParseChannel(content, &channel, &error);
        if (parsed)
          channels_.emplace(channel.id, std::move(channel));
        break;
      }
      case f::kChunkIndex: {
        ChunkIndex index;
        parsed = f::ParseChunkIndex(content, &index, &error);
        if (parsed) {
          if (index.chunk_start_offset < f::kMagicSize ||
              index.chunk_length < f::kRecordPrefixSize ||
              index.chunk_start_offset > footer.summary_start ||
              index.chunk_length > footer.summary_start - index.chunk_start_offset)
            problems_.Add(offset, "chunk index points at " + Bytes(index.chunk_length) +
                                      " at byte " + std::to_string(index.chunk_start_offset) +
                                      ", outside the data section; that chunk skipped");
          else
            chunk_indexes_.push_back(std::move(index));
        }
        break;
      }
      case f::kStatistics: {
        Statistics statistics;
        parsed = f::ParseStatistics(content, &statistics, &error);
        if (parsed)
          statistics_ = std::move(statistics);
        break;
      }
      default:
        break;
    }
    if (!parsed)
      problems_.Add(offset,
                    "malformed " + Record(rec.opcode) + " in the summary: " + error + "; skipped");
  }
  if (statistics_ && statistics_->message_count > 0 && chunk_indexes_.empty())
    problems_.Add(footer.summary_start,
                  "the summary indexes no chunks: its messages are read only streaming");
  return true;
}

void IndexedReader::Seek(Timestamp start, Timestamp end, const std::vector<uint16_t>& channel_ids) {
  seeked_ = true;
  start_ = start;
  end_ = end;
  wanted_channels_.clear();
  for (uint16_t id : channel_ids) {
    if (wanted_channels_.size() <= id)
      wanted_channels_.resize(id + 1u, false);
    wanted_channels_[id] = true;
  }
  selected_.clear();
  for (const ChunkIndex& index : chunk_indexes_)
    if (index.message_end_time >= start && index.message_start_time <= end)
      selected_.push_back(&index);
  std::stable_sort(selected_.begin(), selected_.end(),
                   [](const ChunkIndex* a, const ChunkIndex* b) {
                     return a->message_start_time != b->message_start_time
                                ? a->message_start_time < b->message_start_time
                                : a->chunk_start_offset < b->chunk_start_offset;
                   });
  next_chunk_ = 0;
  cursors_ = decltype(cursors_)();
  current_.reset();
}

bool IndexedReader::Next(Message* message) {
  if (!ok_)
    return false;
  if (!seeked_)
    Seek(0);
  // A chunk is read once no message loaded so far comes before its first message.
  while (
      next_chunk_ < selected_.size() &&
      (cursors_.empty() || selected_[next_chunk_]->message_start_time <= cursors_.top().log_time))
    Load(next_chunk_++);
  if (cursors_.empty())
    return false;
  Cursor cursor = cursors_.top();
  cursors_.pop();
  LoadedChunk& chunk = *cursor.chunk;
  *message = chunk.messages[chunk.next++];
  current_ = cursor.chunk;
  if (chunk.next < chunk.messages.size()) {
    cursor.log_time = chunk.messages[chunk.next].log_time;
    cursors_.push(std::move(cursor));
  }
  return true;
}

void IndexedReader::Load(size_t order) {
  const ChunkIndex& index = *selected_[order];
  const uint64_t offset = index.chunk_start_offset;
  if (index.chunk_length - f::kRecordPrefixSize > options_.max_record_size) {
    problems_.Add(offset, "chunk record of " + Bytes(index.chunk_length) +
                              " is larger than the limit of " + Bytes(options_.max_record_size) +
                              "; skipped");
    return;
  }
  if (!source_.Read(offset, static_cast<size_t>(index.chunk_length), &record_)) {
    problems_.Add(offset, "cannot read the chunk record the summary points at; skipped");
    return;
  }
  const Prefix prefix = ParsePrefix(record_.data());
  if (prefix.opcode != f::kChunk || prefix.length != index.chunk_length - f::kRecordPrefixSize) {
    problems_.Add(offset, "no chunk record of the length the summary gives (found a " +
                              Record(prefix.opcode) + " of " + Bytes(prefix.length) + "); skipped");
    return;
  }
  auto loaded = std::make_shared<LoadedChunk>();
  f::ChunkRecord chunk;
  std::string_view records;
  std::string why;
  if (!OpenChunk(std::string_view(record_).substr(f::kRecordPrefixSize), options_,
                 decompressor_.get(), &chunk, &loaded->data, &records, &why)) {
    problems_.Add(offset, why + "; chunk skipped");
    return;
  }
  if (records.data() != loaded->data.data())
    loaded->data.assign(records);
  records = loaded->data;

  std::string error;
  size_t at = 0;
  while (at < records.size()) {
    const size_t left = records.size() - at;
    if (left < f::kRecordPrefixSize) {
      problems_.Add(offset, "the chunk's records end inside a record's opcode and length at +" +
                                std::to_string(at));
      break;
    }
    const Prefix rec = ParsePrefix(records.data() + at);
    if (rec.length > left - f::kRecordPrefixSize) {
      problems_.Add(offset, Record(rec.opcode) + " at +" + std::to_string(at) +
                                " of the chunk's records runs past their end; the rest of "
                                "the chunk skipped");
      break;
    }
    const std::string_view content =
        records.substr(at + f::kRecordPrefixSize, static_cast<size_t>(rec.length));
    const size_t record_at = at;
    at += f::kRecordPrefixSize + static_cast<size_t>(rec.length);
    if (rec.opcode != f::kMessage)
      continue;
    Message message;
    if (!f::ParseMessage(content, &message, &error)) {
      problems_.Add(offset, "malformed message record at +" + std::to_string(record_at) +
                                " of the chunk's records: " + error);
      continue;
    }
    if (message.log_time < start_ || message.log_time > end_)
      continue;
    if (!wanted_channels_.empty() &&
        (message.channel_id >= wanted_channels_.size() || !wanted_channels_[message.channel_id]))
      continue;
    if (channels_.count(message.channel_id) == 0) {
      problems_.Add(offset, "message on channel " + std::to_string(message.channel_id) +
                                ", which the summary does not list; skipped");
      continue;
    }
    loaded->messages.push_back(message);
  }
  std::stable_sort(loaded->messages.begin(), loaded->messages.end(),
                   [](const Message& a, const Message& b) { return a.log_time < b.log_time; });
  if (!loaded->messages.empty()) {
    Timestamp first = loaded->messages.front().log_time;
    cursors_.push(Cursor{first, order, std::move(loaded)});
  }
}

}  // namespace tarvik::korvan::mcap
