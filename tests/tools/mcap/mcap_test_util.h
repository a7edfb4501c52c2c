// Recordings built in memory for the recording library's tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "korvan/mcap/io.h"
#include "korvan/mcap/reader.h"
#include "korvan/mcap/writer.h"

namespace korvan_mcap_test {

namespace mcap = tarvik::korvan::mcap;

// A message with its own bytes, for comparing what was written with what is read.
struct Stored {
  uint16_t channel_id = 0;
  uint32_t sequence = 0;
  mcap::Timestamp log_time = 0;
  mcap::Timestamp publish_time = 0;
  std::string data;

  mcap::Message view() const {
    return mcap::Message{channel_id, sequence, log_time, publish_time, data};
  }
  static Stored From(const mcap::Message& m) {
    return Stored{m.channel_id, m.sequence, m.log_time, m.publish_time, std::string(m.data)};
  }
  bool operator==(const Stored& o) const {
    return channel_id == o.channel_id && sequence == o.sequence && log_time == o.log_time &&
           publish_time == o.publish_time && data == o.data;
  }
};

inline constexpr mcap::Timestamp kStart = 1700000000000000000ull;

// Schemas 1 (protobuf) and 2, channels 0 "/a" (schema 1, with metadata), 1 "/b" (schema 2)
// and 2 "/c" (no schema). The messages go round the channels, 10 ms apart, sizes varying
// from empty to `large` bytes every 17th message.
struct Recording {
  std::string bytes;
  std::vector<Stored> messages;
  std::vector<mcap::Schema> schemas;
  std::vector<mcap::Channel> channels;
};

Recording MakeRecording(const mcap::WriterOptions& options, int count, size_t large = 3000);

// Writes `messages` on the channels and schemas of MakeRecording.
std::string Write(const mcap::WriterOptions& options, const std::vector<Stored>& messages);

std::vector<Stored> ReadStream(const std::string& bytes, std::vector<mcap::Problem>* problems,
                               const mcap::ReaderOptions& options = {});
std::vector<Stored> ReadIndexed(const std::string& bytes, std::vector<mcap::Problem>* problems,
                                const mcap::ReaderOptions& options = {});

// "byte N: text" lines, for failure messages.
std::string Describe(const std::vector<mcap::Problem>& problems);

// True when a problem at `offset` contains `text`.
bool HasProblem(const std::vector<mcap::Problem>& problems, uint64_t offset,
                const std::string& text);

}  // namespace korvan_mcap_test
