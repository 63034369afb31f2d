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
#include "server/ExhaustionEpisode.h"
#include "talvoem/Log.h"
#include "talvoem/UniqueFd.h"

using talvoem::server::ExhaustionEpisode;

namespace {

constexpr const char* kControlSocketName = "talvoem";
constexpr int kListenBacklog = 20;

// An accept that failed for want of something that comes back once other
// connections close: descriptors, or kernel memory for the new socket.
bool isExhaustion(int err) {
    return err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM;
}

// The next connection, waiting out an exhausted resource with a growing
// pause. -1 on any other failure: that one ends the listener, and is never
// retried, not even EINTR.
int acceptConnection(int listener, ExhaustionEpisode& episode) {
    for (;;) {
        sockaddr_un peer = {};
        socklen_t peerLen = sizeof(peer);
        int fd = accept(listener, reinterpret_cast<sockaddr*>(&peer), &peerLen);
        if (fd >= 0) {
            episode.succeeded();
            return fd;
        }
        if (!isExhaustion(errno)) {
            return -1;
        }
        episode.failed(strerror(errno));
        std::this_thread::sleep_for(episode.backOff());
    }
}

// Hands `connection` to a detached thread of its own, which owns it from then
// on. When no thread can be made the connection is closed unanswered and the
// listener goes on: that costs one client, not the service.
void startConnectionThread(SocketOemQueryServer* server, talvoem::UniqueFd& connection,
                           ExhaustionEpisode& episode) {
    try {
        std::thread([server, fd = connection.get()] {
            SocketOemQueryServer::svcHandlerThread(server, fd);
        }).detach();
    } catch (const std::exception& e) {  // std::system_error, or std::bad_alloc for its state
        episode.failed(e.what());
        connection.reset();
        return;
    }
    static_cast<void>(connection.release());
    episode.succeeded();
}

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
    ExhaustionEpisode noDescriptors(ExhaustionEpisode::Resource::kAccept);
    ExhaustionEpisode noThreads(ExhaustionEpisode::Resource::kConnectionThread);
    for (;;) {
        TALVOEM_LOGI("Server waiting for client");
        talvoem::UniqueFd connection(acceptConnection(listener.get(), noDescriptors));
        if (connection.get() < 0) {
            TALVOEM_LOGE("Server failed to accept packet over socket");
            return -1;
        }
        TALVOEM_LOGI("Server Connected to Client");
        startConnectionThread(this, connection, noThreads);
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
        // The library throws nothing here, but an allocation can fail and a
        // service's queryPolicy is its own code: whatever it was, this
        // connection closes unanswered and the service keeps serving.
        TALVOEM_LOGE("Server connection thread failed: %s", e.what());
        return;
    }
    if (!response.empty()) {
        sendMsg(fd, response);
    }
}
