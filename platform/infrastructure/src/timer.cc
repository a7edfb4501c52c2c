#include "infra/timer.h"

#include <chrono>
#include <condition_variable>
#include <utility>

namespace tarvik {
namespace korvan {

using Clock = std::chrono::steady_clock;

struct Timer::Run {
  std::mutex mutex;
  std::condition_variable wake;
  bool stop = false;

  // False when the run was stopped while waiting.
  bool WaitUntil(Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex);
    return !wake.wait_until(lock, deadline, [this] { return stop; });
  }
  bool Stopped() {
    std::lock_guard<std::mutex> lock(mutex);
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
  std::lock_guard<std::mutex> lock(mutex_);
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
    std::lock_guard<std::mutex> lock(mutex_);
    run = std::move(run_);
    thread = std::move(thread_);
  }
  if (!run)
    return;
  {
    std::lock_guard<std::mutex> lock(run->mutex);
    run->stop = true;
  }
  run->wake.notify_all();
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
  std::lock_guard<std::mutex> lock(mutex_);
  return run_ != nullptr;
}

}  // namespace korvan
}  // namespace tarvik
