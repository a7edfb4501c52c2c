// What `korvan bag info` shows about a recording: its time span, size, compressions and per
// channel the topic, schema, message count and rate. Taken from the summary when the file has
// one, else by reading the whole file (an incomplete recording).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "korvan/mcap/io.h"
#include "korvan/mcap/reader.h"
#include "korvan/mcap/types.h"

namespace tarvik::korvan::mcap {

struct ChannelInfo {
  uint16_t id = 0;
  std::string topic;
  std::string schema_name;  // "" without a schema
  std::string message_encoding;
  uint64_t message_count = 0;
  // Messages per second over the recording's duration; 0 when it lasts no time.
  double rate_hz = 0;
};

struct RecordingInfo {
  uint64_t file_size = 0;
  Timestamp start = 0;  // log time of the first message, 0 without messages
  Timestamp end = 0;    // of the last
  double duration_s = 0;
  uint64_t message_count = 0;
  uint64_t chunk_count = 0;
  // Chunk compressions met, by name ("none", "zstd", "lz4"), sorted.
  std::vector<std::string> compressions;
  std::vector<ChannelInfo> channels;  // by id
  std::string profile;
  std::string library;
  // True when read from the summary; false when the file had to be read whole (no usable
  // summary: see problems, and Recover).
  bool indexed = false;
  // False when a streaming read did not reach the footer.
  bool complete = false;
  std::vector<Problem> problems;
};

RecordingInfo ReadInfo(const Source& source, const ReaderOptions& options = {});

// A text block for people, one fact per line and one line per channel.
std::string FormatInfo(const RecordingInfo& info);

}  // namespace tarvik::korvan::mcap
