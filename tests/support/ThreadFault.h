#pragma once

#include <climits>

namespace talvoem::test {

// While one is alive, the next `failures` thread creations in this process
// fail as they do on a system out of threads (EAGAIN, so std::thread throws
// std::system_error). It replaces pthread_create for the test binary; the
// sanitizers' runtimes own that function, so there it is not available and
// the tests that need it skip.
class ThreadFault {
public:
    explicit ThreadFault(int failures = INT_MAX);
    ~ThreadFault();
    ThreadFault(const ThreadFault&) = delete;
    ThreadFault& operator=(const ThreadFault&) = delete;

    static bool available();
    // Thread creations refused since this fault was set.
    int refused() const;
};

}  // namespace talvoem::test

// Skips the GoogleTest case that uses it where no fault can be set.
#define REQUIRE_THREAD_FAULT()                                         \
    if (!talvoem::test::ThreadFault::available()) {                    \
        GTEST_SKIP() << "the sanitizer's runtime owns pthread_create"; \
    }
