#include "SocketTransport.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <new>
#include <thread>

#include "TalvoemProtocol.h"
#include "talvoem/Log.h"
#include "transport/SendBuffer.h"

namespace {

constexpr const char* kServicePath = "/dev/socket/talvoem";
constexpr size_t kRecvBufferSize = talvoem::protocol::kReceiveLimit;
constexpr int kConnectAttempts = 6;
constexpr int kFirstRetryIntervalMs = 20;
// No buffer is smaller than the kernel's minimum (SOCK_MIN_SNDBUF, about
// 4.5 KiB), so messages up to this size never need a look at it.
constexpr size_t kAlwaysFits = 4096;

// Clears bytes that are about to be freed; the empty asm keeps the compiler
// from dropping the memset as a dead store.
void wipe(char* buffer, size_t n) {
    memset(buffer, 0, n);
    asm volatile("" : : "r"(buffer) : "memory");
}

// Says once per process why a large send failed: the limit is the kernel's
// (net.core.wmem_max) or the receive limit, not a fault of the caller.
void reportSendLimit(size_t length, size_t limit) {
    static std::atomic<bool> reported{false};
    if (!reported.exchange(true)) {
        TALVOEM_LOGE(
            "A %zu-byte packet exceeds the %zu bytes this socket can send "
            "(its buffer fits the receive limit where net.core.wmem_max allows)",
            length, limit);
    }
}

}  // namespace

int internalEstablishConnection() {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (fd < 0) {
        TALVOEM_LOGE("Failed to connect to TALVO OEM Query Service (socket creation failed %s)",
                     strerror(errno));
        return -1;
    }
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, kServicePath, sizeof(addr.sun_path) - 1);
    // The full structure size, not the path length: the peer sees the same
    // zero-padded address whatever the path.
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        int err = errno;
        close(fd);
        TALVOEM_LOGE("Failed to connect to TALVO OEM Query Service (connection failed %s)",
                     strerror(err));
        return -2;
    }
    return fd;
}

int establishConnection() {
    int fd = internalEstablishConnection();
    int intervalMs = kFirstRetryIntervalMs;
    for (int retry = 0; fd < 0 && retry < kConnectAttempts - 1; ++retry) {
        TALVOEM_LOGD("establishConnection retry: %d, interval: %d", retry, intervalMs);
        std::this_thread::sleep_for(std::chrono::milliseconds(intervalMs));
        intervalMs *= 2;
        fd = internalEstablishConnection();
    }
    return fd;
}

int closeConnection(int fd) {
    if (fd < 0) {
        TALVOEM_LOGW("Could not close connection, because fd is invalid!");
        return -1;
    }
    close(fd);
    return 0;
}

int sendMsg(int fd, std::string& msg) {
    if (fd < 0) {
        TALVOEM_LOGW("Could not send message, because fd is invalid!");
        return -1;
    }
    // The packet ends at the first NUL byte; the string's own bytes go to
    // the kernel without a copy.
    const char* text = msg.c_str();
    const size_t length = strlen(text);
    const size_t limit = length > kAlwaysFits ? talvoem::transport::raiseSendBuffer(fd) : length;
    if (sendto(fd, text, length, 0, nullptr, 0) == -1) {
        int err = errno;
        TALVOEM_LOGE("Failed to send packet");
        if (length > limit && (err == EMSGSIZE || err == ENOBUFS)) {
            reportSendLimit(length, limit);
        }
        if (err == EPIPE) {
            TALVOEM_LOGW("Remote may has crashed");
            return -4;
        }
        return -3;
    }
    return 0;
}

ssize_t recvMsg(int fd, std::string& msg) {
    // A fresh buffer per call, deliberately not value-initialised: only the
    // bytes a packet wrote are cleared afterwards.
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[kRecvBufferSize]);
    if (!buffer) {
        TALVOEM_LOGE("Failed to receive packet - %s", strerror(ENOMEM));
        return -1;
    }
    ssize_t n = recvfrom(fd, buffer.get(), kRecvBufferSize, 0, nullptr, nullptr);
    if (n <= 0) {
        TALVOEM_LOGE("Failed to receive packet - %s", strerror(errno));
        return n;
    }
    try {
        msg.assign(buffer.get(), static_cast<size_t>(n));
    } catch (const std::bad_alloc&) {
        wipe(buffer.get(), static_cast<size_t>(n));
        TALVOEM_LOGE("Failed to receive packet - %s", strerror(ENOMEM));
        return -1;
    }
    wipe(buffer.get(), static_cast<size_t>(n));
    return n;
}
