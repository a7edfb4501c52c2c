#include "infra/timer.h"

#include <chrono>
#include <utility>

namespace tarvik {
namespace korvan {

using Clock = std::chrono::steady_clock;

struct Timer::Run {
  inf::Mutex mutex;
  inf::CondVar wake;
  bool stop KORVAN_GUARDED_BY(mutex) = false;

  // False when the run was stopped while waiting.
  bool WaitUntil(Clock::time_point deadline) {
    inf::MutexLock lock(&mutex);
    while (!stop && wake.WaitUntil(&mutex, deadline)) {
    }
    return !stop;
  }
  bool Stopped() {
    inf::MutexLock lock(&mutex);
    return stop;
  }
};

Timer::Timer() = default;

Timer::~Timer() {
  Stop();
}

bool Timer::Start(uint32_t interval_ms, std::function<void()> callback, bool repeat,
                  bool fixed_rate) {
  if (!callback)
    return false;
  Stop();
  auto run = std::make_shared<Run>();
  inf::MutexLock lock(&mutex_);
  run_ = run;
  thread_ = std::thread([run, interval_ms, repeat, fixed_rate, cb = std::move(callback)]() {
    const auto interval = std::chrono::milliseconds(interval_ms);
    auto next = Clock::now() + interval;
    do {
      if (interval_ms == 0) {
        // Back to back, but give the scheduler a chance to run someone else.
        std::this_thread::yield();
        if (run->Stopped())
          return;
      } else if (!run->WaitUntil(next)) {
        return;
      }
      cb();
      if (interval_ms == 0)
        continue;
      if (fixed_rate) {
        next += interval;
        const auto now = Clock::now();
        if (next <= now) {
          // Overran: run the one that is due now and skip the ones missed before it.
          auto missed = (now - next) / interval;
          next += interval * missed;
        }
      } else {
        next = Clock::now() + interval;
      }
    } while (repeat);
  });
  return true;
}

void Timer::Stop() {
  std::shared_ptr<Run> run;
  std::thread thread;
  {
    inf::MutexLock lock(&mutex_);
    run = std::move(run_);
    thread = std::move(thread_);
  }
  if (!run)
    return;
  {
    inf::MutexLock lock(&run->mutex);
    run->stop = true;
  }
  run->wake.SignalAll();
  if (!thread.joinable())
    return;
  if (thread.get_id() == std::this_thread::get_id()) {
    // Stopped from inside its own callback: the thread ends when the callback returns and
    // keeps its Run alive until then.
    thread.detach();
  } else {
    thread.join();
  }
}

bool Timer::IsRunning() const {
  inf::MutexLock lock(&mutex_);
  return run_ != nullptr;
}

}  // namespace korvan
}  // namespace tarvik
