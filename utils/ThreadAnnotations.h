#pragma once

// Clang's thread-safety attributes under short names; empty for other compilers.
// A field says GUARDED_BY(mutex), an operation REQUIRES(mutex) or EXCLUDES(mutex).

#if defined(__clang__)
#define KELM_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define KELM_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) KELM_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY KELM_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) KELM_THREAD_ATTRIBUTE(guarded_by(x))
#define PT_GUARDED_BY(x) KELM_THREAD_ATTRIBUTE(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) KELM_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) KELM_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))
#define REQUIRES(...) KELM_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) KELM_THREAD_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) KELM_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) KELM_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) KELM_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) KELM_THREAD_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) KELM_THREAD_ATTRIBUTE(release_generic_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) KELM_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) KELM_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) KELM_THREAD_ATTRIBUTE(assert_capability(x))
#define RETURN_CAPABILITY(x) KELM_THREAD_ATTRIBUTE(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS KELM_THREAD_ATTRIBUTE(no_thread_safety_analysis)
