// Clang thread-safety annotations (-Wthread-safety); empty for other compilers.
//
// A class that is a lock is a KORVAN_CAPABILITY; a scoped holder of one (MutexLock) is a
// KORVAN_SCOPED_CAPABILITY. Data names the lock that guards it with KORVAN_GUARDED_BY;
// functions say what they need held (KORVAN_REQUIRES), must not hold (KORVAN_EXCLUDES), take
// (KORVAN_ACQUIRE) or give back (KORVAN_RELEASE). See infra/mutex.h for the locks.
#pragma once

#if defined(__clang__)
#define KORVAN_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KORVAN_THREAD_ANNOTATION(x)
#endif

#define KORVAN_CAPABILITY(name) KORVAN_THREAD_ANNOTATION(capability(name))
#define KORVAN_SCOPED_CAPABILITY KORVAN_THREAD_ANNOTATION(scoped_lockable)

#define KORVAN_GUARDED_BY(x) KORVAN_THREAD_ANNOTATION(guarded_by(x))
#define KORVAN_PT_GUARDED_BY(x) KORVAN_THREAD_ANNOTATION(pt_guarded_by(x))
#define KORVAN_ACQUIRED_BEFORE(...) KORVAN_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define KORVAN_ACQUIRED_AFTER(...) KORVAN_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))

#define KORVAN_REQUIRES(...) KORVAN_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define KORVAN_REQUIRES_SHARED(...) \
  KORVAN_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define KORVAN_EXCLUDES(...) KORVAN_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

#define KORVAN_ACQUIRE(...) KORVAN_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KORVAN_ACQUIRE_SHARED(...) KORVAN_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define KORVAN_RELEASE(...) KORVAN_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define KORVAN_RELEASE_SHARED(...) KORVAN_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
// Releases a lock held either way; for the destructors of scoped holders.
#define KORVAN_RELEASE_GENERIC(...) \
  KORVAN_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define KORVAN_TRY_ACQUIRE(...) KORVAN_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define KORVAN_TRY_ACQUIRE_SHARED(...) \
  KORVAN_THREAD_ANNOTATION(try_acquire_shared_capability(__VA_ARGS__))
#define KORVAN_ASSERT_CAPABILITY(x) KORVAN_THREAD_ANNOTATION(assert_capability(x))
#define KORVAN_ASSERT_SHARED_CAPABILITY(x) KORVAN_THREAD_ANNOTATION(assert_shared_capability(x))
#define KORVAN_RETURN_CAPABILITY(x) KORVAN_THREAD_ANNOTATION(lock_returned(x))

// For the rare function whose locking the analysis cannot follow; say why next to it.
#define KORVAN_NO_THREAD_SAFETY_ANALYSIS KORVAN_THREAD_ANNOTATION(no_thread_safety_analysis)
