// The process-wide POSIX reader/writer lock of the node and application registries, and its
// scoped holds. It stays a pthread rwlock: a reader tries again while the lock reports too
// many readers (EAGAIN); any other failure (EDEADLK, a thread asking again for what it holds)
// throws std::system_error with its error number. The wrapper only lets the compiler check
// what the lock guards.
#pragma once

#include <errno.h>
#include <pthread.h>

#include <system_error>

#include "infra/thread_annotations.h"

namespace tarvik {
namespace quessa {
namespace detail {

class KORVAN_CAPABILITY("registry lock") RegistryLock {
 public:
  RegistryLock() = default;  // constant-initialised: usable from static objects
  RegistryLock(const RegistryLock&) = delete;
  RegistryLock& operator=(const RegistryLock&) = delete;

  pthread_rwlock_t* native() { return &lock_; }

 private:
  pthread_rwlock_t lock_ = PTHREAD_RWLOCK_INITIALIZER;
};

class KORVAN_SCOPED_CAPABILITY RegistryReadLock {
 public:
  RegistryReadLock(RegistryLock& lock, const char* what) KORVAN_ACQUIRE_SHARED(lock) : lock_(lock) {
    int rc;
    do {
      rc = pthread_rwlock_rdlock(lock_.native());
    } while (rc == EAGAIN);
    if (rc != 0)
      throw std::system_error(rc, std::generic_category(), what);
  }
  ~RegistryReadLock() KORVAN_RELEASE_GENERIC() { pthread_rwlock_unlock(lock_.native()); }
  RegistryReadLock(const RegistryReadLock&) = delete;
  RegistryReadLock& operator=(const RegistryReadLock&) = delete;

 private:
  RegistryLock& lock_;
};

class KORVAN_SCOPED_CAPABILITY RegistryWriteLock {
 public:
  RegistryWriteLock(RegistryLock& lock, const char* what) KORVAN_ACQUIRE(lock) : lock_(lock) {
    const int rc = pthread_rwlock_wrlock(lock_.native());
    if (rc != 0)
      throw std::system_error(rc, std::generic_category(), what);
  }
  ~RegistryWriteLock() KORVAN_RELEASE() { pthread_rwlock_unlock(lock_.native()); }
  RegistryWriteLock(const RegistryWriteLock&) = delete;
  RegistryWriteLock& operator=(const RegistryWriteLock&) = delete;

 private:
  RegistryLock& lock_;
};

}  // namespace detail
}  // namespace quessa
}  // namespace tarvik
