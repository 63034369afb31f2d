#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>

#include "IOemPolicyCB.h"
#include "OemJsonUtils.h"
#include "TestService.h"
#include "Wire.h"

namespace talvoem::test {

const std::string kRegister = "{\"api\":\"setPolicyCallback\",\"type\":1}\n";
const std::string kDispose = "{\"api\":\"setPolicyCallback\",\"type\":2}\n";
const std::string kSuccess = "{\"code\":0,\"msg\":\"success\"}\n";
const std::string kExit = "{\"cmd\":2}\n";
constexpr uint16_t kConnectionLost = 100;

// Load figures are the full ones in a plain build. Sanitizer builds run them
// divided (ThreadSanitizer is about ten times slower and tracks every thread
// the service starts, one per connection); TALVOEM_LOAD_DIVISOR overrides.
inline int scaled(int count) {
#if defined(__SANITIZE_THREAD__)
    int divisor = 10;
#elif defined(__SANITIZE_ADDRESS__)
    int divisor = 2;
#else
    int divisor = 1;
#endif
    if (const char* env = getenv("TALVOEM_LOAD_DIVISOR")) {
        divisor = atoi(env) > 0 ? atoi(env) : 1;
    }
    return count / divisor > 0 ? count / divisor : 1;
}

inline std::string queryText(uint16_t type, const std::string& data) {
    OemJsonUtils::QueryPolicy::Req req;
    req.api = "queryPolicy";
    req.type = type;
    req.data = data;
    std::string text;
    OemJsonUtils::QueryPolicy::toJson(req, text);
    return text;
}

// The answer EchoService gives to (type, data). Long data is answered with
// its length, so the answer fits the service socket's default send buffer.
inline std::string echoAnswer(uint16_t type, const std::string& data) {
    OemJsonUtils::Resp resp;
    resp.msg = "success";
    resp.data = std::to_string(type) + ":" +
                (data.size() > 4096 ? std::to_string(data.size()) + " bytes" : data);
    std::string text;
    OemJsonUtils::toJson(resp, text);
    return text;
}

// Answers every query with its own type and data, so a client can tell its
// answer from anyone else's; counts the queries it served. It takes no lock:
// report() holds the service's lock while a stalled channel may block it.
class EchoService : public TestService {
public:
    using TestService::TestService;
    int8_t queryPolicy(uint16_t type, const std::string& data, std::string* result) override {
        *result = echoAnswer(type, data);
        served.fetch_add(1);
        return 0;
    }
    std::atomic<int> served{0};
};

// The application's callback: counts deliveries by type.
class CountingCallback : public IOemPolicyCB {
public:
    void onPolicyChanged(uint16_t type, std::string*) override {
        std::lock_guard<std::mutex> lock(mutex_);
        ++byType_[type];
        ++total_;
        changed_.notify_all();
    }
    bool waitForTotal(int n, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return total_ >= n; });
    }
    int total() {
        std::lock_guard<std::mutex> lock(mutex_);
        return total_;
    }
    int count(uint16_t type) {
        std::lock_guard<std::mutex> lock(mutex_);
        return byType_[type];
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<uint16_t, int> byType_;
    int total_ = 0;
};

// Opens a raw channel; -1 unless the service answered with success.
inline int registerRaw() {
    int fd = connectRaw();
    if (fd < 0) {
        return -1;
    }
    if (!sendRaw(fd, kRegister) || recvRaw(fd).bytes != kSuccess) {
        close(fd);
        return -1;
    }
    return fd;
}

// The process's threads and descriptors at one moment; back() waits until
// both have returned to it.
struct Baseline {
    int threads = threadCount();
    int fds = openFdCount();
    bool back(std::chrono::milliseconds timeout = std::chrono::seconds(5)) const {
        return waitUntil([&] { return threadCount() <= threads && openFdCount() <= fds; }, timeout);
    }
};

}  // namespace talvoem::test
