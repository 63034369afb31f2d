#pragma once

#include <cstdint>
#include <thread>

#include "SocketOemQueryServer.h"

namespace talvoem::test {

// Plays init for a service: binds a SOCK_SEQPACKET socket at
// /dev/socket/talvoem (inside the test's private tmpfs), hands it over in
// ANDROID_SOCKET_talvoem and runs init() on a thread of its own. stop()
// shuts the listening socket down, which makes accept fail, so init()
// returns -1 and the thread is joined. The constructor returns once the
// socket is listening, so clients may connect at once. Connection threads already accepted
// go on to their end; the server must outlive them.
class ServiceRunner {
public:
    explicit ServiceRunner(SocketOemQueryServer& server);
    ~ServiceRunner();
    ServiceRunner(const ServiceRunner&) = delete;
    ServiceRunner& operator=(const ServiceRunner&) = delete;

    // Idempotent. Returns what init() returned.
    int8_t stop();
    int listenFd() const { return listenFd_; }

private:
    int listenFd_;
    int8_t result_ = 0;
    bool stopped_ = false;
    std::thread thread_;
};

// Creates and binds the control socket at /dev/socket/talvoem and exports it
// the way init does. Returns the descriptor (not yet listening).
int bindControlSocket();

}  // namespace talvoem::test
