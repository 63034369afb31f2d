// Preloaded into talvoemd by a test: caps every SO_SNDBUF request at
// TALVOEM_TEST_WMEM_MAX bytes, as a kernel whose net.core.wmem_max is that
// value does, so one test can lower the send limit of the service alone.
#include <dlfcn.h>
#include <stdlib.h>
#include <sys/socket.h>

extern "C" int setsockopt(int fd, int level, int name, const void* value, socklen_t length) {
    using Set = int (*)(int, int, int, const void*, socklen_t);
    static const Set real = reinterpret_cast<Set>(dlsym(RTLD_NEXT, "setsockopt"));
    static const char* const capText = getenv("TALVOEM_TEST_WMEM_MAX");
    const int cap = capText != nullptr ? atoi(capText) : 0;
    if (level == SOL_SOCKET && name == SO_SNDBUF && length == sizeof(int) && cap > 0 &&
        *static_cast<const int*>(value) > cap) {
        return real(fd, level, name, &cap, sizeof(cap));
    }
    return real(fd, level, name, value, length);
}
