#pragma once

/// Clang's thread-safety attributes under short names; nothing with other compilers.
/// Lock-guarded members carry KARST_GUARDED_BY, so that clang proves the locking at compile time.

#if defined(__clang__)
#define KARST_TS(x) __attribute__((x))
#else
#define KARST_TS(x)
#endif

#define KARST_CAPABILITY(x) KARST_TS(capability(x))
#define KARST_SCOPED_CAPABILITY KARST_TS(scoped_lockable)
#define KARST_GUARDED_BY(x) KARST_TS(guarded_by(x))
#define KARST_REQUIRES(...) KARST_TS(requires_capability(__VA_ARGS__))
#define KARST_ACQUIRE(...) KARST_TS(acquire_capability(__VA_ARGS__))
#define KARST_RELEASE(...) KARST_TS(release_capability(__VA_ARGS__))
#define KARST_TRY_ACQUIRE(...) KARST_TS(try_acquire_capability(__VA_ARGS__))
#define KARST_ACQUIRE_SHARED(...) KARST_TS(acquire_shared_capability(__VA_ARGS__))
#define KARST_RELEASE_SHARED(...) KARST_TS(release_shared_capability(__VA_ARGS__))
#define KARST_RELEASE_GENERIC(...) KARST_TS(release_generic_capability(__VA_ARGS__))
#define KARST_EXCLUDES(...) KARST_TS(locks_excluded(__VA_ARGS__))
#define KARST_NO_THREAD_SAFETY_ANALYSIS KARST_TS(no_thread_safety_analysis)
