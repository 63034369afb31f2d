#include "server/ConnectionScope.h"

#include <algorithm>

#include "TalvoemConnection.h"
#include "TalvoemProtocol.h"
#include "transport/SendBuffer.h"

namespace {
// The connection the calling thread serves; negative when none.
thread_local int tServing = -1;
}  // namespace

namespace talvoem::server {

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

}  // namespace talvoem
