// Clang thread-safety annotations (-Wthread-safety); empty for other compilers.
#pragma once

#if defined(__clang__)
#define KORVAN_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KORVAN_THREAD_ANNOTATION(x)
#endif

#define KORVAN_GUARDED_BY(x) KORVAN_THREAD_ANNOTATION(guarded_by(x))
#define KORVAN_PT_GUARDED_BY(x) KORVAN_THREAD_ANNOTATION(pt_guarded_by(x))
#define KORVAN_REQUIRES(...) KORVAN_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define KORVAN_EXCLUDES(...) KORVAN_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
