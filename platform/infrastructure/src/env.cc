#include "infra/env.h"

#include <atomic>
#include <cstdlib>

namespace tarvik {
namespace korvan {
namespace inf {
namespace {

class PosixEnv : public Env {
 public:
  int AtExit(void (*hook)()) override { return std::atexit(hook); }
  const char* GetVariable(const char* name) override { return std::getenv(name); }
};

std::atomic<Env*> g_current{nullptr};

}  // namespace

Env* Env::Default() {
  static PosixEnv* env = new PosixEnv();  // never destroyed: used by exit hooks
  return env;
}

Env* Env::Current() {
  Env* env = g_current.load(std::memory_order_acquire);
  return env != nullptr ? env : Default();
}

Env* Env::Replace(Env* env) {
  Env* previous = g_current.exchange(env, std::memory_order_acq_rel);
  return previous != nullptr ? previous : Default();
}

}  // namespace inf
}  // namespace korvan
}  // namespace tarvik
