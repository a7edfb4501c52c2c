// A periodic timer with its own thread.
//
// Start() launches a thread that calls the callback every `interval_ms` milliseconds until
// Stop(). Start and Stop may be called from any thread, including from inside the callback.
// Stop waits for a running callback to return, except when called from the callback itself
// (it cannot wait for itself; the thread ends as soon as the callback returns). An interval
// of 0 runs the callback back to back, yielding the CPU between calls so other threads make
// progress. The destructor stops the timer.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include "infra/mutex.h"

namespace tarvik {
namespace korvan {

class Timer {
 public:
  Timer();
  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // `repeat`: false calls the callback once after one interval. `fixed_rate`: true schedules
  // the calls on the grid start + k * interval (no drift; after an overrun the next call due
  // runs at once and missed ones are skipped); false waits one interval after each call.
  // A running timer is stopped first. Returns false for an empty callback.
  bool Start(uint32_t interval_ms, std::function<void()> callback, bool repeat = true,
             bool fixed_rate = true);
  void Stop();
  bool IsRunning() const;

 private:
  struct Run;  // the state of one Start..Stop period, shared with its thread

  mutable inf::Mutex mutex_;
  std::shared_ptr<Run> run_ KORVAN_GUARDED_BY(mutex_);
  std::thread thread_ KORVAN_GUARDED_BY(mutex_);
};

}  // namespace korvan
}  // namespace tarvik
