#include "server/PeerCredentials.h"

#include <errno.h>
#include <sys/socket.h>

#include <atomic>
#include <new>

namespace {

// Set once SO_PEERSEC has answered ENOPROTOOPT: no security module of this
// kernel labels sockets, which does not change while it runs, so no later
// connection pays a system call to learn it again. (SELinux labels every
// Unix-domain socket; a host without it answers so for each one.)
std::atomic<bool> gNoContexts{false};

}  // namespace

namespace talvoem::server {

CallerCredentials readPeerCredentials(int fd) {
    CallerCredentials caller;
    ucred cred = {};
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0 && len == sizeof(cred)) {
        caller.pid = cred.pid;
        caller.uid = cred.uid;
        caller.gid = cred.gid;
    }
    return caller;
}

std::string readSecurityContext(int fd) try {
    if (gNoContexts.load(std::memory_order_relaxed)) {
        return std::string();
    }
    // Contexts are short; a longer one is read again at the size the kernel
    // asked for (ERANGE sets `len` to it).
    std::string context(256, '\0');
    socklen_t len = static_cast<socklen_t>(context.size());
    int result = getsockopt(fd, SOL_SOCKET, SO_PEERSEC, context.data(), &len);
    if (result != 0 && errno == ERANGE) {
        context.resize(len);
        result = getsockopt(fd, SOL_SOCKET, SO_PEERSEC, context.data(), &len);
    }
    if (result != 0) {
        if (errno == ENOPROTOOPT) {
            gNoContexts.store(true, std::memory_order_relaxed);
        }
        return std::string();
    }
    context.resize(len);
    while (!context.empty() && context.back() == '\0') {
        context.pop_back();
    }
    return context;
} catch (const std::bad_alloc&) {  // on the listener, which throws nothing
    return std::string();
}

}  // namespace talvoem::server
