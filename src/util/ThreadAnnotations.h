#pragma once
// Lock annotations that clang checks with -Wthread-safety; they expand to nothing elsewhere.

#if defined(__clang__)
#define QOR_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define QOR_THREAD_ANNOTATION(x)
#endif

#define QOR_CAPABILITY(x) QOR_THREAD_ANNOTATION(capability(x))
#define QOR_SCOPED_CAPABILITY QOR_THREAD_ANNOTATION(scoped_lockable)
#define QOR_GUARDED_BY(x) QOR_THREAD_ANNOTATION(guarded_by(x))
#define QOR_PT_GUARDED_BY(x) QOR_THREAD_ANNOTATION(pt_guarded_by(x))
#define QOR_ACQUIRED_AFTER(...) QOR_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define QOR_ACQUIRED_BEFORE(...) QOR_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define QOR_REQUIRES(...) QOR_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define QOR_EXCLUDES(...) QOR_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define QOR_ACQUIRE(...) QOR_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define QOR_RELEASE(...) QOR_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define QOR_TRY_ACQUIRE(...) QOR_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define QOR_NO_THREAD_SAFETY_ANALYSIS QOR_THREAD_ANNOTATION(no_thread_safety_analysis)
