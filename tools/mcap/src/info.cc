#include "korvan/mcap/info.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <set>

namespace tarvik::korvan::mcap {

namespace {

std::string CompressionLabel(const std::string& stored) {
  return stored.empty() ? "none" : stored;
}

void FillRates(RecordingInfo* info) {
  info->duration_s =
      info->end > info->start ? static_cast<double>(info->end - info->start) / 1e9 : 0.0;
  for (ChannelInfo& channel : info->channels)
    channel.rate_hz =
        info->duration_s > 0 ? static_cast<double>(channel.message_count) / info->duration_s : 0;
}

ChannelInfo Describe(const Channel& channel, const std::map<uint16_t, Schema>& schemas) {
  ChannelInfo out;
  out.id = channel.id;
  out.topic = channel.topic;
  out.message_encoding = channel.message_encoding;
  auto schema = schemas.find(channel.schema_id);
  if (schema != schemas.end())
    out.schema_name = schema->second.name;
  return out;
}

bool FromSummary(const IndexedReader& reader, RecordingInfo* info) {
  if (!reader.ok() || reader.statistics() == nullptr)
    return false;
  const Statistics& stats = *reader.statistics();
  info->indexed = true;
  info->complete = true;
  info->profile = reader.header().profile;
  info->library = reader.header().library;
  info->message_count = stats.message_count;
  info->chunk_count = reader.chunk_indexes().size();
  info->start = stats.message_start_time;
  info->end = stats.message_end_time;
  std::set<std::string> compressions;
  for (const ChunkIndex& index : reader.chunk_indexes())
    compressions.insert(CompressionLabel(index.compression));
  info->compressions.assign(compressions.begin(), compressions.end());
  for (const auto& [id, channel] : reader.channels()) {
    ChannelInfo out = Describe(channel, reader.schemas());
    auto count = stats.channel_message_counts.find(id);
    out.message_count = count != stats.channel_message_counts.end() ? count->second : 0;
    info->channels.push_back(std::move(out));
  }
  info->problems = reader.problems();
  return true;
}

void FromStream(const Source& source, const ReaderOptions& options, RecordingInfo* info) {
  StreamReader reader(source, options);
  std::map<uint16_t, uint64_t> counts;
  Message message;
  while (reader.Next(&message)) {
    if (info->message_count == 0) {
      info->start = info->end = message.log_time;
    } else {
      info->start = std::min(info->start, message.log_time);
      info->end = std::max(info->end, message.log_time);
    }
    ++info->message_count;
    ++counts[message.channel_id];
  }
  info->indexed = false;
  info->complete = reader.complete();
  if (reader.header()) {
    info->profile = reader.header()->profile;
    info->library = reader.header()->library;
  }
  std::set<std::string> compressions;
  for (const ChunkInfo& chunk : reader.chunks()) {
    if (chunk.readable) {
      ++info->chunk_count;
      compressions.insert(CompressionLabel(chunk.compression));
    }
  }
  info->compressions.assign(compressions.begin(), compressions.end());
  for (const auto& [id, channel] : reader.channels()) {
    ChannelInfo out = Describe(channel, reader.schemas());
    out.message_count = counts[id];
    info->channels.push_back(std::move(out));
  }
  info->problems.insert(info->problems.end(), reader.problems().begin(), reader.problems().end());
}

std::string Time(Timestamp t) {
  std::time_t seconds = static_cast<std::time_t>(t / 1000000000u);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char date[32];
  std::strftime(date, sizeof(date), "%Y-%m-%d %H:%M:%S", &utc);
  char text[96];
  std::snprintf(text, sizeof(text), "%s.%09llu UTC (%llu.%09llu)", date,
                static_cast<unsigned long long>(t % 1000000000u),
                static_cast<unsigned long long>(t / 1000000000u),
                static_cast<unsigned long long>(t % 1000000000u));
  return text;
}

std::string Size(uint64_t bytes) {
  const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes);
  int unit = 0;
  while (value >= 1024 && unit < 4) {
    value /= 1024;
    ++unit;
  }
  char text[48];
  if (unit == 0)
    std::snprintf(text, sizeof(text), "%llu B", static_cast<unsigned long long>(bytes));
  else
    std::snprintf(text, sizeof(text), "%.2f %s (%llu bytes)", value, units[unit],
                  static_cast<unsigned long long>(bytes));
  return text;
}

}  // namespace

RecordingInfo ReadInfo(const Source& source, const ReaderOptions& options) {
  RecordingInfo info;
  info.file_size = source.size();
  IndexedReader indexed(source, options);
  if (!FromSummary(indexed, &info)) {
    // Why the whole file is read: the summary's first problem, unless the streaming read
    // finds the same (a file that is no recording at all). A summary without statistics is
    // no fault (they are optional): the file is just read whole.
    FromStream(source, options, &info);
    if (!indexed.problems().empty()) {
      const Problem& why = indexed.problems().front();
      bool known = false;
      for (const Problem& p : info.problems)
        known |= p.offset == why.offset && p.message == why.message;
      if (!known)
        info.problems.insert(info.problems.begin(), why);
    }
  }
  FillRates(&info);
  return info;
}

std::string FormatInfo(const RecordingInfo& info) {
  std::string out;
  char line[256];
  auto add = [&](const char* label, const std::string& value) {
    std::snprintf(line, sizeof(line), "%-13s%s\n", label, value.c_str());
    out += line;
  };
  add("size:", Size(info.file_size));
  std::snprintf(line, sizeof(line), "%.3f s", info.duration_s);
  add("duration:", line);
  add("start:", info.message_count > 0 ? Time(info.start) : "-");
  add("end:", info.message_count > 0 ? Time(info.end) : "-");
  add("messages:", std::to_string(info.message_count));
  add("chunks:", std::to_string(info.chunk_count));
  std::string compressions;
  for (const std::string& c : info.compressions)
    compressions += (compressions.empty() ? "" : ", ") + c;
  add("compression:", compressions.empty() ? "-" : compressions);
  add("library:", info.library);
  add("indexed:",
      info.indexed ? "yes" : (info.complete ? "no (read whole)" : "no: incomplete, recover it"));
  size_t topic_width = 5;
  size_t schema_width = 6;
  for (const ChannelInfo& c : info.channels) {
    topic_width = std::max(topic_width, c.topic.size());
    schema_width = std::max(schema_width, c.schema_name.size());
  }
  out += "channels:\n";
  for (const ChannelInfo& c : info.channels) {
    std::string row = "  " + c.topic + std::string(topic_width - c.topic.size() + 2, ' ') +
                      c.schema_name + std::string(schema_width - c.schema_name.size() + 2, ' ');
    std::snprintf(line, sizeof(line), "%10llu msgs  %10.2f Hz\n",
                  static_cast<unsigned long long>(c.message_count), c.rate_hz);
    out += row + line;
  }
  for (const Problem& p : info.problems)
    out += "problem: " + p.ToString() + "\n";
  return out;
}

}  // namespace tarvik::korvan::mcap
