#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

// What the library knows of the connection whose request the calling thread
// is serving. It is known on a connection thread of SocketOemQueryServer while
// its onTransact runs, that is inside the service's queryPolicy and
// setPolicyCallback (the channel's closing setPolicyCallback(nullptr)
// included); on any other thread, or after the call has returned, the
// functions here say that there is none. Nothing carries over from one
// connection to the next, even on the same thread.
namespace talvoem {

// The longest answer, in bytes, that can go back whole on that connection:
// its send buffer raised as far as net.core.wmem_max allows, and never more
// than the 524,288 bytes a client receives whole. 0 when there is no such
// connection. A service answers with its own "too large" envelope above it,
// since a longer answer would not be sent at all.
size_t currentSendLimit();

// Who connected, as the kernel told the listener when it accepted the
// connection: the process's pid, uid and gid at the moment it connected
// (SO_PEERCRED; the process may have exited since, and its pid been reused),
// and its SELinux context (SO_PEERSEC), empty where the kernel keeps none.
// uid and gid are (uid_t)-1 and (gid_t)-1 if the kernel could not say.
struct CallerCredentials {
    pid_t pid = 0;
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    std::string securityContext;
};

// Fills `out` with the caller of the connection being served and returns
// true; false, leaving `out` alone, when the calling thread serves no
// connection the listener accepted (another thread, after the call, or an
// onTransact that a program called itself). Cheap: the credentials were read
// once, at accept; only the first call of a connection may read its context
// when no admission rule made the listener read it already.
bool currentCaller(CallerCredentials* out);

}  // namespace talvoem
