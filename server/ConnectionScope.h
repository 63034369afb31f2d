#pragma once

#include "TalvoemConnection.h"

namespace talvoem::server {

// The connection a connection thread was started for: its descriptor and
// the caller read at accept. Owned by the thread's function, and read and
// written by that thread alone.
struct AcceptedConnection {
    int fd = -1;
    CallerCredentials caller;
    bool contextRead = false;  // caller.securityContext holds SO_PEERSEC's answer
};

// Marks the calling thread as the one started for `connection` (borrowed,
// it must outlive the scope), so that a ConnectionScope for its descriptor
// makes its caller known to currentCaller(). Restores the previous one when
// it ends.
class AcceptedScope {
public:
    explicit AcceptedScope(AcceptedConnection& connection);
    ~AcceptedScope();
    AcceptedScope(const AcceptedScope&) = delete;
    AcceptedScope& operator=(const AcceptedScope&) = delete;

private:
    AcceptedConnection* previous_;
};

// Marks the calling thread as serving the connection `fd` (borrowed) for the
// scope's life, for the functions of TalvoemConnection.h. Scopes nest: the
// previous connection is restored when one ends. The caller is known only
// when `fd` is the descriptor of the thread's AcceptedScope.
class ConnectionScope {
public:
    explicit ConnectionScope(int fd);
    ~ConnectionScope();
    ConnectionScope(const ConnectionScope&) = delete;
    ConnectionScope& operator=(const ConnectionScope&) = delete;

private:
    int previous_;
};

}  // namespace talvoem::server
