#include "ThreadFault.h"

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>

#include <atomic>

namespace {

std::atomic<int> gToRefuse{0};
std::atomic<int> gRefused{0};

#if !defined(TALVOEM_NO_THREAD_FAULT)
// Takes one failure from the budget; false when none is left.
[[maybe_unused]] bool refuseOne() {
    int left = gToRefuse.load();
    while (left > 0) {
        if (gToRefuse.compare_exchange_weak(left, left - 1)) {
            ++gRefused;
            return true;
        }
    }
    return false;
}
#endif

}  // namespace

#if !defined(TALVOEM_NO_THREAD_FAULT)
// The executable's definition comes first in the dynamic linker's search, so
// the library's std::thread (through libstdc++) lands here.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*),
                              void* arg) {
    using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const Create real = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    if (refuseOne()) {
        return EAGAIN;
    }
    return real(thread, attr, start, arg);
}
#endif

namespace talvoem::test {

ThreadFault::ThreadFault(int failures) {
    gRefused = 0;
    gToRefuse = failures;
}

ThreadFault::~ThreadFault() {
    gToRefuse = 0;
}

bool ThreadFault::available() {
#if defined(TALVOEM_NO_THREAD_FAULT)
    return false;
#else
    return true;
#endif
}

int ThreadFault::refused() const {
    return gRefused;
}

}  // namespace talvoem::test
