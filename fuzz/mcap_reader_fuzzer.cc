// Arbitrary bytes as a recording: the streaming and the indexed reader, the info summary and
// recover must cope with anything, within their allocation limits. What recover writes must
// always read back cleanly, with as many messages as the streaming read found.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "korvan/mcap/info.h"
#include "korvan/mcap/reader.h"
#include "korvan/mcap/recover.h"

namespace mcap = tarvik::korvan::mcap;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  mcap::BufferSource source(std::string_view(reinterpret_cast<const char*>(data), size));
  mcap::ReaderOptions options;
  options.max_record_size = 1 << 20;
  options.max_chunk_size = 4 << 20;
  options.max_summary_size = 1 << 20;

  uint64_t streamed = 0;
  {
    mcap::StreamReader reader(source, options);
    mcap::Message m;
    while (reader.Next(&m))
      ++streamed;
  }
  {
    mcap::IndexedReader reader(source, options);
    mcap::Message m;
    while (reader.Next(&m)) {
    }
    if (reader.ok() && reader.statistics() != nullptr) {
      const mcap::Statistics& stats = *reader.statistics();
      const mcap::Timestamp middle = stats.message_start_time / 2 + stats.message_end_time / 2;
      reader.Seek(middle, mcap::kMaxTimestamp, {0, 1});
      while (reader.Next(&m)) {
      }
    }
  }
  mcap::FormatInfo(mcap::ReadInfo(source, options));

  mcap::WriterOptions writer_options;
  writer_options.compression = size % 2 == 0 ? mcap::Compression::kNone : mcap::Compression::kLz4;
  writer_options.chunk_size = 4096;
  mcap::BufferSink out;
  mcap::RecoverResult result = mcap::Recover(source, &out, writer_options, options);
  if (!result.status.ok() || result.message_count != streamed)
    __builtin_trap();
  mcap::BufferSource recovered(out.data());
  mcap::IndexedReader check(recovered);
  uint64_t count = 0;
  mcap::Message m;
  while (check.Next(&m))
    ++count;
  if (!check.ok() || !check.problems().empty() || count != streamed)
    __builtin_trap();
  return 0;
}
