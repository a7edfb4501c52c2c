// Locks the compiler checks. libstdc++'s std::mutex carries no thread-safety annotations, so
// the platform and the library lock through these thin wrappers, and clang's -Wthread-safety
// then checks every access to data marked KORVAN_GUARDED_BY (infra/thread_annotations.h):
//
//   Mutex                    an exclusive lock (std::mutex underneath)
//   MutexLock                holds a Mutex for a scope; Release() gives it back early
//   SharedMutex              a reader/writer lock (std::shared_mutex underneath)
//   ReaderLock, WriterLock   hold a SharedMutex shared or exclusive for a scope
//   CondVar                  waits, under a Mutex, for another thread to change something
//
// Nothing here adds behaviour: the costs and rules are those of the standard types.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#include "infra/thread_annotations.h"

namespace tarvik {
namespace korvan {
namespace inf {

class KORVAN_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;  // constant-initialised, like std::mutex: usable from static objects
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() KORVAN_ACQUIRE() { mu_.lock(); }
  void Unlock() KORVAN_RELEASE() { mu_.unlock(); }
  // True, holding the lock, when it was free.
  bool TryLock() KORVAN_TRY_ACQUIRE(true) { return mu_.try_lock(); }
  // Tells the analysis that the caller holds the lock where it cannot see it; no run-time
  // check.
  void AssertHeld() const KORVAN_ASSERT_CAPABILITY(this) {}

 private:
  friend class CondVar;
  std::mutex mu_;
};

// Tag for MutexLock: the caller holds the lock already and hands it over.
struct AdoptLock {};
inline constexpr AdoptLock kAdoptLock{};

class KORVAN_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex* mu) KORVAN_ACQUIRE(mu) : mu_(mu) { mu_->Lock(); }
  MutexLock(Mutex* mu, AdoptLock) KORVAN_REQUIRES(mu) : mu_(mu) {}
  ~MutexLock() KORVAN_RELEASE() {
    if (mu_ != nullptr)
      mu_->Unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  // Unlocks before the scope ends; the destructor then does nothing.
  void Release() KORVAN_RELEASE() {
    mu_->Unlock();
    mu_ = nullptr;
  }

 private:
  Mutex* mu_;
};

class KORVAN_CAPABILITY("shared mutex") SharedMutex {
 public:
  SharedMutex() = default;
  SharedMutex(const SharedMutex&) = delete;
  SharedMutex& operator=(const SharedMutex&) = delete;

  void Lock() KORVAN_ACQUIRE() { mu_.lock(); }
  void Unlock() KORVAN_RELEASE() { mu_.unlock(); }
  void LockShared() KORVAN_ACQUIRE_SHARED() { mu_.lock_shared(); }
  void UnlockShared() KORVAN_RELEASE_SHARED() { mu_.unlock_shared(); }

 private:
  std::shared_mutex mu_;
};

class KORVAN_SCOPED_CAPABILITY WriterLock {
 public:
  explicit WriterLock(SharedMutex* mu) KORVAN_ACQUIRE(mu) : mu_(mu) { mu_->Lock(); }
  ~WriterLock() KORVAN_RELEASE() { mu_->Unlock(); }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

 private:
  SharedMutex* mu_;
};

class KORVAN_SCOPED_CAPABILITY ReaderLock {
 public:
  explicit ReaderLock(SharedMutex* mu) KORVAN_ACQUIRE_SHARED(mu) : mu_(mu) { mu_->LockShared(); }
  ~ReaderLock() KORVAN_RELEASE_GENERIC() { mu_->UnlockShared(); }
  ReaderLock(const ReaderLock&) = delete;
  ReaderLock& operator=(const ReaderLock&) = delete;

 private:
  SharedMutex* mu_;
};

// Waits for a change to data guarded by a Mutex. As with std::condition_variable a wait may
// end without a signal, so wait in a loop on the condition itself:
//
//   MutexLock lock(&mutex_);
//   while (!ready_)
//     changed_.Wait(&mutex_);
class CondVar {
 public:
  CondVar() = default;
  CondVar(const CondVar&) = delete;
  CondVar& operator=(const CondVar&) = delete;

  // Unlocks `mu` while waiting and holds it again on return.
  void Wait(Mutex* mu) KORVAN_REQUIRES(mu) {
    std::unique_lock<std::mutex> lock(mu->mu_, std::adopt_lock);
    cv_.wait(lock);
    lock.release();
  }
  // As Wait; false when `deadline` (or `timeout`) passed without a signal.
  template <typename Clock, typename Duration>
  bool WaitUntil(Mutex* mu, const std::chrono::time_point<Clock, Duration>& deadline)
      KORVAN_REQUIRES(mu) {
    std::unique_lock<std::mutex> lock(mu->mu_, std::adopt_lock);
    const bool signalled = cv_.wait_until(lock, deadline) == std::cv_status::no_timeout;
    lock.release();
    return signalled;
  }
  template <typename Rep, typename Period>
  bool WaitFor(Mutex* mu, const std::chrono::duration<Rep, Period>& timeout) KORVAN_REQUIRES(mu) {
    std::unique_lock<std::mutex> lock(mu->mu_, std::adopt_lock);
    const bool signalled = cv_.wait_for(lock, timeout) == std::cv_status::no_timeout;
    lock.release();
    return signalled;
  }

  void Signal() { cv_.notify_one(); }
  void SignalAll() { cv_.notify_all(); }

 private:
  std::condition_variable cv_;
};

}  // namespace inf
}  // namespace korvan
}  // namespace tarvik
