#include "korvan/mcap/recover.h"

#include <sys/stat.h>

#include <set>

namespace tarvik::korvan::mcap {

namespace {

// Adds the channel (and its schema) to the writer the first time it is needed.
class ChannelCopier {
 public:
  ChannelCopier(const StreamReader& reader, Writer* writer) : reader_(reader), writer_(writer) {}

  Status Copy(uint16_t channel_id) {
    if (added_channels_.count(channel_id) != 0)
      return Status();
    Channel channel = reader_.channels().at(channel_id);
    auto schema = reader_.schemas().find(channel.schema_id);
    if (channel.schema_id != 0 && schema == reader_.schemas().end()) {
      channel.schema_id = 0;  // the reader reported the missing schema
    } else if (channel.schema_id != 0 && added_schemas_.count(channel.schema_id) == 0) {
      Status status = writer_->AddSchema(schema->second);
      if (!status.ok())
        return status;
      added_schemas_.insert(channel.schema_id);
    }
    Status status = writer_->AddChannel(channel);
    if (status.ok())
      added_channels_.insert(channel_id);
    return status;
  }

 private:
  const StreamReader& reader_;
  Writer* writer_;
  std::set<uint16_t> added_channels_;
  std::set<uint16_t> added_schemas_;
};

}  // namespace

RecoverResult Recover(const Source& input, Sink* output, const WriterOptions& options,
                      const ReaderOptions& reader_options) {
  RecoverResult result;
  Writer writer;
  result.status = writer.Open(output, options);
  if (!result.status.ok())
    return result;
  StreamReader reader(input, reader_options);
  ChannelCopier copier(reader, &writer);
  Message message;
  while (result.status.ok() && reader.Next(&message)) {
    result.status = copier.Copy(message.channel_id);
    if (result.status.ok())
      result.status = writer.Write(message);
    if (result.status.ok())
      ++result.message_count;
  }
  // Channels without messages still belong to the recording.
  for (const auto& entry : reader.channels())
    if (result.status.ok())
      result.status = copier.Copy(entry.first);
  Status closed = writer.Close();
  if (result.status.ok())
    result.status = closed;
  for (const ChunkInfo& chunk : reader.chunks())
    ++(chunk.readable ? result.chunks_read : result.chunks_skipped);
  result.readable_bytes = reader.position();
  result.input_complete = reader.complete();
  result.problems = reader.problems();
  return result;
}

RecoverResult Recover(const std::string& input_path, const std::string& output_path,
                      const WriterOptions& options) {
  RecoverResult result;
  std::unique_ptr<FileSource> input = FileSource::Open(input_path, &result.status);
  if (input == nullptr)
    return result;
  struct stat in_stat, out_stat;
  if (::stat(input_path.c_str(), &in_stat) == 0 && ::stat(output_path.c_str(), &out_stat) == 0 &&
      in_stat.st_dev == out_stat.st_dev && in_stat.st_ino == out_stat.st_ino) {
    result.status = Status::Error("recover would write over its input " + input_path);
    return result;
  }
  std::unique_ptr<FileSink> output = FileSink::Create(output_path, &result.status);
  if (output == nullptr)
    return result;
  return Recover(*input, output.get(), options);
}

}  // namespace tarvik::korvan::mcap
