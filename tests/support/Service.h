#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "IOemPolicyCBFactory.h"
#include "SocketOemQueryServer.h"

// A service built on the library for the tests, the fuzz targets and the bench:
// a forwarding callback and its factory, a service whose answers the caller
// sets, and a runner that plays init for it.
namespace talvoem::test {

// An object that lives as long as the process, as a real service does:
// detached connection threads may still be taking a channel down when a test
// ends. Kept reachable, so the leak checker does not count it.
template <typename T, typename... Args>
T& immortal(Args&&... args) {
    static auto* kept = new std::vector<std::shared_ptr<void>>;
    static std::mutex keptMutex;
    auto object = std::make_shared<T>(std::forward<Args>(args)...);
    std::lock_guard<std::mutex> lock(keptMutex);
    kept->push_back(object);
    return *object;
}

// Ordered record of what the service side did.
class EventLog {
public:
    void add(const std::string& event);
    std::vector<std::string> events() const;

private:
    mutable std::mutex mutex_;
    std::vector<std::string> events_;
};

// The callback a service's factory makes: forwards each change to the channel
// it was built around. Its destructor touches the channel, so a channel
// deleted before its callback is a use-after-free under ASan.
class ForwardingCallback : public IOemPolicyCB {
public:
    ForwardingCallback(IOemPolicyCB* channel, EventLog* log) : channel_(channel), log_(log) {}
    ~ForwardingCallback() override;
    void onPolicyChanged(uint16_t type, std::string* data) override;

private:
    IOemPolicyCB* channel_;
    EventLog* log_;
};

class ForwardingFactory : public IOemPolicyCBFactory {
public:
    explicit ForwardingFactory(EventLog* log = nullptr) : log_(log) {}
    IOemPolicyCB* createCallback(IOemPolicyCB* channel) override {
        if (passThrough) {
            return channel;
        }
        return makeNothing ? nullptr : new ForwardingCallback(channel, log_);
    }
    std::atomic<bool> makeNothing{false};
    std::atomic<bool> passThrough{false};  // hands back the channel itself

private:
    EventLog* log_;
};

// The answer TestService gives in echo mode.
std::string echoAnswer(uint16_t type, const std::string& data);

// A service whose answer and status the test sets (or that echoes each
// query's type and data back); it keeps the live callback so the test can
// report changes through it.
class TestService : public SocketOemQueryServer {
public:
    explicit TestService(IOemPolicyCBFactory* factory, EventLog* log = nullptr)
        : SocketOemQueryServer(factory), log_(log) {}

    int8_t queryPolicy(uint16_t type, const std::string& data, std::string* result) override;
    int8_t setPolicyCallback(IOemPolicyCB* cb) override;
    // Reports a change through the live callback; false when there is none.
    bool report(uint16_t type, std::string data);
    bool waitForCallback(bool present);

    // Set between queries; queryPolicy reads them under `mutex`.
    std::mutex mutex;
    std::string answer = "{\"code\":0,\"data\":\"[]\",\"msg\":\"success\"}\n";
    uint16_t lastType = 0;
    std::string lastData;
    std::atomic<bool> echo{false};
    std::atomic<int8_t> status{0};
    std::atomic<bool> refuseCallback{false};
    std::atomic<int> served{0};

private:
    EventLog* log_;
    // Held by report() across the channel's onPolicyChanged, which may block
    // on a stalled client; queries never take it.
    std::mutex callbackMutex_;
    std::condition_variable callbackChanged_;
    IOemPolicyCB* callback_ = nullptr;
};

// Plays init for a service: binds the control socket, hands it over and runs
// init() on a thread of its own; returns once the socket listens. stop()
// shuts the listening socket down, so accept fails and init() returns -1.
// Connection threads already accepted go on: the server must outlive them.
class ServiceRunner {
public:
    explicit ServiceRunner(SocketOemQueryServer& server);
    ~ServiceRunner() { stop(); }
    ServiceRunner(const ServiceRunner&) = delete;
    ServiceRunner& operator=(const ServiceRunner&) = delete;

    // Idempotent; returns what init() returned.
    int8_t stop();
    int listenFd() const { return listenFd_; }

private:
    int listenFd_;
    int8_t result_ = 0;
    bool stopped_ = false;
    std::thread thread_;
};

}  // namespace talvoem::test
