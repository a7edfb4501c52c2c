#include "infra/async.h"

#include <cstdlib>
#include <deque>
#include <memory>
#include <thread>
#include <vector>

#include "infra/env.h"
#include "infra/mutex.h"

namespace tarvik {
namespace korvan {
namespace async {
namespace {

constexpr size_t kDefaultThreads = 2;
constexpr size_t kMaxThreads = 64;

size_t ThreadsFromEnvironment() {
  const char* text = inf::Env::Current()->GetVariable("KORVAN_ASYNC_THREADS");
  if (text == nullptr)
    return kDefaultThreads;
  char* end = nullptr;
  unsigned long n = std::strtoul(text, &end, 10);
  if (*end != '\0' || n == 0 || n > kMaxThreads)
    return kDefaultThreads;
  return n;
}

// What the workers share. Held by shared pointer so that a worker whose own task tears the
// pool down still has valid state to return to.
struct Queue {
  inf::Mutex mutex;
  inf::CondVar wake;
  std::deque<std::function<void()>> tasks KORVAN_GUARDED_BY(mutex);
  bool stopping KORVAN_GUARDED_BY(mutex) = false;
};

void Work(const std::shared_ptr<Queue>& queue) {
  for (;;) {
    std::function<void()> task;
    {
      inf::MutexLock lock(&queue->mutex);
      while (!queue->stopping && queue->tasks.empty())
        queue->wake.Wait(&queue->mutex);
      if (queue->stopping)
        return;
      task = std::move(queue->tasks.front());
      queue->tasks.pop_front();
    }
    task();
  }
}

// One per process and never destroyed, so an Executor* handed out stays valid while another
// thread calls CleanUp(); CleanUp only stops the threads of the current generation.
class ThreadPool : public Executor {
 public:
  void Start(size_t threads) {
    inf::MutexLock lock(&mutex_);
    if (queue_)
      return;
    queue_ = std::make_shared<Queue>();
    for (size_t i = 0; i < threads; ++i) {
      workers_.emplace_back([queue = queue_] { Work(queue); });
    }
  }

  void Stop() {
    std::shared_ptr<Queue> queue;
    std::vector<std::thread> workers;
    {
      inf::MutexLock lock(&mutex_);
      queue = std::move(queue_);
      workers.swap(workers_);
    }
    if (!queue)
      return;
    {
      inf::MutexLock lock(&queue->mutex);
      queue->stopping = true;
      queue->tasks.clear();
    }
    queue->wake.SignalAll();
    for (auto& t : workers) {
      if (t.get_id() == std::this_thread::get_id()) {
        t.detach();  // stopped from one of its own tasks; the worker ends after it
      } else {
        t.join();
      }
    }
  }

  bool Post(std::function<void()> task) override {
    std::shared_ptr<Queue> queue;
    {
      inf::MutexLock lock(&mutex_);
      queue = queue_;
    }
    if (!queue || !task)
      return false;
    {
      inf::MutexLock lock(&queue->mutex);
      if (queue->stopping)
        return false;
      queue->tasks.push_back(std::move(task));
    }
    queue->wake.Signal();
    return true;
  }

  size_t ThreadCount() const override {
    inf::MutexLock lock(&mutex_);
    return workers_.size();
  }

 private:
  mutable inf::Mutex mutex_;
  std::shared_ptr<Queue> queue_ KORVAN_GUARDED_BY(mutex_);  // null while stopped
  std::vector<std::thread> workers_ KORVAN_GUARDED_BY(mutex_);
};

ThreadPool* Pool() {
  static ThreadPool* pool = new ThreadPool();
  return pool;
}

}  // namespace

Executor* Instance() {
  Pool()->Start(ThreadsFromEnvironment());
  return Pool();
}

void CleanUp() {
  Pool()->Stop();
}

}  // namespace async
}  // namespace korvan
}  // namespace tarvik
