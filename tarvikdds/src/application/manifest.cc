#include "tarvikdds/application/manifest.h"

#include <algorithm>
#include <utility>

#include <rapidjson/document.h>

#include "infra/env.h"
#include "tarvikdds/detail/location.h"
#include "tarvikdds/detail/logging.h"

namespace tarvik {
namespace quessa {
namespace {

bool IsEventSets(const rapidjson::Value& events) {
  if (!events.IsArray())
    return false;
  for (const rapidjson::Value& set : events.GetArray()) {
    if (!set.IsArray())
      return false;
    for (const rapidjson::Value& event : set.GetArray()) {
      if (!event.IsString())
        return false;
    }
  }
  return true;
}

}  // namespace

Manifest* Manifest::GetInstance() {
  static Manifest instance;
  return &instance;
}

void Manifest::Load(const std::string& path) {
  m_order.clear();
  m_apps.clear();

  std::string text;
  korvan::inf::FileError error;
  if (!korvan::inf::Env::Current()->ReadFile(path, kMaxFileSize, &text, &error)) {
    if (error.step == korvan::inf::FileError::kOpen) {
      TARVIKDDS_THROW("Load", "File does not exists: " + path);
    }
    // Over the size limit: refused like a file that cannot be opened (the texts are fixed),
    // with a line that says why.
    if (error.step == korvan::inf::FileError::kTooLarge) {
      if (error.file_size > 0) {
        KORVAN_LOG_ERROR << "manifest '" << path << "': " << error.file_size
                         << " bytes, above the limit of " << kMaxFileSize << " bytes";
      } else {
        KORVAN_LOG_ERROR << "manifest '" << path << "': more than " << kMaxFileSize
                         << " bytes, above the limit";
      }
      TARVIKDDS_THROW("Load", "File does not exists: " + path);
    }
    // A directory or a read error leaves what was read, as a stream would: usually nothing,
    // which the checks below report as a missing field.
  }
  // Lines are joined without their line breaks.
  text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());

  rapidjson::Document doc;
  doc.Parse(text.c_str());
  // A document that does not parse, or whose root is not an object, has no "apps" to offer.
  if (doc.HasParseError() || !doc.IsObject() || !doc.HasMember("apps")) {
    TARVIKDDS_THROW("Load", "Missing required field: apps");
  }
  const rapidjson::Value& apps = doc["apps"];
  if (!apps.IsArray()) {
    TARVIKDDS_THROW("Load", "Invalid field type: apps must be an array");
  }

  uint32_t index = 0;
  for (const rapidjson::Value& app : apps.GetArray()) {
    const std::string where = "apps[" + std::to_string(index) + "]";
    if (!app.IsObject()) {
      TARVIKDDS_THROW("Load", "Invalid field type: " + where + " must be an object");
    }
    const auto name_it = app.FindMember("name");
    if (name_it == app.MemberEnd()) {
      TARVIKDDS_THROW("Load", "Missing required field: name");
    }
    if (!name_it->value.IsString()) {
      TARVIKDDS_THROW("Load", "Invalid field type: name of " + where + " must be a string");
    }
    // Up to the first NUL, so a name that starts with "\u0000" counts as blank.
    std::string name(name_it->value.GetString());
    if (name.empty()) {
      TARVIKDDS_THROW("Load", "App name should not be blank");
    }
    if (m_apps.count(name) != 0) {
      TARVIKDDS_THROW("Load", "Duplicate app: " + name);
    }

    ItgAppConfig config;
    const auto interval_it = app.FindMember("interval");
    if (interval_it != app.MemberEnd()) {
      const rapidjson::Value& interval = interval_it->value;
      if (!interval.IsInt()) {
        // Integers beyond 32 bits still parse as integers; fractions and exponents do not.
        const bool wide = interval.IsInt64() || interval.IsUint64();
        TARVIKDDS_THROW(
            "Load", "Invalid field type: interval of app " + name +
                        (wide ? " must be within the signed 32-bit range" : " must be an integer"));
      }
      config.interval = interval.GetInt();
    }

    const auto events_it = app.FindMember("events");
    if (events_it != app.MemberEnd()) {
      if (!IsEventSets(events_it->value)) {
        TARVIKDDS_THROW("Load", "Invalid field type: events of app " + name +
                                    " must be an array of arrays of strings");
      }
      for (const rapidjson::Value& set : events_it->value.GetArray()) {
        if (set.Empty())
          continue;
        std::vector<std::string> names;
        names.reserve(set.Size());
        for (const rapidjson::Value& event : set.GetArray()) {
          names.emplace_back(event.GetString(), event.GetStringLength());
        }
        config.events.push_back(std::move(names));
      }
    }

    config.name = name;
    ItgAppConfig& stored = m_apps.emplace(std::move(name), std::move(config)).first->second;
    m_order.emplace(index, &stored);
    ++index;
  }
}

Manifest::ItgAppConfig* Manifest::GetItgAppConfig(const std::string& name) {
  const auto it = m_apps.find(name);
  return it == m_apps.end() ? nullptr : &it->second;
}

}  // namespace quessa
}  // namespace tarvik
