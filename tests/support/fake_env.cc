#include "support/fake_env.h"

namespace korvan_test {

using tarvik::korvan::inf::Env;

// The monotonic clock starts well away from 0, which some readers take as "not yet".
FakeClockEnv::FakeClockEnv()
    : EnvWrapper(Env::Current()),
      now_(1000000000ULL),
      real_(Env::Current()->RealTimeNanos()),
      previous_(Env::Replace(this)) {}

FakeClockEnv::~FakeClockEnv() {
  Env::Replace(previous_);
}

void FakeClockEnv::Advance(std::chrono::nanoseconds by) {
  now_ += static_cast<uint64_t>(by.count());
  real_ += static_cast<uint64_t>(by.count());
}

void FakeClockEnv::SleepForNanos(uint64_t nanos) {
  slept_ += nanos;
  Advance(std::chrono::nanoseconds(nanos));
}

}  // namespace korvan_test
