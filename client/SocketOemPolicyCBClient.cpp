#include "SocketOemPolicyCBClient.h"

#include <sys/socket.h>
#include <unistd.h>

#include <system_error>

#include "OemJsonUtils.h"
#include "SocketTransport.h"
#include "talvoem/Log.h"
#include "talvoem/ScopedLock.h"

namespace {

constexpr uint16_t kTypeRegister = 1;
constexpr uint16_t kTypeDispose = 2;
constexpr uint16_t kCmdNotify = 1;
constexpr uint16_t kCmdExit = 2;
constexpr uint16_t kTypeConnectionLost = 100;

int sendRequest(int fd, uint16_t type) {
    OemJsonUtils::SetPolicyCallback::Req req;
    req.api = "setPolicyCallback";
    req.type = type;
    std::string text;
    OemJsonUtils::SetPolicyCallback::toJson(req, text);
    return sendMsg(fd, text);
}

// Joins a receive thread, or lets it go when called on that very thread.
void joinThread(const std::shared_ptr<std::thread>& thread) {
    if (!thread || !thread->joinable()) {
        return;
    }
    if (thread->get_id() == std::this_thread::get_id()) {
        thread->detach();
    } else {
        thread->join();
    }
}

}  // namespace

SocketOemPolicyCBClient::SocketOemPolicyCBClient(IOemPolicyCB* cb)
    : fd_(-1), callback_(cb), running_(false) {}

SocketOemPolicyCBClient::~SocketOemPolicyCBClient() {
    bool open;
    {
        talvoem::ScopedLock lock(mutex_);
        // A receive thread that has been started but has not yet taken the
        // lock counts as running too: it would block on the open descriptor.
        open = running_ || (fd_ >= 0 && recvThread_);
    }
    if (open) {
        TALVOEM_LOGW("Client policy callback is still running, do you forget dispose it?");
        dispose();
    }
    std::shared_ptr<std::thread> thread;
    {
        talvoem::ScopedLock lock(mutex_);
        thread = recvThread_;
        // Only a descriptor whose receive thread never started is left here.
        resetSocketFd();
    }
    joinThread(thread);
}

int SocketOemPolicyCBClient::observe() {
    talvoem::ScopedLock lock(mutex_);
    if (fd_ >= 0) {
        TALVOEM_LOGE("Client already has a policy callback connection.");
        return -1;
    }
    int fd = establishConnection();
    if (fd < 0) {
        return 1;
    }
    fd_ = fd;
    if (sendRequest(fd_, kTypeRegister) != 0) {
        resetSocketFd();
        return 2;
    }
    std::string text;
    if (recvMsg(fd_, text) < 1) {
        resetSocketFd();
        return 3;
    }
    OemJsonUtils::Resp reply;
    if (OemJsonUtils::fromJson(text, reply) != 0) {
        resetSocketFd();
        return 4;
    }
    if (reply.code != 0) {
        resetSocketFd();
        TALVOEM_LOGW("Client receive response from server is failed");
        return reply.code;
    }
    // A previous loop that ended by itself has left the lock for good.
    joinThread(recvThread_);
    recvThread_ = std::make_shared<std::thread>(clientHandlerThread, this);
    return 0;
}

void SocketOemPolicyCBClient::dispose() {
    talvoem::ScopedLock lock(mutex_);
    if (fd_ >= 0 && sendRequest(fd_, kTypeDispose) != 0) {
        TALVOEM_LOGE("Client force close fd");
        // A running receive loop may be blocked in recvMsg on this descriptor
        // or about to enter it: a close under it would leave it waiting, or
        // reading whatever the number is reused for. The shutdown wakes it,
        // and the loop closes the descriptor itself before it ends, so by the
        // time the join returns the descriptor is closed. With no loop (its
        // thread could not start) the descriptor is closed here.
        shutdown(fd_, SHUT_RDWR);
        if (!recvThread_ || !recvThread_->joinable()) {
            resetSocketFd();
        }
    }
    // After a sent dispose the service answers with the exit message, on
    // which the receive loop closes the descriptor and ends.
    std::shared_ptr<std::thread> thread = recvThread_;
    lock.unlock();
    joinThread(thread);
}

void SocketOemPolicyCBClient::onPolicyChanged(uint16_t type, std::string* data) {
    std::thread(notifyHandlerThread, callback_, type, data).detach();
}

void SocketOemPolicyCBClient::clientHandlerThread(SocketOemPolicyCBClient* self) {
    self->loopRecv();
}

void SocketOemPolicyCBClient::loopRecv() {
    talvoem::ScopedLock lock(mutex_);
    running_ = true;
    bool lost = false;
    for (;;) {
        const int fd = fd_;
        lock.unlock();
        std::string text;
        ssize_t n = recvMsg(fd, text);
        lock.lock();
        if (n < 1) {
            TALVOEM_LOGE("Client connection with server interrupted.");
            lost = true;
            break;
        }
        // A text that does not decode leaves cmd at 0 and is ignored.
        OemJsonUtils::SetPolicyCallback::Callback msg;
        OemJsonUtils::SetPolicyCallback::fromJson(text, msg);
        if (msg.cmd == kCmdExit) {
            TALVOEM_LOGD("Client receive exit cmd, will exit recv loop.");
            break;
        }
        if (msg.cmd == kCmdNotify) {
            deliver(msg.type);
        }
    }
    resetSocketFd();
    running_ = false;
    lock.unlock();
    if (lost) {
        deliver(kTypeConnectionLost);
    }
}

void SocketOemPolicyCBClient::deliver(uint16_t type) {
    // The notification's data is not passed on: deliveries carry null.
    try {
        onPolicyChanged(type, nullptr);
    } catch (const std::system_error& e) {
        TALVOEM_LOGE("Client failed to start notify thread: %s", e.what());
    }
}

void SocketOemPolicyCBClient::notifyHandlerThread(IOemPolicyCB* cb, uint16_t type,
                                                  std::string* data) {
    if (cb != nullptr) {
        cb->onPolicyChanged(type, data);
    }
}

void SocketOemPolicyCBClient::resetSocketFd() {
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
}

bool SocketOemPolicyCBClient::isSameCallback(IOemPolicyCB* cb) {
    talvoem::ScopedLock lock(mutex_);
    return cb != nullptr && cb == callback_ && running_;
}
