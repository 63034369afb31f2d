#include "Service.h"

#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "OemJsonUtils.h"
#include "Wire.h"

namespace talvoem::test {

void EventLog::add(const std::string& event) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(event);
}

std::vector<std::string> EventLog::events() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
}

void ForwardingCallback::onPolicyChanged(uint16_t type, std::string* data) {
    channel_->onPolicyChanged(type, data);
}

ForwardingCallback::~ForwardingCallback() {
    channel_->onPolicyChanged(0, nullptr);  // dropped: the channel has stopped
    if (log_ != nullptr) {
        log_->add("callback deleted");
    }
}

std::string echoAnswer(uint16_t type, const std::string& data) {
    std::string text;
    OemJsonUtils::toJson(OemJsonUtils::Resp{0, "success", std::to_string(type) + ":" + data}, text);
    return text;
}

int8_t TestService::queryPolicy(uint16_t type, const std::string& data, std::string* result) {
    served.fetch_add(1);
    if (echo) {
        *result = echoAnswer(type, data);
        return 0;
    }
    std::lock_guard<std::mutex> lock(mutex);
    lastType = type;
    lastData = data;
    *result = answer;
    return status;
}

int8_t TestService::setPolicyCallback(IOemPolicyCB* cb) {
    if (log_ != nullptr) {
        log_->add(cb != nullptr ? "set callback" : "set null");
    }
    if (cb != nullptr && refuseCallback) {
        return 1;
    }
    std::lock_guard<std::mutex> lock(callbackMutex_);
    callback_ = cb;
    callbackChanged_.notify_all();
    return 0;
}

bool TestService::report(uint16_t type, std::string data) {
    std::lock_guard<std::mutex> lock(callbackMutex_);
    if (callback_ != nullptr) {
        callback_->onPolicyChanged(type, &data);
    }
    return callback_ != nullptr;
}

bool TestService::waitForCallback(bool present) {
    std::unique_lock<std::mutex> lock(callbackMutex_);
    return callbackChanged_.wait_for(lock, std::chrono::seconds(10),
                                     [&] { return (callback_ != nullptr) == present; });
}

ServiceRunner::ServiceRunner(SocketOemQueryServer& server) : listenFd_(bindPath()) {
    setenv("ANDROID_SOCKET_talvoem", std::to_string(listenFd_).c_str(), 1);
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

int8_t ServiceRunner::stop() {
    if (!stopped_) {
        stopped_ = true;
        shutdown(listenFd_, SHUT_RDWR);
        thread_.join();
        unlink(kServicePath);
        unsetenv("ANDROID_SOCKET_talvoem");
    }
    return result_;
}

}  // namespace talvoem::test
