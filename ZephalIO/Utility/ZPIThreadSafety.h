// Tells clang which mutex guards a field, and which one the caller of a function must hold. Other
// compilers ignore it. Scripts/check-static fails where a source breaks these rules.
//
// Only for a std::mutex that is held with a std::lock_guard: the analysis follows neither a
// std::unique_lock nor a lock that one function takes and another releases.
#pragma once

#ifdef __clang__
#define ZPI_GUARDED_BY(mutex) __attribute__((guarded_by(mutex)))
#define ZPI_REQUIRES(mutex) __attribute__((requires_capability(mutex)))
/// For a function that uses guarded fields without the mutex; a comment there says why it may.
#define ZPI_UNCHECKED __attribute__((no_thread_safety_analysis))
#else
#define ZPI_GUARDED_BY(mutex)
#define ZPI_REQUIRES(mutex)
#define ZPI_UNCHECKED
#endif
