// The platform's asynchronous executor: a small process-wide thread pool for fire-and-forget
// work.
//
// Instance() starts the pool's threads on first use (KORVAN_ASYNC_THREADS, default 2) and
// returns the pool; CleanUp() drops queued tasks and joins the threads; a later Instance()
// starts them again. The pool object itself lives as long as the process, so a pointer from
// Instance() stays valid; Post fails (false) while the pool is stopped.
#pragma once

#include <cstddef>
#include <functional>

namespace tarvik {
namespace korvan {
namespace async {

class Executor {
 public:
  virtual ~Executor() = default;
  // Queues `task` to run on one of the pool's threads. False when the pool is stopping.
  virtual bool Post(std::function<void()> task) = 0;
  virtual size_t ThreadCount() const = 0;
};

Executor* Instance();
void CleanUp();

}  // namespace async
}  // namespace korvan
}  // namespace tarvik
