#include "trevam/trevam.h"

#include <errno.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace trevam {
namespace {

constexpr int kDefaultThreshold = 3;
constexpr int kMaxLevel = 5;

// Immutable once published; a reload publishes a new one.
struct Levels {
  int default_threshold = kDefaultThreshold;
  int highest_threshold = kDefaultThreshold;  // lets closed gates skip the module search
  std::vector<std::pair<std::string, int>> modules;
};

bool ParseThreshold(const std::string& text, int* out) {
  if (text.empty())
    return false;
  char* end = nullptr;
  long value = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0' || value < 0 || value > kMaxLevel)
    return false;
  *out = static_cast<int>(value);
  return true;
}

std::string Trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t");
  if (b == std::string::npos)
    return "";
  size_t e = s.find_last_not_of(" \t");
  return s.substr(b, e - b + 1);
}

Levels* ParseLevels(const char* setting) {
  auto* levels = new Levels();
  if (setting == nullptr)
    return levels;
  std::string all(setting);
  size_t start = 0;
  while (start <= all.size()) {
    size_t comma = all.find(',', start);
    std::string entry =
        Trim(all.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
    start = comma == std::string::npos ? all.size() + 1 : comma + 1;
    size_t eq = entry.find('=');
    int threshold = 0;
    if (eq == std::string::npos) {
      if (ParseThreshold(entry, &threshold))
        levels->default_threshold = threshold;
      continue;
    }
    std::string module = Trim(entry.substr(0, eq));
    if (!ParseThreshold(Trim(entry.substr(eq + 1)), &threshold) || module.empty())
      continue;
    if (module == "*") {
      levels->default_threshold = threshold;
    } else {
      levels->modules.emplace_back(module, threshold);
    }
  }
  levels->highest_threshold = levels->default_threshold;
  for (const auto& m : levels->modules) {
    if (m.second > levels->highest_threshold)
      levels->highest_threshold = m.second;
  }
  return levels;
}

// The gate's one read of the environment. trevam sits below the infrastructure library (which
// logs through it), so it cannot use inf::Env; tests change the variable and ReloadLevels().
const char* LevelSetting() {
  return std::getenv("TREVAM_LOG_LEVEL");
}

std::atomic<const Levels*> g_levels{nullptr};
std::mutex g_reload_mutex;

// Readers hold plain pointers without a lock, so every configuration ever published stays
// alive (reloads are rare: tools and tests).
const Levels* Publish(Levels* levels) {
  static auto* published = new std::vector<std::unique_ptr<Levels>>();
  published->emplace_back(levels);
  g_levels.store(levels, std::memory_order_release);
  return levels;
}

const Levels* CurrentLevels() {
  const Levels* levels = g_levels.load(std::memory_order_acquire);
  if (levels != nullptr)
    return levels;
  std::lock_guard<std::mutex> lock(g_reload_mutex);
  levels = g_levels.load(std::memory_order_acquire);
  if (levels == nullptr)
    levels = Publish(ParseLevels(LevelSetting()));
  return levels;
}

}  // namespace

bool doTriggerCompare(const std::string& module, int level, bool use_module_setting) {
  const Levels* levels = CurrentLevels();
  if (level > levels->highest_threshold)
    return false;
  if (use_module_setting) {
    for (const auto& m : levels->modules) {
      if (m.first == module)
        return level <= m.second;
    }
  }
  return level <= levels->default_threshold;
}

const std::string& GetBinaryName() {
  static const std::string name = program_invocation_short_name;
  return name;
}

void ReloadLevels() {
  std::lock_guard<std::mutex> lock(g_reload_mutex);
  Publish(ParseLevels(LevelSetting()));
}

}  // namespace trevam
