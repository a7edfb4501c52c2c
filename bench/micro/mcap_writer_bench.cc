// Writer throughput of the recording library: messages of 64 B and 1 MiB through each
// compression into a sink that only counts bytes, so the figures are the writer's own work
// (framing, CRCs, compression, indexes). bytes_per_second is message payload; the CPU time
// per iteration is the CPU per message.
#include <benchmark/benchmark.h>

#include <random>
#include <string>

#include "korvan/mcap/writer.h"

namespace {

namespace mcap = tarvik::korvan::mcap;

class CountingSink : public mcap::Sink {
 public:
  mcap::Status Write(const void*, size_t size) override {
    bytes += size;
    return mcap::Status();
  }
  mcap::Status Flush() override { return mcap::Status(); }
  mcap::Status Close() override { return mcap::Status(); }
  uint64_t bytes = 0;
};

// Bytes from a 16-symbol alphabet: about half compressible, like many sensor payloads.
std::string Payload(size_t size) {
  std::mt19937 random(1);
  std::string data(size, '\0');
  for (char& c : data)
    c = static_cast<char>('A' + random() % 16);
  return data;
}

void WriterThroughput(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  const auto compression = static_cast<mcap::Compression>(state.range(1));
  const std::string payload = Payload(size);
  CountingSink sink;
  mcap::Writer writer;
  mcap::WriterOptions options;
  options.compression = compression;
  writer.Open(&sink, options);
  writer.AddSchema({1, "bench.Payload", "protobuf", "descriptor"});
  writer.AddChannel({0, 1, "/bench", "protobuf", {}});
  uint32_t sequence = 0;
  for (auto _ : state) {
    const uint64_t t = 1700000000000000000ull + sequence;
    if (!writer.Write({0, sequence++, t, t, payload}).ok())
      state.SkipWithError("write failed");
  }
  writer.Close();
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
  state.counters["compressed_ratio"] =
      static_cast<double>(sink.bytes) / static_cast<double>(state.iterations() * size + 1);
  state.SetLabel(compression == mcap::Compression::kNone
                     ? "none"
                     : std::string(mcap::CompressionName(compression)));
}

BENCHMARK(WriterThroughput)
    ->ArgsProduct({{64, 1 << 20},
                   {static_cast<int>(mcap::Compression::kNone),
                    static_cast<int>(mcap::Compression::kZstd),
                    static_cast<int>(mcap::Compression::kLz4)}})
    ->ArgNames({"bytes", "compression"});

}  // namespace
