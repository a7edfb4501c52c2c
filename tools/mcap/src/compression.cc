#include "compression.h"

#include <lz4frame.h>
#include <zstd.h>

#include <algorithm>

namespace tarvik::korvan::mcap {

namespace {

// First output allocation of a decompression, and how much it may exceed the input's size
// times this ratio before it has to grow (growth doubles, up to the declared size).
constexpr size_t kInitialOutput = 64 * 1024;
constexpr size_t kInitialRatio = 8;

size_t InitialCapacity(size_t in_size, uint64_t size) {
  uint64_t guess =
      std::max<uint64_t>(kInitialOutput, static_cast<uint64_t>(in_size) * kInitialRatio);
  return static_cast<size_t>(std::min<uint64_t>(guess, size));
}

// Grows `out` for more output; false when it already holds `size` bytes.
bool Grow(std::string* out, uint64_t size) {
  if (out->size() >= size)
    return false;
  uint64_t next = std::min<uint64_t>(size, std::max<uint64_t>(out->size() * 2, kInitialOutput));
  out->resize(static_cast<size_t>(next));
  return true;
}

std::string TooLarge(uint64_t size) {
  return "decompresses to more than the " + std::to_string(size) + " bytes it declares";
}

std::string TooSmall(uint64_t produced, uint64_t size) {
  return "decompresses to " + std::to_string(produced) + " bytes, not the " + std::to_string(size) +
         " it declares";
}

}  // namespace

Compressor::Compressor(Compression compression, int level)
    : compression_(compression), level_(level) {}

Compressor::~Compressor() {
  ZSTD_freeCCtx(zstd_);
  LZ4F_freeCompressionContext(lz4_);
}

Status Compressor::Compress(std::string_view in, std::string* out) {
  switch (compression_) {
    case Compression::kNone:
      out->assign(in);
      return Status();
    case Compression::kZstd: {
      if (zstd_ == nullptr) {
        zstd_ = ZSTD_createCCtx();
        if (zstd_ == nullptr)
          return Status::Error("zstd: cannot create a compression context");
        ZSTD_CCtx_setParameter(zstd_, ZSTD_c_compressionLevel,
                               level_ != 0 ? level_ : ZSTD_CLEVEL_DEFAULT);
      }
      out->resize(ZSTD_compressBound(in.size()));
      size_t n = ZSTD_compress2(zstd_, out->data(), out->size(), in.data(), in.size());
      if (ZSTD_isError(n))
        return Status::Error(std::string("zstd: ") + ZSTD_getErrorName(n));
      out->resize(n);
      return Status();
    }
    case Compression::kLz4: {
      if (lz4_ == nullptr) {
        if (LZ4F_isError(LZ4F_createCompressionContext(&lz4_, LZ4F_VERSION)))
          return Status::Error("lz4: cannot create a compression context");
      }
      LZ4F_preferences_t prefs{};
      prefs.frameInfo.contentSize = in.size();
      // Linked 64 KiB blocks (the default) compress as well as larger ones and keep the
      // context's buffers small; autoFlush spares the copy into them.
      prefs.autoFlush = 1;
      prefs.compressionLevel = level_;
      out->resize(LZ4F_compressFrameBound(in.size(), &prefs));
      char* dst = out->data();
      size_t cap = out->size();
      size_t head = LZ4F_compressBegin(lz4_, dst, cap, &prefs);
      if (LZ4F_isError(head))
        return Status::Error(std::string("lz4: ") + LZ4F_getErrorName(head));
      size_t body =
          LZ4F_compressUpdate(lz4_, dst + head, cap - head, in.data(), in.size(), nullptr);
      if (LZ4F_isError(body))
        return Status::Error(std::string("lz4: ") + LZ4F_getErrorName(body));
      size_t tail = LZ4F_compressEnd(lz4_, dst + head + body, cap - head - body, nullptr);
      if (LZ4F_isError(tail))
        return Status::Error(std::string("lz4: ") + LZ4F_getErrorName(tail));
      out->resize(head + body + tail);
      return Status();
    }
  }
  return Status::Error("unknown compression");
}

Decompressor::~Decompressor() {
  ZSTD_freeDCtx(zstd_);
  LZ4F_freeDecompressionContext(lz4_);
}

bool Decompressor::Decompress(std::string_view compression, std::string_view in, uint64_t size,
                              std::string* out, std::string* error) {
  if (compression.empty()) {
    if (in.size() != size) {
      *error = "holds " + std::to_string(in.size()) + " bytes of records, not the " +
               std::to_string(size) + " it declares";
      return false;
    }
    out->assign(in);
    return true;
  }
  if (compression == "zstd")
    return Zstd(in, size, out, error);
  if (compression == "lz4")
    return Lz4(in, size, out, error);
  *error = "unknown compression \"" + std::string(compression.substr(0, 32)) + "\"";
  return false;
}

// Both decoders run in steps: each step gets the free part of `out`, grown as needed. Once
// `out` holds the declared size, a one-byte probe checks that nothing more comes out.
bool Decompressor::Zstd(std::string_view in, uint64_t size, std::string* out, std::string* error) {
  if (zstd_ == nullptr && (zstd_ = ZSTD_createDCtx()) == nullptr) {
    *error = "zstd: cannot create a decompression context";
    return false;
  }
  ZSTD_DCtx_reset(zstd_, ZSTD_reset_session_only);
  out->resize(InitialCapacity(in.size(), size));
  ZSTD_inBuffer input{in.data(), in.size(), 0};
  size_t produced = 0;
  size_t pending = 1;  // 0 once a frame is complete
  char probe;
  while (pending != 0 || input.pos < input.size) {
    bool probing = produced == out->size() && !Grow(out, size);
    ZSTD_outBuffer output =
        probing ? ZSTD_outBuffer{&probe, 1, 0} : ZSTD_outBuffer{out->data(), out->size(), produced};
    size_t in_before = input.pos;
    size_t out_before = output.pos;
    pending = ZSTD_decompressStream(zstd_, &output, &input);
    if (ZSTD_isError(pending)) {
      *error = std::string("zstd: ") + ZSTD_getErrorName(pending);
      return false;
    }
    if (probing && output.pos > 0) {
      *error = TooLarge(size);
      return false;
    }
    if (!probing)
      produced = output.pos;
    if (input.pos == in_before && output.pos == out_before)
      break;  // it needs input that is not there
  }
  if (pending != 0) {
    *error = "zstd: the compressed data ends inside a frame";
    return false;
  }
  if (produced != size) {
    *error = TooSmall(produced, size);
    return false;
  }
  out->resize(produced);
  return true;
}

bool Decompressor::Lz4(std::string_view in, uint64_t size, std::string* out, std::string* error) {
  if (lz4_ == nullptr && LZ4F_isError(LZ4F_createDecompressionContext(&lz4_, LZ4F_VERSION))) {
    *error = "lz4: cannot create a decompression context";
    return false;
  }
  LZ4F_resetDecompressionContext(lz4_);
  out->resize(InitialCapacity(in.size(), size));
  const char* src = in.data();
  size_t src_left = in.size();
  size_t produced = 0;
  size_t pending = 1;  // 0 once a frame is complete
  char probe;
  while (pending != 0 || src_left > 0) {
    bool probing = produced == out->size() && !Grow(out, size);
    char* dst = probing ? &probe : out->data() + produced;
    size_t dst_size = probing ? 1 : out->size() - produced;
    size_t consumed = src_left;
    pending = LZ4F_decompress(lz4_, dst, &dst_size, src, &consumed, nullptr);
    if (LZ4F_isError(pending)) {
      *error = std::string("lz4: ") + LZ4F_getErrorName(pending);
      return false;
    }
    if (probing && dst_size > 0) {
      *error = TooLarge(size);
      return false;
    }
    if (!probing)
      produced += dst_size;
    src += consumed;
    src_left -= consumed;
    if (consumed == 0 && dst_size == 0)
      break;  // it needs input that is not there
  }
  if (pending != 0) {
    *error = "lz4: the compressed data ends inside a frame";
    return false;
  }
  if (produced != size) {
    *error = TooSmall(produced, size);
    return false;
  }
  out->resize(produced);
  return true;
}

}  // namespace tarvik::korvan::mcap
