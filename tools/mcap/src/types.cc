#include "korvan/mcap/types.h"

namespace tarvik::korvan::mcap {

std::string_view CompressionName(Compression compression) {
  switch (compression) {
    case Compression::kNone:
      return "";
    case Compression::kZstd:
      return "zstd";
    case Compression::kLz4:
      return "lz4";
  }
  return "";
}

std::optional<Compression> ParseCompression(std::string_view name) {
  if (name.empty() || name == "none")
    return Compression::kNone;
  if (name == "zstd")
    return Compression::kZstd;
  if (name == "lz4")
    return Compression::kLz4;
  return std::nullopt;
}

bool Schema::operator==(const Schema& other) const {
  return id == other.id && name == other.name && encoding == other.encoding && data == other.data;
}

bool Channel::operator==(const Channel& other) const {
  return id == other.id && schema_id == other.schema_id && topic == other.topic &&
         message_encoding == other.message_encoding && metadata == other.metadata;
}

std::string Problem::ToString() const {
  return "byte " + std::to_string(offset) + ": " + message;
}

}  // namespace tarvik::korvan::mcap
