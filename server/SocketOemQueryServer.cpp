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
#include "server/AdmissionGate.h"
#include "server/AdmissionRegistry.h"
#include "server/ConnectionScope.h"
#include "server/ExhaustionEpisode.h"
#include "server/PeerCredentials.h"
#include "talvoem/Log.h"
#include "talvoem/UniqueFd.h"

using talvoem::server::AcceptedConnection;
using talvoem::server::AdmissionGate;
using talvoem::server::ExhaustionEpisode;
using talvoem::server::UidPlace;

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

// The next connection the admission gate lets in, with its caller read at
// accept and its place in the per-uid count. A refused connection is closed
// at once and the listener accepts again without a line of its own: the
// gate logs refusals by episode. -1 as acceptConnection.
int admitConnection(int listener, ExhaustionEpisode& noDescriptors, AdmissionGate& gate,
                    AcceptedConnection& accepted, UidPlace& place) {
    for (;;) {
        talvoem::UniqueFd connection(acceptConnection(listener, noDescriptors));
        if (connection.get() < 0) {
            return -1;
        }
        accepted.fd = connection.get();
        accepted.caller = talvoem::server::readPeerCredentials(connection.get());
        // The rule may judge the context; without one it waits until the
        // service asks for it, so a connection costs one getsockopt.
        accepted.contextRead = gate.active();
        if (accepted.contextRead) {
            accepted.caller.securityContext =
                talvoem::server::readSecurityContext(connection.get());
        }
        if (gate.admit(accepted.caller, place)) {
            return connection.release();
        }
    }
}

// Hands `connection` to a detached thread of its own, which owns it from then
// on, with its caller and its place in the per-uid count, given back when the
// thread has closed it. When no thread can be made the connection is closed
// unanswered (its place given back) and the listener goes on: that costs one
// client, not the service.
void startConnectionThread(SocketOemQueryServer* server, talvoem::UniqueFd& connection,
                           AcceptedConnection& accepted, UidPlace& place,
                           ExhaustionEpisode& episode) {
    try {
        std::thread([server, accepted = std::move(accepted), place = std::move(place)]() mutable {
            talvoem::server::AcceptedScope scope(accepted);
            SocketOemQueryServer::svcHandlerThread(server, accepted.fd);
            place.giveBack();
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

SocketOemQueryServer::~SocketOemQueryServer() {
    talvoem::server::forgetAdmissionRule(this);
}

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
    AdmissionGate gate(talvoem::server::admissionRuleFor(this));
    for (;;) {
        TALVOEM_LOGI("Server waiting for client");
        AcceptedConnection accepted;
        UidPlace place;
        talvoem::UniqueFd connection(
            admitConnection(listener.get(), noDescriptors, gate, accepted, place));
        if (connection.get() < 0) {
            TALVOEM_LOGE("Server failed to accept packet over socket");
            return -1;
        }
        TALVOEM_LOGI("Server Connected to Client");
        startConnectionThread(this, connection, accepted, place, noThreads);
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
