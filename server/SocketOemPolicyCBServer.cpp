#include "SocketOemPolicyCBServer.h"

#include <errno.h>
#include <string.h>

#include <exception>

#include "OemJsonUtils.h"
#include "SocketTransport.h"
#include "TalvoemProtocol.h"
#include "talvoem/Log.h"
#include "talvoem/ScopedLock.h"

namespace protocol = talvoem::protocol;

SocketOemPolicyCBServer::SocketOemPolicyCBServer(int fd) : fd_(fd), running_(false) {}

SocketOemPolicyCBServer::~SocketOemPolicyCBServer() {
    bool running;
    {
        talvoem::ScopedLock lock(mutex_);
        running = running_;
    }
    if (running) {
        TALVOEM_LOGD("Server policy callback is still running, force stop.");
        internalDispose();
    }
}

void SocketOemPolicyCBServer::onPolicyChanged(uint16_t type, std::string* data) {
    // Serialised on the reporting thread, before any lock is taken.
    OemJsonUtils::SetPolicyCallback::Callback cb;
    cb.cmd = protocol::kCmdNotify;
    cb.type = type;
    if (data != nullptr) {
        cb.data = *data;
    }
    std::string text;
    OemJsonUtils::SetPolicyCallback::toJson(cb, text);
    addData(text);
}

void SocketOemPolicyCBServer::addData(std::string& msg) {
    {
        talvoem::ScopedLock lock(mutex_);
        if (!running_ || !sendThread_) {
            return;
        }
        pending_.push_back(msg);
    }
    wakeUp_.notify_all();
}

int SocketOemPolicyCBServer::observe() {
    std::shared_ptr<std::thread> unstarted;
    {
        talvoem::ScopedLock lock(mutex_);
        if (fd_ < 0) {
            TALVOEM_LOGE("Server can not observe callback with invalid fd.");
            return protocol::kCodeChannelNoDescriptor;
        }
        // The send thread is made before the reply goes, so that a channel
        // that cannot have one is refused in band. The reply is still the
        // channel's first packet: the thread needs this lock to send, and
        // nothing can be queued before it is released.
        if (!startSendThreadLocked()) {
            return protocol::kCodeChannelNotStarted;
        }
        OemJsonUtils::Resp reply;
        reply.msg = "success";
        std::string text;
        OemJsonUtils::toJson(reply, text);
        if (sendMsg(fd_, text) != 0) {
            running_ = false;
            unstarted = sendThread_;
        }
    }
    if (unstarted) {
        // Back to Created: the thread finds the channel stopped and ends.
        wakeUp_.notify_all();
        unstarted->join();
        return protocol::kCodeChannelNotStarted;
    }
    loopRecv();
    return 0;
}

bool SocketOemPolicyCBServer::startSendThreadLocked() {
    running_ = true;
    try {
        sendThread_ = std::make_shared<std::thread>(sendHandlerThread, this);
    } catch (const std::exception& e) {  // std::system_error, or std::bad_alloc
        running_ = false;
        TALVOEM_LOGE("Server failed to start policy callback send thread: %s", e.what());
        return false;
    }
    return true;
}

void SocketOemPolicyCBServer::loopRecv() {
    int fd;
    {
        talvoem::ScopedLock lock(mutex_);
        fd = fd_;
    }
    for (;;) {
        std::string text;
        if (recvMsg(fd, text) < 1) {
            TALVOEM_LOGE("Server policy callback connection with client interrupted.");
            break;
        }
        // Read with the query-request reader: only "type" matters here.
        OemJsonUtils::QueryPolicy::Req req;
        if (OemJsonUtils::QueryPolicy::fromJson(text, req) != 0) {
            TALVOEM_LOGW("Server policy callback recv unknow request");
            continue;
        }
        if (req.type == protocol::kTypeDispose) {
            break;
        }
        TALVOEM_LOGW("Server policy callback recv unexpected type %d", req.type);
    }
    internalDispose();
}

void SocketOemPolicyCBServer::sendHandlerThread(SocketOemPolicyCBServer* self) {
    self->loopSend();
}

void SocketOemPolicyCBServer::loopSend() {
    for (;;) {
        // The lock is taken afresh for each message, so a dispose or a
        // reporter can get in between two sends.
        talvoem::ScopedLock lock(mutex_);
        while (pending_.empty() && running_) {
            wakeUp_.wait(lock.native());
        }
        if (!running_) {
            return;
        }
        // Sent under the lock: a dispose cannot slip its exit message in
        // between, and reporters wait for a send in progress.
        if (sendMsg(fd_, pending_.front()) != 0) {
            TALVOEM_LOGE("Server not able to send msg, error - %s", strerror(errno));
        }
        pending_.pop_front();
    }
}

void SocketOemPolicyCBServer::internalDispose() {
    talvoem::ScopedLock lock(mutex_);
    if (running_) {
        std::deque<std::string> discarded;
        discarded.swap(pending_);
        running_ = false;
        std::shared_ptr<std::thread> sendThread = sendThread_;
        lock.unlock();
        wakeUp_.notify_all();
        if (sendThread && sendThread->joinable()) {
            sendThread->join();
        }
        lock.lock();
    }
    if (fd_ < 0) {
        return;
    }
    OemJsonUtils::SetPolicyCallback::Callback exitMsg;
    exitMsg.cmd = protocol::kCmdExit;
    std::string text;
    OemJsonUtils::SetPolicyCallback::toJson(exitMsg, text);
    sendMsg(fd_, text);
    lock.unlock();
    resetSocketFd();
}

void SocketOemPolicyCBServer::resetSocketFd() {
    talvoem::ScopedLock lock(mutex_);
    if (fd_ >= 0) {
        fd_ = -1;
    }
}
