#include "ServiceHarness.h"

#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "Wire.h"

namespace talvoem::test {

namespace {
constexpr const char* kPath = "/dev/socket/talvoem";
}  // namespace

int bindControlSocket() {
    unlink(kPath);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, kPath, sizeof(addr.sun_path) - 1);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    setenv("ANDROID_SOCKET_talvoem", std::to_string(fd).c_str(), 1);
    return fd;
}

ServiceRunner::ServiceRunner(SocketOemQueryServer& server) : listenFd_(bindControlSocket()) {
    thread_ = std::thread([this, &server] { result_ = server.init(); });
    // Clients may connect as soon as the constructor returns: wait until
    // init() has put the socket into the listening state (or has given up).
    waitUntil([this] {
        int listening = 0;
        socklen_t len = sizeof(listening);
        return getsockopt(listenFd_, SOL_SOCKET, SO_ACCEPTCONN, &listening, &len) != 0 ||
               listening != 0;
    });
}

ServiceRunner::~ServiceRunner() {
    stop();
}

int8_t ServiceRunner::stop() {
    if (!stopped_) {
        stopped_ = true;
        shutdown(listenFd_, SHUT_RDWR);
        thread_.join();
        unlink(kPath);
        unsetenv("ANDROID_SOCKET_talvoem");
    }
    return result_;
}

}  // namespace talvoem::test
