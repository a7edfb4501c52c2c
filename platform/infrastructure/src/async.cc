#include "infra/async.h"

#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "infra/env.h"

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
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<std::function<void()>> tasks;
  bool stopping = false;
};

void Work(const std::shared_ptr<Queue>& queue) {
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock<std::mutex> lock(queue->mutex);
      queue->wake.wait(lock, [&] { return queue->stopping || !queue->tasks.empty(); });
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
    std::lock_guard<std::mutex> lock(mutex_);
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
      std::lock_guard<std::mutex> lock(mutex_);
      queue = std::move(queue_);
      workers.swap(workers_);
    }
    if (!queue)
      return;
    {
      std::lock_guard<std::mutex> lock(queue->mutex);
      queue->stopping = true;
      queue->tasks.clear();
    }
    queue->wake.notify_all();
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
      std::lock_guard<std::mutex> lock(mutex_);
      queue = queue_;
    }
    if (!queue || !task)
      return false;
    {
      std::lock_guard<std::mutex> lock(queue->mutex);
      if (queue->stopping)
        return false;
      queue->tasks.push_back(std::move(task));
    }
    queue->wake.notify_one();
    return true;
  }

  size_t ThreadCount() const override {
    std::lock_guard<std::mutex> lock(mutex_);
    return workers_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<Queue> queue_;  // null while stopped
  std::vector<std::thread> workers_;
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
