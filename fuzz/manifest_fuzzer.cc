// Arbitrary bytes as an application manifest file: Load must either load or throw
// std::runtime_error, and every application it loaded must be found by its name.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "quiet_logs.h"
#include "tarvikdds/application/manifest.h"

namespace {

using tarvik::quessa::Manifest;

// The manifest reads a path: the input goes into an in-memory file, so no disk is touched.
int g_file = -1;
std::string g_path;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  korvan_fuzz::QuietLogs();
  g_file = ::memfd_create("manifest", 0);
  if (g_file < 0) {
    std::perror("memfd_create");
    std::abort();
  }
  g_path = "/proc/self/fd/" + std::to_string(g_file);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (::ftruncate(g_file, 0) != 0 ||
      ::pwrite(g_file, data, size, 0) != static_cast<ssize_t>(size)) {
    std::abort();
  }
  Manifest* manifest = Manifest::GetInstance();
  try {
    manifest->Load(g_path);
  } catch (const std::runtime_error&) {
  }
  // Names the seeds use, and one that is never there.
  for (const char* name : {"planner", "fusion", "idle", "first", "", "absent"}) {
    if (Manifest::ItgAppConfig* app = manifest->GetItgAppConfig(name)) {
      if (app->name != name)
        std::abort();
      for (const auto& set : app->events) {
        if (set.empty())
          std::abort();  // empty event sets are dropped
      }
    }
  }
  return 0;
}
