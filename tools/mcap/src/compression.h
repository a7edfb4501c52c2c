// Chunk compression and decompression (zstd, lz4 frames). Each object keeps its library
// contexts between chunks; one thread uses it at a time. Internal to the library.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "korvan/mcap/types.h"

struct ZSTD_CCtx_s;
struct ZSTD_DCtx_s;
struct LZ4F_cctx_s;
struct LZ4F_dctx_s;

namespace tarvik::korvan::mcap {

class Compressor {
 public:
  // `level` 0: the library's default.
  Compressor(Compression compression, int level);
  ~Compressor();
  Compressor(const Compressor&) = delete;
  Compressor& operator=(const Compressor&) = delete;

  // Replaces `out` with the compressed form of `in`.
  Status Compress(std::string_view in, std::string* out);

 private:
  Compression compression_;
  int level_;
  ZSTD_CCtx_s* zstd_ = nullptr;
  LZ4F_cctx_s* lz4_ = nullptr;
};

class Decompressor {
 public:
  Decompressor() = default;
  ~Decompressor();
  Decompressor(const Decompressor&) = delete;
  Decompressor& operator=(const Decompressor&) = delete;

  // Replaces `out` with `in` decompressed by `compression` (a chunk's name for it: "", "zstd",
  // "lz4"), which must come to exactly `size` bytes. The output grows with what the data
  // really holds, so a small chunk that claims a large size cannot make it allocate that
  // size. On failure, `error` says why.
  bool Decompress(std::string_view compression, std::string_view in, uint64_t size,
                  std::string* out, std::string* error);

 private:
  bool Zstd(std::string_view in, uint64_t size, std::string* out, std::string* error);
  bool Lz4(std::string_view in, uint64_t size, std::string* out, std::string* error);

  ZSTD_DCtx_s* zstd_ = nullptr;
  LZ4F_dctx_s* lz4_ = nullptr;
};

}  // namespace tarvik::korvan::mcap
