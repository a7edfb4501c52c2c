// Scoped holds of a process-wide POSIX reader/writer lock, as the node and application
// registries take them: a reader tries again while the lock reports too many readers; any
// other failure (a deadlock among them) throws std::system_error with its error number.
#pragma once

#include <errno.h>
#include <pthread.h>

#include <system_error>

namespace tarvik {
namespace quessa {
namespace detail {

class RegistryReadLock {
 public:
  RegistryReadLock(pthread_rwlock_t& lock, const char* what) : lock_(lock) {
    int rc;
    do {
      rc = pthread_rwlock_rdlock(&lock_);
    } while (rc == EAGAIN);
    if (rc != 0)
      throw std::system_error(rc, std::generic_category(), what);
  }
  ~RegistryReadLock() { pthread_rwlock_unlock(&lock_); }
  RegistryReadLock(const RegistryReadLock&) = delete;
  RegistryReadLock& operator=(const RegistryReadLock&) = delete;

 private:
  pthread_rwlock_t& lock_;
};

class RegistryWriteLock {
 public:
  RegistryWriteLock(pthread_rwlock_t& lock, const char* what) : lock_(lock) {
    const int rc = pthread_rwlock_wrlock(&lock_);
    if (rc != 0)
      throw std::system_error(rc, std::generic_category(), what);
  }
  ~RegistryWriteLock() { pthread_rwlock_unlock(&lock_); }
  RegistryWriteLock(const RegistryWriteLock&) = delete;
  RegistryWriteLock& operator=(const RegistryWriteLock&) = delete;

 private:
  pthread_rwlock_t& lock_;
};

}  // namespace detail
}  // namespace quessa
}  // namespace tarvik
