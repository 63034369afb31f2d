#pragma once

#include <mutex>

#include "talvoem/ThreadAnnotations.h"

namespace talvoem {

// std::unique_lock over a talvoem::Mutex, in a form the thread-safety
// analysis follows: it holds the mutex from construction to destruction,
// except between an unlock() and the next lock().
class TALVOEM_SCOPED_CAPABILITY ScopedLock {
public:
    explicit ScopedLock(Mutex& mutex) TALVOEM_ACQUIRE(mutex) : lock_(mutex) {}
    ~ScopedLock() TALVOEM_RELEASE() {}
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

    void lock() TALVOEM_ACQUIRE() { lock_.lock(); }
    void unlock() TALVOEM_RELEASE() { lock_.unlock(); }
    // For std::condition_variable, whose wait releases and retakes the mutex
    // inside the call; the analysis sees it held throughout.
    std::unique_lock<std::mutex>& native() { return lock_; }

private:
    std::unique_lock<std::mutex> lock_;
};

}  // namespace talvoem
