#include "SocketOemPolicyCBClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <new>
#include <system_error>

#include "OemJsonUtils.h"
#include "SocketTransport.h"
#include "TalvoemProtocol.h"
#include "talvoem/Log.h"
#include "talvoem/ScopedLock.h"

namespace {

namespace protocol = talvoem::protocol;

// owner_ while one thread of a forked child adopts the inherited copy.
constexpr pid_t kAdopting = -1;

// How long an observe() whose receive thread could not start waits for the
// service to answer its dispose request with the exit message.
constexpr std::chrono::milliseconds kExitWait{1000};

int sendRequest(int fd, uint16_t type) {
    OemJsonUtils::SetPolicyCallback::Req req;
    req.api = protocol::kApiSetPolicyCallback;
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

// Reads `fd` (borrowed) until the exit message, the end of the connection or
// kExitWait, passing over notifications that were already on their way.
void awaitExit(int fd) {
    const auto deadline = std::chrono::steady_clock::now() + kExitWait;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd ready = {fd, POLLIN, 0};
        std::string text;
        if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) != 1 ||
            recvMsg(fd, text) < 1) {
            return;
        }
        OemJsonUtils::SetPolicyCallback::Callback msg;
        OemJsonUtils::SetPolicyCallback::fromJson(text, msg);
        if (msg.cmd == protocol::kCmdExit) {
            return;
        }
    }
}

}  // namespace

SocketOemPolicyCBClient::SocketOemPolicyCBClient(IOemPolicyCB* cb)
    : fd_(-1),
      callback_(cb),
      running_(false),
      disposing_(false),
      shutDownByDispose_(false),
      owner_(getpid()) {}

SocketOemPolicyCBClient::~SocketOemPolicyCBClient() {
    adoptAfterFork();
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
    }
    joinThread(thread);
}

int SocketOemPolicyCBClient::observe() {
    adoptAfterFork();
    talvoem::ScopedLock lock(mutex_);
    // A dispose under way joins the previous receive thread: a join here
    // too would be a second join of one thread.
    while (disposing_) {
        disposeEnded_.wait(lock.native());
    }
    if (fd_ >= 0) {
        TALVOEM_LOGE("Client already has a policy callback connection.");
        return -1;
    }
    int fd = establishConnection();
    if (fd < 0) {
        return 1;
    }
    fd_ = fd;
    if (sendRequest(fd_, protocol::kTypeRegister) != 0) {
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
    if (reply.code != protocol::kCodeSuccess) {
        resetSocketFd();
        TALVOEM_LOGW("Client receive response from server is failed");
        return reply.code;
    }
    // A previous loop that ended by itself has left the lock for good.
    joinThread(recvThread_);
    try {
        recvThread_ = std::make_shared<std::thread>(clientHandlerThread, this);
    } catch (const std::system_error& e) {
        TALVOEM_LOGE("Client failed to start receive thread: %s", e.what());
        endRegistration();
        return kReceiveThreadNotStarted;
    }
    return 0;
}

void SocketOemPolicyCBClient::endRegistration() {
    // Ended politely rather than just closed, and awaited, so that the
    // service has let go of its one channel when observe() returns and an
    // observe right after is not refused for it.
    if (sendRequest(fd_, protocol::kTypeDispose) == 0) {
        awaitExit(fd_);
    }
    resetSocketFd();
}

void SocketOemPolicyCBClient::dispose() {
    adoptAfterFork();
    talvoem::ScopedLock lock(mutex_);
    if (disposing_) {
        // Another thread has sent the one dispose request and joins the
        // receive thread. A second request would lie unread when the service
        // closes after its exit message, and that close then resets the
        // connection before the loop reads the exit (a false type 100); a
        // second join of one thread never returns.
        while (disposing_) {
            disposeEnded_.wait(lock.native());
        }
        return;
    }
    disposing_ = true;
    if (fd_ >= 0 && sendRequest(fd_, protocol::kTypeDispose) != 0) {
        TALVOEM_LOGE("Client force close fd");
        // The descriptor is open only while a receive loop serves it, which
        // may be blocked in recvMsg on it or about to enter it: a close under
        // it would leave it waiting, or reading whatever the number is reused
        // for. The shutdown wakes it, and the loop closes the descriptor
        // itself before it ends, so by the time the join returns the
        // descriptor is closed. The loop does not report its own channel's
        // shutdown as a lost service.
        shutdown(fd_, SHUT_RDWR);
        shutDownByDispose_ = true;
    }
    // After a sent dispose the service answers with the exit message, on
    // which the receive loop closes the descriptor and ends.
    std::shared_ptr<std::thread> thread = recvThread_;
    lock.unlock();
    joinThread(thread);
    lock.lock();
    disposing_ = false;
    disposeEnded_.notify_all();
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
        if (msg.cmd == protocol::kCmdExit) {
            TALVOEM_LOGD("Client receive exit cmd, will exit recv loop.");
            break;
        }
        if (msg.cmd == protocol::kCmdNotify) {
            deliver(msg.type);
        }
    }
    resetSocketFd();
    running_ = false;
    const bool report = lost && !shutDownByDispose_;
    shutDownByDispose_ = false;
    lock.unlock();
    if (report) {
        deliver(protocol::kTypeConnectionLost);
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
    adoptAfterFork();
    talvoem::ScopedLock lock(mutex_);
    return cb != nullptr && cb == callback_ && running_;
}

void SocketOemPolicyCBClient::adoptAfterFork() {
    const pid_t self = getpid();
    for (pid_t owner = owner_.load(); owner != self; owner = owner_.load()) {
        if (owner != kAdopting && owner_.compare_exchange_strong(owner, kAdopting)) {
            adoptInherited();
            owner_ = self;
            return;
        }
        std::this_thread::yield();
    }
}

void SocketOemPolicyCBClient::adoptInherited() {
    // The lock and the condition are copies made at any moment of the
    // parent's: the lock may have been held by a thread that does not exist
    // here. New ones are built in their place; neither needs its destructor
    // run, and no thread of this process can be using them yet.
    new (&mutex_) talvoem::Mutex();
    new (&disposeEnded_) std::condition_variable();
    talvoem::ScopedLock lock(mutex_);
    // This process's copy of the descriptor: closing it leaves the parent's
    // connection open, and nothing is sent on it.
    resetSocketFd();
    // The receive thread runs only in the parent. Joining or detaching its
    // handle here would act on a thread id that the child's thread library
    // may already have given to a thread of its own, and destroying a
    // joinable handle calls std::terminate: so an empty handle is built over
    // it, without the old one's destructor, and released as any other.
    if (recvThread_) {
        new (recvThread_.get()) std::thread();
        recvThread_.reset();
    }
    running_ = false;
    disposing_ = false;
    shutDownByDispose_ = false;
}
