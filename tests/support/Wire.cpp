#include "Wire.h"

#include <dirent.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>
#include <thread>
#include <vector>

namespace talvoem::test {

int connectRaw() {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, "/dev/socket/talvoem", sizeof(addr.sun_path) - 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool sendRaw(int fd, const std::string& bytes) {
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

Packet recvRaw(int fd, std::chrono::milliseconds timeout) {
    pollfd pfd = {fd, POLLIN, 0};
    int ready = poll(&pfd, 1, static_cast<int>(timeout.count()));
    if (ready == 0) {
        return {Packet::kTimeout, {}};
    }
    if (ready < 0) {
        return {Packet::kError, {}};
    }
    std::vector<char> buffer(1 << 20);
    ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
    if (n < 0) {
        return {Packet::kError, {}};
    }
    if (n == 0) {
        return {Packet::kClosed, {}};
    }
    return {Packet::kData, std::string(buffer.data(), static_cast<size_t>(n))};
}

std::string roundTrip(const std::string& request) {
    int fd = connectRaw();
    if (fd < 0) {
        return {};
    }
    std::string reply;
    if (sendRaw(fd, request)) {
        Packet packet = recvRaw(fd);
        if (packet.status == Packet::kData) {
            reply = packet.bytes;
            recvRaw(fd);  // the service closes after its one reply
        }
    }
    close(fd);
    return reply;
}

bool seqpacketPair(int fds[2]) {
    return socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds) == 0;
}

int openFdCount() {
    int n = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        return -1;
    }
    while (readdir(dir) != nullptr) {
        ++n;
    }
    closedir(dir);
    return n - 3;  // ".", ".." and the directory's own descriptor
}

int threadCount() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("Threads:", 0) == 0) {
            return std::stoi(line.substr(8));
        }
    }
    return -1;
}

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace talvoem::test
