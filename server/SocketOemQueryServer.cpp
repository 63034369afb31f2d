#include "SocketOemQueryServer.h"

#include <cutils/sockets.h>
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <exception>
#include <thread>

#include "SocketTransport.h"
#include "talvoem/Log.h"
#include "talvoem/UniqueFd.h"

namespace {
constexpr const char* kControlSocketName = "talvoem";
constexpr int kListenBacklog = 20;
}  // namespace

SocketOemQueryServer::SocketOemQueryServer(IOemPolicyCBFactory* factory)
    : factory_(factory), channel_(nullptr) {}

SocketOemQueryServer::~SocketOemQueryServer() = default;

int8_t SocketOemQueryServer::init() {
    // Owned from here on: every way out of the listener closes it.
    talvoem::UniqueFd listener(android_get_control_socket(kControlSocketName));
    if (listener.get() < 0) {
        TALVOEM_LOGE("Server failed to connect to socket %s, error - %s", kControlSocketName,
                     strerror(errno));
        return -1;
    }
    if (listen(listener.get(), kListenBacklog) < 0) {
        TALVOEM_LOGE("Server failed to listen to socket, error - %s", strerror(errno));
        return -1;
    }
    for (;;) {
        TALVOEM_LOGI("Server waiting for client");
        sockaddr_un peer = {};
        socklen_t peerLen = sizeof(peer);
        // No retry, not even on EINTR: a failing accept ends the listener.
        int fd = accept(listener.get(), reinterpret_cast<sockaddr*>(&peer), &peerLen);
        if (fd < 0) {
            TALVOEM_LOGE("Server failed to accept packet over socket");
            return -1;
        }
        TALVOEM_LOGI("Server Connected to Client");
        talvoem::UniqueFd connection(fd);  // closed here if no thread can take it
        std::thread(svcHandlerThread, this, connection.get()).detach();
        static_cast<void>(connection.release());  // the thread owns it now
    }
}

void SocketOemQueryServer::svcHandlerThread(SocketOemQueryServer* server, int fd) {
    if (fd < 0) {
        TALVOEM_LOGE("Invalid socket fd.");
        return;
    }
    talvoem::UniqueFd connection(fd);  // closed on every path below
    std::string request;
    if (recvMsg(fd, request) < 1) {
        return;
    }
    std::string response;
    try {
        server->onTransact(fd, request, response);
    } catch (const std::exception& e) {
        // Only a channel's thread creation can throw here; the channel has
        // been taken down on the way out. The service must keep serving.
        TALVOEM_LOGE("Server connection thread failed: %s", e.what());
        return;
    }
    if (!response.empty()) {
        sendMsg(fd, response);
    }
}
