// The process-wide application manifest: which integrated applications a process may run, and
// for each its proc interval and the event sets that trigger its proc step. The manifest only
// answers look-ups; whoever owns an Application asks it for the configuration and passes
// `interval` or `events` to the matching Application::Start.
//
// File format (UTF-8 JSON; other keys are ignored, key matching is case-sensitive):
//   { "apps": [ { "name": "planner", "interval": 100 },
//               { "name": "fusion", "events": [["lidar", "camera"], ["imu"]] } ] }
//   "apps"      required, array of objects (may be empty)
//   "name"      required, non-empty string, unique in the file
//   "interval"  optional integer in the signed 32-bit range; -1 when absent
//   "events"    optional array of arrays of strings; an empty inner array is dropped
// Lines are joined without separators before parsing, so a string that spans a line break
// loses the break. A name is taken up to its first NUL character.
//
// Load throws std::runtime_error `application/manifest.cc : Load @line <N> <text>`, where
// `<text>` is one of
//   File does not exists: <path>
//   Missing required field: apps          (also: empty, malformed or non-object document)
//   Invalid field type: apps must be an array
//   Invalid field type: apps[<i>] must be an object
//   Missing required field: name
//   Invalid field type: name of apps[<i>] must be a string
//   App name should not be blank
//   Duplicate app: <name>
//   Invalid field type: interval of app <name> must be an integer
//   Invalid field type: interval of app <name> must be within the signed 32-bit range
//   Invalid field type: events of app <name> must be an array of arrays of strings
// `<i>` is the 0-based position in "apps". Values of the wrong JSON type (null included) are
// rejected, never read as something else. Applications before the failing element stay
// loaded; a failure at the file or at "apps" leaves the manifest empty.
//
// Threads: GetInstance may be called from any thread. Load must not run concurrently with
// another Load or with GetItgAppConfig; the intended use is one Load at start-up followed by
// read-only look-ups.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace tarvik {
namespace quessa {

class Manifest {
 public:
  // One application's entry in the manifest.
  struct ItgAppConfig {
    std::string name;
    // Proc period as written, in the unit Application::Start(int) takes; -1 when not given.
    int32_t interval = -1;
    // Event sets in file order, each a non-empty list of event names in file order.
    std::vector<std::vector<std::string>> events;
  };

  // Files larger than this (1 MiB) are refused unread: Load throws "File does not exists"
  // and logs one error line with the size.
  static constexpr size_t kMaxFileSize = 1048576;

  // The one manifest of the process, empty until the first Load; lives until process exit.
  static Manifest* GetInstance();

  // Replaces the content with the applications listed in the file at `path`. The old content
  // is discarded first, also when the load then fails. Throws std::runtime_error (see above).
  void Load(const std::string& path);

  // The entry named exactly `name`, or null. The entry is owned by the manifest and stays
  // valid until the next Load.
  ItgAppConfig* GetItgAppConfig(const std::string& name);

  Manifest(const Manifest&) = delete;
  Manifest& operator=(const Manifest&) = delete;

 private:
  Manifest() = default;

  // Owns the entries; node-based, so pointers into it survive rehashing.
  std::unordered_map<std::string, ItgAppConfig> m_apps;
  // Position in "apps" -> entry in m_apps: the applications in file order.
  std::map<uint32_t, ItgAppConfig*> m_order;
};

}  // namespace quessa
}  // namespace tarvik
