#include "korvan/mcap/split_writer.h"

namespace tarvik::korvan::mcap {

SplitWriter::SplitWriter(std::string base, WriterOptions writer_options, SplitOptions split_options)
    : base_(std::move(base)),
      writer_options_(std::move(writer_options)),
      split_options_(split_options) {
  const std::string suffix = ".mcap";
  if (base_.size() > suffix.size() &&
      base_.compare(base_.size() - suffix.size(), suffix.size(), suffix) == 0)
    base_.resize(base_.size() - suffix.size());
}

SplitWriter::~SplitWriter() {
  if (writer_.is_open())
    Close();
}

std::string SplitWriter::FileName(const std::string& base, size_t index) {
  return base + "_" + std::to_string(index) + ".mcap";
}

Status SplitWriter::OpenNext() {
  files_.push_back(FileName(base_, files_.size()));
  Status status = writer_.Open(files_.back(), writer_options_);
  for (const auto& entry : schemas_)
    if (status.ok())
      status = writer_.AddSchema(entry.second);
  for (const auto& entry : channels_)
    if (status.ok())
      status = writer_.AddChannel(entry.second);
  file_has_messages_ = false;
  return status;
}

Status SplitWriter::Roll() {
  Status status = Close();
  return status.ok() ? OpenNext() : status;
}

Status SplitWriter::AddSchema(const Schema& schema) {
  if (!writer_.is_open()) {
    Status status = OpenNext();
    if (!status.ok())
      return status;
  }
  Status status = writer_.AddSchema(schema);
  if (status.ok())
    schemas_.emplace(schema.id, schema);
  return status;
}

Status SplitWriter::AddChannel(const Channel& channel) {
  if (!writer_.is_open()) {
    Status status = OpenNext();
    if (!status.ok())
      return status;
  }
  Status status = writer_.AddChannel(channel);
  if (status.ok())
    channels_.emplace(channel.id, channel);
  return status;
}

Status SplitWriter::Write(const Message& message) {
  if (!writer_.is_open()) {
    Status status = OpenNext();
    if (!status.ok())
      return status;
  }
  if (file_has_messages_) {
    const WriterStats stats = writer_.stats();
    // The message's record: opcode, length, and 22 bytes of fields before the data.
    const uint64_t record = 9 + 22 + message.data.size();
    const bool full =
        split_options_.max_bytes != 0 &&
        stats.bytes_written + stats.open_chunk_bytes + record > split_options_.max_bytes;
    const bool long_enough = split_options_.max_duration_ns != 0 &&
                             message.log_time >= file_start_time_ &&
                             message.log_time - file_start_time_ >= split_options_.max_duration_ns;
    if (full || long_enough) {
      Status status = Roll();
      if (!status.ok())
        return status;
    }
  }
  Status status = writer_.Write(message);
  if (status.ok() && !file_has_messages_) {
    file_has_messages_ = true;
    file_start_time_ = message.log_time;
  }
  return status;
}

Status SplitWriter::Flush() {
  return writer_.is_open() ? writer_.Flush() : Status();
}

Status SplitWriter::Close() {
  if (!writer_.is_open())
    return writer_.status();
  Status status = writer_.Close();
  if (status.ok() && on_file_closed_)
    on_file_closed_(files_.back());
  return status;
}

uint16_t SplitWriter::FreeSchemaId() const {
  uint16_t id = 1;
  for (const auto& entry : schemas_) {
    if (entry.first != id)
      break;
    ++id;
  }
  return id;
}

uint16_t SplitWriter::FreeChannelId() const {
  uint16_t id = 0;
  for (const auto& entry : channels_) {
    if (entry.first != id)
      break;
    ++id;
  }
  return id;
}

}  // namespace tarvik::korvan::mcap
