// An Env for tests whose clocks stand still until the test moves them.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "infra/env.h"

namespace korvan_test {

// Installs itself as the process's Env for its lifetime (and restores the previous one), so
// everything that reads a clock through Env sees fake time: Advance() moves both clocks, and
// a sleep moves them by its length instead of blocking. Everything else goes to the real Env.
// Declare it before the objects that read the clock so that it outlives them.
class FakeClockEnv : public tarvik::korvan::inf::EnvWrapper {
 public:
  FakeClockEnv();
  ~FakeClockEnv() override;
  FakeClockEnv(const FakeClockEnv&) = delete;
  FakeClockEnv& operator=(const FakeClockEnv&) = delete;

  void Advance(std::chrono::nanoseconds by);

  uint64_t NowNanos() override { return now_.load(); }
  uint64_t RealTimeNanos() override { return real_.load(); }
  void SleepForNanos(uint64_t nanos) override;

  // Sum of every sleep asked for.
  uint64_t slept_nanos() const { return slept_.load(); }

 private:
  std::atomic<uint64_t> now_;
  std::atomic<uint64_t> real_;
  std::atomic<uint64_t> slept_{0};
  tarvik::korvan::inf::Env* previous_;
};

}  // namespace korvan_test
