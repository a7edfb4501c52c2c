// A recording split over several files: a new file is started when the current one reaches a
// size or spans a duration of log time. Files are named <base>_0.mcap, <base>_1.mcap, ...;
// each is a complete recording on its own, with every schema and channel added so far.
// One thread uses a SplitWriter at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "korvan/mcap/types.h"
#include "korvan/mcap/writer.h"

namespace tarvik::korvan::mcap {

struct SplitOptions {
  // Start a new file before a message that would take the current one past this many bytes
  // (0: no limit). The open chunk counts at its uncompressed size and the summary comes on
  // top; a file always takes at least one message.
  uint64_t max_bytes = 0;
  // Start a new file before a message whose log time is this far past the file's first
  // message (0: no limit).
  uint64_t max_duration_ns = 0;
};

class SplitWriter {
 public:
  // `base` may end in ".mcap"; it is dropped before the numbering.
  SplitWriter(std::string base, WriterOptions writer_options, SplitOptions split_options);
  ~SplitWriter();
  SplitWriter(const SplitWriter&) = delete;
  SplitWriter& operator=(const SplitWriter&) = delete;

  // The name of file `index` for `base`.
  static std::string FileName(const std::string& base, size_t index);

  // Like Writer's; the first call opens <base>_0.mcap.
  Status AddSchema(const Schema& schema);
  Status AddChannel(const Channel& channel);
  Status Write(const Message& message);
  Status Flush();
  // Closes the current file.
  Status Close();

  uint16_t FreeSchemaId() const;
  uint16_t FreeChannelId() const;
  // Files started so far, in order; the last one is open until Close.
  const std::vector<std::string>& files() const { return files_; }
  // Called with a file's name after it is closed and complete.
  void set_on_file_closed(std::function<void(const std::string&)> callback) {
    on_file_closed_ = std::move(callback);
  }

 private:
  Status OpenNext();
  Status Roll();

  std::string base_;
  WriterOptions writer_options_;
  SplitOptions split_options_;
  Writer writer_;
  std::vector<std::string> files_;
  std::map<uint16_t, Schema> schemas_;
  std::map<uint16_t, Channel> channels_;
  bool file_has_messages_ = false;
  Timestamp file_start_time_ = 0;
  std::function<void(const std::string&)> on_file_closed_;
};

}  // namespace tarvik::korvan::mcap
