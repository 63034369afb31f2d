#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "IOemPolicyCBFactory.h"
#include "SocketOemQueryServer.h"

namespace talvoem::test {

// Makes an object that lives as long as the process, as a real service does:
// detached connection threads may still be finishing a channel's take-down
// when a test ends, and the library offers no way to wait for them. Kept
// reachable so the leak checker does not count it.
template <typename T, typename... Args>
T& immortal(Args&&... args) {
    static auto* kept = new std::vector<std::shared_ptr<void>>;
    static std::mutex keptMutex;
    auto object = std::make_shared<T>(std::forward<Args>(args)...);
    std::lock_guard<std::mutex> lock(keptMutex);
    kept->push_back(object);
    return *object;
}

// Ordered record of what the service side did, shared by the test doubles.
class EventLog {
public:
    void add(const std::string& event) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(event);
    }
    std::vector<std::string> events() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> events_;
};

// The callback a service's factory makes: forwards each change to the channel
// it was built around. Its destructor touches the channel, so a channel deleted
// before its callback shows up as a use-after-free under ASan.
class ForwardingCallback : public IOemPolicyCB {
public:
    ForwardingCallback(IOemPolicyCB* channel, EventLog& log) : channel_(channel), log_(log) {}
    ~ForwardingCallback() override {
        channel_->onPolicyChanged(0, nullptr);  // dropped: the channel has stopped
        log_.add("callback deleted");
    }
    void onPolicyChanged(uint16_t type, std::string* data) override {
        channel_->onPolicyChanged(type, data);
    }

private:
    IOemPolicyCB* channel_;
    EventLog& log_;
};

class TestFactory : public IOemPolicyCBFactory {
public:
    explicit TestFactory(EventLog& log) : log_(log) {}
    IOemPolicyCB* createCallback(IOemPolicyCB* channel) override {
        return makeNothing ? nullptr : new ForwardingCallback(channel, log_);
    }
    bool makeNothing = false;

private:
    EventLog& log_;
};

// A service whose answers and callback status the test sets; it keeps the
// live callback so the test can report changes through it.
class TestService : public SocketOemQueryServer {
public:
    explicit TestService(IOemPolicyCBFactory* factory, EventLog* log = nullptr)
        : SocketOemQueryServer(factory), log_(log) {}

    int8_t queryPolicy(uint16_t type, const std::string& data, std::string* result) override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            lastType = type;
            lastData = data;
        }
        *result = answer;
        return status;
    }
    int8_t setPolicyCallback(IOemPolicyCB* cb) override {
        if (log_ != nullptr) {
            log_->add(cb != nullptr ? "set callback" : "set null");
        }
        if (refuseCallback) {
            return 1;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        callback = cb;
        changed_.notify_all();
        return 0;
    }
    // Reports a change through the live callback; false when there is none.
    bool report(uint16_t type, std::string data) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (callback == nullptr) {
            return false;
        }
        callback->onPolicyChanged(type, &data);
        return true;
    }
    bool waitForCallback(bool present) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10),
                                 [&] { return (callback != nullptr) == present; });
    }

    std::string answer = "{\"code\":0,\"data\":\"[]\",\"msg\":\"success\"}\n";
    std::atomic<int8_t> status{0};
    std::atomic<bool> refuseCallback{false};
    std::mutex mutex_;
    uint16_t lastType = 0;
    std::string lastData;

private:
    EventLog* log_;
    IOemPolicyCB* callback = nullptr;
    std::condition_variable changed_;
};

}  // namespace talvoem::test
