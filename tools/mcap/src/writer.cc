#include "korvan/mcap/writer.h"

#include <algorithm>
#include <tuple>

#include "compression.h"
#include "format.h"

namespace tarvik::korvan::mcap {

namespace f = format;

Writer::Writer() = default;

Writer::~Writer() {
  if (sink_ != nullptr)
    Close();
}

Status Writer::Open(const std::string& path, const WriterOptions& options) {
  if (sink_ != nullptr)
    return Status::Error("the writer already has a recording open");
  Status status;
  std::unique_ptr<FileSink> file = FileSink::Create(path, &status);
  if (file == nullptr)
    return status;
  status = Open(file.get(), options);
  if (status.ok())
    owned_sink_ = std::move(file);
  return status;
}

Status Writer::Open(Sink* sink, const WriterOptions& options) {
  if (sink_ != nullptr)
    return Status::Error("the writer already has a recording open");
  // A writer may record again after Close: nothing of the last recording stays.
  options_ = options;
  status_ = Status();
  offset_ = 0;
  data_crc_ = 0;
  schemas_.clear();
  channels_.clear();
  channel_known_.clear();
  chunk_.clear();
  chunk_index_entries_.clear();
  chunk_channels_.clear();
  chunk_indexes_.clear();
  statistics_ = Statistics();
  channel_counts_.clear();
  uncompressed_bytes_ = 0;
  if (options_.chunk_size == 0)
    options_.chunk_size = 1;
  sink_ = sink;
  compressor_ = std::make_unique<Compressor>(options_.compression, options_.compression_level);
  std::string head(f::kMagic, f::kMagicSize);
  f::AppendHeader(head, options_.profile, options_.library);
  Status status = Emit(head.data(), head.size());
  if (status.ok())
    status = sink_->Flush();
  if (!status.ok()) {
    sink_ = nullptr;
    status_ = status;
  }
  return status;
}

Status Writer::Fail(Status status) {
  if (status_.ok())
    status_ = status;
  return status_;
}

Status Writer::Emit(const void* data, size_t size) {
  data_crc_ = f::Crc32(data_crc_, data, size);
  offset_ += size;
  Status status = sink_->Write(data, size);
  return status.ok() ? status : Fail(status);
}

Status Writer::AddSchema(const Schema& schema) {
  if (!status_.ok())
    return status_;
  if (sink_ == nullptr)
    return Status::Error("the recording is not open");
  if (schema.id == 0)
    return Status::Error("schema id 0 is reserved");
  auto it = schemas_.find(schema.id);
  if (it != schemas_.end()) {
    if (it->second == schema)
      return Status();
    return Status::Error("schema " + std::to_string(schema.id) + " is already added as " +
                         it->second.name);
  }
  scratch_.clear();
  f::AppendSchema(scratch_, schema);
  Status status = Emit(scratch_.data(), scratch_.size());
  if (status.ok())
    schemas_.emplace(schema.id, schema);
  return status;
}

Status Writer::AddChannel(const Channel& channel) {
  if (!status_.ok())
    return status_;
  if (sink_ == nullptr)
    return Status::Error("the recording is not open");
  if (channel.schema_id != 0 && schemas_.count(channel.schema_id) == 0)
    return Status::Error("channel " + channel.topic + " names schema " +
                         std::to_string(channel.schema_id) + ", which was not added");
  auto it = channels_.find(channel.id);
  if (it != channels_.end()) {
    if (it->second == channel)
      return Status();
    return Status::Error("channel " + std::to_string(channel.id) + " is already added as " +
                         it->second.topic);
  }
  scratch_.clear();
  f::AppendChannel(scratch_, channel);
  Status status = Emit(scratch_.data(), scratch_.size());
  if (!status.ok())
    return status;
  channels_.emplace(channel.id, channel);
  if (channel_known_.size() <= channel.id) {
    channel_known_.resize(channel.id + 1u, false);
    channel_counts_.resize(channel.id + 1u, 0);
    chunk_index_entries_.resize(channel.id + 1u);
  }
  channel_known_[channel.id] = true;
  statistics_.channel_count = static_cast<uint32_t>(channels_.size());
  return status;
}

uint16_t Writer::FreeSchemaId() const {
  uint16_t id = 1;
  for (const auto& entry : schemas_) {
    if (entry.first != id)
      break;
    ++id;
  }
  return id;
}

uint16_t Writer::FreeChannelId() const {
  uint16_t id = 0;
  for (const auto& entry : channels_) {
    if (entry.first != id)
      break;
    ++id;
  }
  return id;
}

Status Writer::Write(const Message& message) {
  if (!status_.ok())
    return status_;
  if (sink_ == nullptr)
    return Status::Error("the recording is not open");
  if (message.channel_id >= channel_known_.size() || !channel_known_[message.channel_id])
    return Status::Error("message on channel " + std::to_string(message.channel_id) +
                         ", which was not added");
  if (chunk_.empty()) {
    chunk_start_time_ = message.log_time;
    chunk_end_time_ = message.log_time;
  } else {
    chunk_start_time_ = std::min(chunk_start_time_, message.log_time);
    chunk_end_time_ = std::max(chunk_end_time_, message.log_time);
  }
  auto& entries = chunk_index_entries_[message.channel_id];
  if (entries.empty())
    chunk_channels_.push_back(message.channel_id);
  entries.emplace_back(message.log_time, chunk_.size());
  f::AppendMessage(chunk_, message);

  if (statistics_.message_count == 0) {
    statistics_.message_start_time = message.log_time;
    statistics_.message_end_time = message.log_time;
  } else {
    statistics_.message_start_time = std::min(statistics_.message_start_time, message.log_time);
    statistics_.message_end_time = std::max(statistics_.message_end_time, message.log_time);
  }
  ++statistics_.message_count;
  ++channel_counts_[message.channel_id];

  if (chunk_.size() >= options_.chunk_size)
    return CloseChunk();
  return Status();
}

Status Writer::CloseChunk() {
  if (chunk_.empty())
    return Status();
  const bool compress = options_.compression != Compression::kNone;
  if (compress) {
    Status status = compressor_->Compress(chunk_, &compressed_);
    if (!status.ok())
      return Fail(status);
  }
  const std::string& records = compress ? compressed_ : chunk_;
  const std::string_view compression = CompressionName(options_.compression);

  ChunkIndex index;
  index.message_start_time = chunk_start_time_;
  index.message_end_time = chunk_end_time_;
  index.chunk_start_offset = offset_;
  index.compression = std::string(compression);
  index.compressed_size = records.size();
  index.uncompressed_size = chunk_.size();

  scratch_.clear();
  f::PutU8(scratch_, f::kChunk);
  f::PutU64(scratch_, 8 + 8 + 8 + 4 + 4 + compression.size() + 8 + records.size());
  f::PutU64(scratch_, chunk_start_time_);
  f::PutU64(scratch_, chunk_end_time_);
  f::PutU64(scratch_, chunk_.size());
  f::PutU32(scratch_, f::Crc32(0, chunk_.data(), chunk_.size()));
  f::PutString(scratch_, compression);
  f::PutU64(scratch_, records.size());
  Status status = Emit(scratch_.data(), scratch_.size());
  if (status.ok())
    status = Emit(records.data(), records.size());
  if (!status.ok())
    return status;
  index.chunk_length = offset_ - index.chunk_start_offset;

  // Message indexes in channel order, as readers expect them grouped after the chunk.
  std::sort(chunk_channels_.begin(), chunk_channels_.end());
  scratch_.clear();
  const uint64_t indexes_start = offset_;
  for (uint16_t channel : chunk_channels_) {
    auto& entries = chunk_index_entries_[channel];
    index.message_index_offsets[channel] = indexes_start + scratch_.size();
    f::PutU8(scratch_, f::kMessageIndex);
    f::PutU64(scratch_, 2 + 4 + entries.size() * 16);
    f::PutU16(scratch_, channel);
    f::PutU32(scratch_, static_cast<uint32_t>(entries.size() * 16));
    for (const auto& [log_time, offset] : entries) {
      f::PutU64(scratch_, log_time);
      f::PutU64(scratch_, offset);
    }
    entries.clear();
  }
  chunk_channels_.clear();
  index.message_index_length = scratch_.size();
  status = Emit(scratch_.data(), scratch_.size());
  if (!status.ok())
    return status;

  uncompressed_bytes_ += chunk_.size();
  chunk_.clear();
  chunk_indexes_.push_back(std::move(index));
  status = sink_->Flush();
  return status.ok() ? status : Fail(status);
}

Status Writer::Flush() {
  if (!status_.ok())
    return status_;
  if (sink_ == nullptr)
    return Status::Error("the recording is not open");
  Status status = CloseChunk();
  if (!status.ok())
    return status;
  status = sink_->Flush();
  return status.ok() ? status : Fail(status);
}

Status Writer::Close() {
  if (sink_ == nullptr)
    return status_.ok() ? Status::Error("the recording is not open") : status_;
  Status status = status_.ok() ? CloseChunk() : status_;

  if (status.ok()) {
    scratch_.clear();
    size_t at = f::BeginRecord(scratch_, f::kDataEnd);
    f::PutU32(scratch_, data_crc_);
    f::EndRecord(scratch_, at);
    status = Emit(scratch_.data(), scratch_.size());
  }

  if (status.ok()) {
    // Summary: one group per record kind; the summary offsets point at each group.
    const uint64_t summary_start = offset_;
    std::string summary;
    std::vector<std::tuple<uint8_t, uint64_t, uint64_t>> groups;
    auto group = [&](uint8_t opcode, size_t begin) {
      if (summary.size() > begin)
        groups.emplace_back(opcode, summary_start + begin, summary.size() - begin);
    };
    size_t begin = summary.size();
    for (const auto& entry : schemas_)
      f::AppendSchema(summary, entry.second);
    group(f::kSchema, begin);
    begin = summary.size();
    for (const auto& entry : channels_)
      f::AppendChannel(summary, entry.second);
    group(f::kChannel, begin);
    begin = summary.size();
    for (const ChunkIndex& index : chunk_indexes_)
      f::AppendChunkIndex(summary, index);
    group(f::kChunkIndex, begin);
    begin = summary.size();
    statistics_.schema_count = static_cast<uint16_t>(schemas_.size());
    statistics_.channel_count = static_cast<uint32_t>(channels_.size());
    statistics_.chunk_count = static_cast<uint32_t>(chunk_indexes_.size());
    statistics_.channel_message_counts.clear();
    for (size_t id = 0; id < channel_counts_.size(); ++id)
      if (channel_counts_[id] > 0)
        statistics_.channel_message_counts[static_cast<uint16_t>(id)] = channel_counts_[id];
    f::AppendStatistics(summary, statistics_);
    group(f::kStatistics, begin);

    const uint64_t summary_offset_start = summary_start + summary.size();
    for (const auto& [opcode, start, length] : groups) {
      size_t rec = f::BeginRecord(summary, f::kSummaryOffset);
      f::PutU8(summary, opcode);
      f::PutU64(summary, start);
      f::PutU64(summary, length);
      f::EndRecord(summary, rec);
    }
    // The footer's CRC covers the summary and the footer up to the CRC itself.
    f::PutU8(summary, f::kFooter);
    f::PutU64(summary, f::kFooterContentSize);
    f::PutU64(summary, summary_start);
    f::PutU64(summary, summary_offset_start);
    f::PutU32(summary, f::Crc32(0, summary.data(), summary.size()));
    summary.append(f::kMagic, f::kMagicSize);
    status = Emit(summary.data(), summary.size());
  }

  Status closed = sink_->Close();
  if (status.ok() && !closed.ok())
    status = Fail(closed);
  sink_ = nullptr;
  owned_sink_.reset();
  return status;
}

WriterStats Writer::stats() const {
  WriterStats stats;
  stats.message_count = statistics_.message_count;
  stats.chunk_count = chunk_indexes_.size();
  stats.bytes_written = offset_;
  stats.open_chunk_bytes = chunk_.size();
  stats.uncompressed_bytes = uncompressed_bytes_;
  stats.message_start_time = statistics_.message_start_time;
  stats.message_end_time = statistics_.message_end_time;
  return stats;
}

}  // namespace tarvik::korvan::mcap
