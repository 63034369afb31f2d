#include "Wire.h"

#include <errno.h>
#include <grp.h>
#include <poll.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <thread>

namespace talvoem::test {

std::string notifyText(uint16_t type, const std::string& data) {
    return "{\"cmd\":1,\"data\":\"" + data + "\",\"type\":" + std::to_string(type) + "}\n";
}

std::string envelopeText(int code, const std::string& msg) {
    return "{\"code\":" + std::to_string(code) + ",\"msg\":\"" + msg + "\"}\n";
}

std::string queryText(uint16_t type, const std::string& data) {
    return "{\"api\":\"queryPolicy\",\"data\":\"" + data + "\",\"type\":" + std::to_string(type) +
           "}\n";
}

bool enterPrivateSocketDir() {
    const char* step = "unshare(CLONE_NEWNS) (needs root)";
    if (unshare(CLONE_NEWNS) == 0) {
        step = "making / private";
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
            mkdir("/dev/socket", 0755);  // the empty directory is all we add outside
            step = "tmpfs on /dev/socket";
            if (mount("tmpfs", "/dev/socket", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") == 0) {
                return true;
            }
        }
    }
    fprintf(stderr, "%s: %s\n", step, strerror(errno));
    return false;
}

namespace {

sockaddr_un addressOf(const char* path) {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path, sizeof(addr.sun_path) - 1);
    return addr;
}

}  // namespace

int bindPath(int type, const char* path) {
    unlink(path);
    int fd = socket(AF_UNIX, type, 0);
    sockaddr_un addr = addressOf(path);
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        fd = -1;
    }
    return fd;
}

int connectRaw() {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un addr = addressOf(kServicePath);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        fd = -1;
    }
    return fd;
}

int connectAs(uid_t uid, pid_t* pid) {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un addr = addressOf(kServicePath);
    const pid_t child = fd < 0 ? -1 : fork();
    if (child == 0) {
        // The kernel records the connecting process's credentials on the
        // connection: only system calls here, as after any fork of a
        // threaded process.
        const bool connected = setgroups(0, nullptr) == 0 && setresgid(uid, uid, uid) == 0 &&
                               setresuid(uid, uid, uid) == 0 &&
                               connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
        _exit(connected ? 0 : 1);
    }
    int status = -1;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
        close(fd);
        return -1;
    }
    if (pid != nullptr) {
        *pid = child;
    }
    return fd;
}

bool sendRaw(int fd, const std::string& bytes, int flags) {
    return send(fd, bytes.data(), bytes.size(), flags | MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

namespace {

bool waitReadable(int fd, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd pfd = {fd, POLLIN, 0};
        const int ready = poll(&pfd, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
        if (ready >= 0 || errno != EINTR) {
            return ready == 1;
        }
    }
}

}  // namespace

Packet recvRaw(int fd, std::chrono::milliseconds timeout) {
    // One per thread and left uninitialised: clearing a megabyte per packet
    // would cost the fuzzers more than the code under test.
    constexpr size_t kMaxPacket = 1 << 20;
    thread_local std::unique_ptr<char[]> buffer(new char[kMaxPacket]);
    for (;;) {
        if (!waitReadable(fd, timeout)) {
            return {Packet::kTimeout, {}};
        }
        ssize_t n = recv(fd, buffer.get(), kMaxPacket, 0);
        if (n > 0) {
            return {Packet::kData, std::string(buffer.get(), static_cast<size_t>(n))};
        }
        if (n == 0 || errno != ECONNRESET) {
            return {Packet::kClosed, {}};
        }
    }
}

std::string roundTrip(const std::string& request) {
    int fd = connectRaw();
    std::string reply;
    if (fd >= 0 && sendRaw(fd, request)) {
        Packet packet = recvRaw(fd);
        reply = packet.bytes;
    }
    closeRaw(fd);
    return reply;
}

int registerRaw() {
    int fd = connectRaw();
    if (fd >= 0 && (!sendRaw(fd, kRegister) || recvRaw(fd).bytes != kSuccess)) {
        close(fd);
        fd = -1;
    }
    return fd;
}

void closeRaw(int fd) {
    if (fd < 0) {
        return;
    }
    shutdown(fd, SHUT_WR);
    while (recvRaw(fd).status == Packet::kData) {
    }
    close(fd);
}

bool seqpacketPair(int fds[2]) {
    return socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds) == 0;
}

int openFdCount() {
    auto entries = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<int>(std::distance(begin(entries), end(entries))) - 1;  // the iterator's own
}

int threadCount() {
    auto entries = std::filesystem::directory_iterator("/proc/self/task");
    return static_cast<int>(std::distance(begin(entries), end(entries)));
}

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace talvoem::test
