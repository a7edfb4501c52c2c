// Compiled by ctest, not linked: with clang's -Wthread-safety each KORVAN_CASE_* must be
// rejected and the file without one must compile, which shows that the lock wrappers carry
// live annotations (a misspelt macro would silently switch the analysis off).
#include "infra/mutex.h"

namespace {

using tarvik::korvan::inf::CondVar;
using tarvik::korvan::inf::Mutex;
using tarvik::korvan::inf::MutexLock;
using tarvik::korvan::inf::ReaderLock;
using tarvik::korvan::inf::SharedMutex;
using tarvik::korvan::inf::WriterLock;

class Account {
 public:
  void Deposit(int amount) KORVAN_EXCLUDES(mutex_) {
    MutexLock lock(&mutex_);
    AddLocked(amount);
    changed_.SignalAll();
  }
  void WaitForFunds() KORVAN_EXCLUDES(mutex_) {
    MutexLock lock(&mutex_);
    while (balance_ == 0)
      changed_.Wait(&mutex_);
  }
  int Audit() KORVAN_EXCLUDES(log_mutex_) {
    ReaderLock lock(&log_mutex_);
    return entries_;
  }
  void Log() KORVAN_EXCLUDES(log_mutex_) {
    WriterLock lock(&log_mutex_);
    ++entries_;
  }
  void Withdraw(int amount) KORVAN_EXCLUDES(mutex_) {
    MutexLock lock(&mutex_);
    balance_ -= amount;
    lock.Release();
#if defined(KORVAN_CASE_USE_AFTER_RELEASE)
    balance_ = 0;
#endif
  }
#if defined(KORVAN_CASE_UNLOCKED_WRITE)
  void Reset() {
    balance_ = 0;
  }
#endif
#if defined(KORVAN_CASE_WRITE_UNDER_READER_LOCK)
  void Clear() {
    ReaderLock lock(&log_mutex_);
    entries_ = 0;
  }
#endif
#if defined(KORVAN_CASE_WAIT_WITHOUT_LOCK)
  void Nap() {
    changed_.Wait(&mutex_);
  }
#endif
#if defined(KORVAN_CASE_MISSING_REQUIREMENT)
  void Double() {
    AddLocked(balance_);
  }
#endif

 private:
  void AddLocked(int amount) KORVAN_REQUIRES(mutex_) {
    balance_ += amount;
  }

  Mutex mutex_;
  CondVar changed_;
  int balance_ KORVAN_GUARDED_BY(mutex_) = 0;
  SharedMutex log_mutex_;
  int entries_ KORVAN_GUARDED_BY(log_mutex_) = 0;
};

}  // namespace

void UseAccount() {
  Account account;
  account.Deposit(1);
  account.WaitForFunds();
  account.Withdraw(1);
  account.Log();
  (void)account.Audit();
}
