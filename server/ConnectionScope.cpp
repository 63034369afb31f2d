#include "server/ConnectionScope.h"

#include <algorithm>

#include "TalvoemConnection.h"
#include "TalvoemProtocol.h"
#include "server/PeerCredentials.h"
#include "transport/SendBuffer.h"

namespace {
// The connection the calling thread serves; negative when none.
thread_local int tServing = -1;
// The connection the calling thread was started for; null on every thread
// the listener did not start.
thread_local talvoem::server::AcceptedConnection* tAccepted = nullptr;
}  // namespace

namespace talvoem::server {

AcceptedScope::AcceptedScope(AcceptedConnection& connection) : previous_(tAccepted) {
    tAccepted = &connection;
}

AcceptedScope::~AcceptedScope() {
    tAccepted = previous_;
}

ConnectionScope::ConnectionScope(int fd) : previous_(tServing) {
    tServing = fd;
}

ConnectionScope::~ConnectionScope() {
    tServing = previous_;
}

}  // namespace talvoem::server

namespace talvoem {

size_t currentSendLimit() {
    if (tServing < 0) {
        return 0;
    }
    // Raised only when asked: a query whose service never asks pays nothing.
    return std::min(transport::raiseSendBuffer(tServing), protocol::kReceiveLimit);
}

bool currentCaller(CallerCredentials* out) {
    server::AcceptedConnection* accepted = tAccepted;
    if (tServing < 0 || accepted == nullptr || accepted->fd != tServing) {
        return false;
    }
    if (out == nullptr) {
        return true;
    }
    // Read on first use unless the listener's admission rule needed it:
    // a service that never asks pays nothing for it.
    if (!accepted->contextRead) {
        accepted->caller.securityContext = server::readSecurityContext(accepted->fd);
        accepted->contextRead = true;
    }
    *out = accepted->caller;
    return true;
}

}  // namespace talvoem
