#include "transport/SendBuffer.h"

#include <sys/socket.h>

#include "TalvoemProtocol.h"

namespace talvoem::transport {

namespace {

// A SOCK_SEQPACKET packet must fit the sender's buffer whole, less this much
// of the kernel's own bookkeeping, or the send fails with EMSGSIZE.
constexpr int kSendBufferOverhead = 32;
constexpr int kWantedSendBuffer = static_cast<int>(protocol::kReceiveLimit) + kSendBufferOverhead;

int sendBufferOf(int fd) {
    int size = 0;
    socklen_t length = sizeof(size);
    if (getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, &length) != 0) {
        return -1;
    }
    return size;
}

}  // namespace

size_t raiseSendBuffer(int fd) {
    int size = sendBufferOf(fd);
    if (size >= 0 && size < kWantedSendBuffer) {
        // The kernel doubles the request (its own bookkeeping) and caps it at
        // net.core.wmem_max; read back what was granted.
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kWantedSendBuffer, sizeof(kWantedSendBuffer));
        size = sendBufferOf(fd);
    }
    return size > kSendBufferOverhead ? static_cast<size_t>(size - kSendBufferOverhead) : 0;
}

}  // namespace talvoem::transport
