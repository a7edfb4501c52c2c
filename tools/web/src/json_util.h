// rapidjson helpers shared by the two protocols.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace tarvik::korvan::web::json {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

// Whether `s` is well-formed UTF-8 (no overlongs, no surrogates, nothing past U+10FFFF).
inline bool ValidUtf8(std::string_view s) {
  size_t i = 0;
  while (i < s.size()) {
    const auto c = static_cast<unsigned char>(s[i]);
    size_t extra;
    uint32_t cp;
    if (c < 0x80) {
      ++i;
      continue;
    } else if (c >= 0xC2 && c <= 0xDF) {
      extra = 1;
      cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      extra = 2;
      cp = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      extra = 3;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (s.size() - i <= extra)
      return false;
    for (size_t k = 1; k <= extra; ++k) {
      const auto d = static_cast<unsigned char>(s[i + k]);
      if ((d & 0xC0) != 0x80)
        return false;
      cp = (cp << 6) | (d & 0x3F);
    }
    if ((extra == 2 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) ||
        (extra == 3 && (cp < 0x10000 || cp > 0x10FFFF)))
      return false;
    i += extra + 1;
  }
  return true;
}

// Names come from the bus and may hold any bytes; a browser's JSON parser refuses invalid
// UTF-8, so such bytes become '?' rather than breaking the whole message.
inline void String(Writer& w, std::string_view s) {
  if (ValidUtf8(s)) {
    w.String(s.data(), static_cast<rapidjson::SizeType>(s.size()));
    return;
  }
  std::string clean(s);
  for (char& c : clean)
    if (static_cast<unsigned char>(c) >= 0x80)
      c = '?';
  w.String(clean.data(), static_cast<rapidjson::SizeType>(clean.size()));
}

// Nesting depth of a parsed value, without recursion.
inline size_t Depth(const rapidjson::Value& root) {
  std::vector<std::pair<const rapidjson::Value*, size_t>> stack{{&root, 1}};
  size_t deepest = 0;
  while (!stack.empty()) {
    auto [v, depth] = stack.back();
    stack.pop_back();
    deepest = depth > deepest ? depth : deepest;
    if (v->IsArray()) {
      for (const auto& e : v->GetArray())
        stack.push_back({&e, depth + 1});
    } else if (v->IsObject()) {
      for (const auto& m : v->GetObject())
        stack.push_back({&m.value, depth + 1});
    }
  }
  return deepest;
}

inline void Key(Writer& w, const char* key) {
  w.Key(key);
}

// Parses without recursion, so that deep nesting from a client cannot exhaust the stack, and
// refuses invalid UTF-8, which a browser would refuse in turn.
inline bool Parse(std::string_view text, rapidjson::Document& doc, std::string* error) {
  doc.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag>(text.data(),
                                                                                    text.size());
  if (doc.HasParseError()) {
    *error = std::string("invalid JSON: ") + rapidjson::GetParseError_En(doc.GetParseError()) +
             " at offset " + std::to_string(doc.GetErrorOffset());
    return false;
  }
  return true;
}

inline std::optional<uint32_t> Uint32(const rapidjson::Value& object, const char* key) {
  auto it = object.FindMember(key);
  if (it == object.MemberEnd() || !it->value.IsUint())
    return std::nullopt;
  return it->value.GetUint();
}

inline const rapidjson::Value* Member(const rapidjson::Value& object, const char* key) {
  auto it = object.FindMember(key);
  return it == object.MemberEnd() ? nullptr : &it->value;
}

inline std::optional<std::string> StringMember(const rapidjson::Value& object, const char* key) {
  const rapidjson::Value* v = Member(object, key);
  if (v == nullptr || !v->IsString())
    return std::nullopt;
  return std::string(v->GetString(), v->GetStringLength());
}

// Recursive: only for values whose Depth was checked.
inline std::string Serialize(const rapidjson::Value& value) {
  rapidjson::StringBuffer buffer;
  Writer w(buffer);
  value.Accept(w);
  return std::string(buffer.GetString(), buffer.GetSize());
}

}  // namespace tarvik::korvan::web::json
