// The operating-system services the runtime needs, behind an interface so that a test can
// replace one of them (EnvWrapper) to inject a failure. The product uses Env::Default(), which
// calls the C library.
#pragma once

namespace tarvik {
namespace korvan {
namespace inf {

class Env {
 public:
  virtual ~Env() = default;

  // Registers `hook` to run at normal process exit; 0 on success (the contract of atexit).
  virtual int AtExit(void (*hook)()) = 0;
  // The value of environment variable `name`, or null when it is unset.
  virtual const char* GetVariable(const char* name) = 0;

  // The C library's services. Never destroyed.
  static Env* Default();
  // The Env in use: Default() unless Replace() installed another one.
  static Env* Current();
  // Installs `env` (not owned; null restores Default()) and returns the previous one.
  static Env* Replace(Env* env);
};

// Forwards every call to another Env; derive from it and override the call to fake.
class EnvWrapper : public Env {
 public:
  explicit EnvWrapper(Env* target) : target_(target) {}
  int AtExit(void (*hook)()) override { return target_->AtExit(hook); }
  const char* GetVariable(const char* name) override { return target_->GetVariable(name); }
  Env* target() const { return target_; }

 private:
  Env* target_;
};

}  // namespace inf
}  // namespace korvan
}  // namespace tarvik
