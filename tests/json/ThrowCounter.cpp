// Counts exceptions by interposing the C++ runtime's __cxa_throw: the
// executable's definition comes first in symbol lookup, so jsoncpp's throws
// land here too before they go on to the runtime's (or a sanitizer's). Neither
// <cxxabi.h> nor jsoncpp's headers are included: they declare it differently.
#include <dlfcn.h>

#include <atomic>
#include <typeinfo>

namespace {

std::atomic<int> gThrown{0};

using CxaThrow = void (*)(void*, std::type_info*, void (*)(void*));

}  // namespace

extern "C" [[noreturn]] void __cxa_throw(void* object, std::type_info* type,
                                         void (*destroy)(void*)) {
    gThrown.fetch_add(1);
    static const CxaThrow next = reinterpret_cast<CxaThrow>(dlsym(RTLD_NEXT, "__cxa_throw"));
    next(object, type, destroy);
    __builtin_unreachable();
}

namespace talvoem::test {

int exceptionsThrown() {
    return gThrown.load();
}

}  // namespace talvoem::test
