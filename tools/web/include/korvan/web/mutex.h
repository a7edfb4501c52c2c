// std::mutex with the capability annotations libstdc++ does not carry, so that clang's
// -Wthread-safety checks the KORVAN_GUARDED_BY members of the web server and its sources.
#pragma once

#include <mutex>

#include "infra/thread_annotations.h"

namespace tarvik::korvan::web {

class KORVAN_THREAD_ANNOTATION(capability("mutex")) Mutex {
 public:
  void lock() KORVAN_THREAD_ANNOTATION(acquire_capability()) { mu_.lock(); }
  void unlock() KORVAN_THREAD_ANNOTATION(release_capability()) { mu_.unlock(); }

 private:
  std::mutex mu_;
};

// Holds a Mutex for its scope.
class KORVAN_THREAD_ANNOTATION(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(Mutex& mu) KORVAN_THREAD_ANNOTATION(acquire_capability(mu)) : mu_(mu) {
    mu_.lock();
  }
  ~MutexLock() KORVAN_THREAD_ANNOTATION(release_capability()) { mu_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mu_;
};

}  // namespace tarvik::korvan::web
