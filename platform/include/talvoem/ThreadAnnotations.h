#pragma once

#include <mutex>

// Clang's thread-safety attributes, so that a clang build with
// -Wthread-safety checks at compile time which lock guards which member and
// which functions expect a lock held or free. Empty for other compilers.
// Internal: the public headers reach it through TalvoemThreadAnnotations.h
// only while the library itself is compiled.
#if defined(__clang__)
#define TALVOEM_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TALVOEM_THREAD_ANNOTATION(x)
#endif

#define TALVOEM_CAPABILITY(name) TALVOEM_THREAD_ANNOTATION(capability(name))
#define TALVOEM_SCOPED_CAPABILITY TALVOEM_THREAD_ANNOTATION(scoped_lockable)
#define TALVOEM_GUARDED_BY(lock) TALVOEM_THREAD_ANNOTATION(guarded_by(lock))
#define TALVOEM_REQUIRES(...) TALVOEM_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define TALVOEM_EXCLUDES(...) TALVOEM_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define TALVOEM_ACQUIRE(...) TALVOEM_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TALVOEM_RELEASE(...) TALVOEM_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TALVOEM_TRY_ACQUIRE(...) TALVOEM_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))

namespace talvoem {

// std::mutex itself, declared a capability so the analysis can follow it;
// std::condition_variable and std::unique_lock take it unchanged.
typedef std::mutex TALVOEM_CAPABILITY("mutex") Mutex;

}  // namespace talvoem
