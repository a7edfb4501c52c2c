// Rewrites a recording that was cut short (a recorder killed, a disk full): a streaming read
// takes every message of every complete chunk, and a new file gets them with a full summary,
// readable by indexed readers again. Damaged chunks and a torn last record are skipped and
// reported. A whole recording comes out re-chunked with the same content.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "korvan/mcap/io.h"
#include "korvan/mcap/reader.h"
#include "korvan/mcap/types.h"
#include "korvan/mcap/writer.h"

namespace tarvik::korvan::mcap {

struct RecoverResult {
  // Failure of the output (or of opening the input); the counts tell what was recovered.
  Status status;
  uint64_t message_count = 0;     // messages written to the new file
  uint64_t chunks_read = 0;       // input chunks whose messages were taken
  uint64_t chunks_skipped = 0;    // damaged input chunks
  uint64_t readable_bytes = 0;    // how far the input could be read
  bool input_complete = false;    // the input already ended with a footer
  std::vector<Problem> problems;  // what the input read skipped, with its offsets
};

// Reads `input` from the start and writes what it holds through a new writer into `output`
// (kept by the caller), which is closed at the end.
RecoverResult Recover(const Source& input, Sink* output, const WriterOptions& options = {},
                      const ReaderOptions& reader_options = {});

// The same from one file into another; refuses to write over its input.
RecoverResult Recover(const std::string& input_path, const std::string& output_path,
                      const WriterOptions& options = {});

}  // namespace tarvik::korvan::mcap
