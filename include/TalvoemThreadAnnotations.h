#pragma once

#include <mutex>

// The library's classes carry clang thread-safety annotations on their members
// so that the library's own clang build (-Wthread-safety) checks its locking.
// Those annotations name private mutexes, which a caller can neither see nor
// hold, so they are checked only where they can be kept: the library's build
// defines TALVOEM_BUILDING_LIBRARY (privately) and gets the real attributes
// and the capability-typed talvoem::Mutex from an internal header. For every
// other translation unit the annotations expand to nothing and talvoem::Mutex
// is plain std::mutex: the same type and layout, so the classes are the same
// on both sides, and an application built with -Wthread-safety -Werror can
// call every public member.
#if defined(TALVOEM_BUILDING_LIBRARY)
#include "talvoem/ThreadAnnotations.h"
#else
#define TALVOEM_CAPABILITY(name)
#define TALVOEM_SCOPED_CAPABILITY
#define TALVOEM_GUARDED_BY(lock)
#define TALVOEM_REQUIRES(...)
#define TALVOEM_EXCLUDES(...)
#define TALVOEM_ACQUIRE(...)
#define TALVOEM_RELEASE(...)
#define TALVOEM_TRY_ACQUIRE(...)

namespace talvoem {
using Mutex = std::mutex;
}  // namespace talvoem
#endif
