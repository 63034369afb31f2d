#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "IOemPolicyCB.h"
#include "ServiceHarness.h"
#include "Wire.h"

namespace talvoem::test {

// The application's callback: records each delivery with its thread.
class RecordingCallback : public IOemPolicyCB {
public:
    struct Delivery {
        uint16_t type;
        bool dataWasNull;
        std::thread::id thread;
    };
    void onPolicyChanged(uint16_t type, std::string* data) override {
        std::lock_guard<std::mutex> lock(mutex_);
        deliveries_.push_back({type, data == nullptr, std::this_thread::get_id()});
        changed_.notify_all();
    }
    bool waitForCount(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return deliveries_.size() >= n; });
    }
    std::vector<Delivery> deliveries() {
        std::lock_guard<std::mutex> lock(mutex_);
        return deliveries_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Delivery> deliveries_;
};

// A hand-written service at /dev/socket/talvoem that accepts one connection
// and runs `script` on it, for replies the library's service never gives.
class FakeService {
public:
    explicit FakeService(std::function<void(int fd)> script) : listener_(bindControlSocket()) {
        listen(listener_, 4);
        thread_ = std::thread([this, script] {
            int fd = accept(listener_, nullptr, nullptr);
            if (fd >= 0) {
                script(fd);
                close(fd);
            }
        });
    }
    ~FakeService() {
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
        unlink("/dev/socket/talvoem");
    }

private:
    int listener_;
    std::thread thread_;
};

// Reads until the peer closes; true when it did within the timeout.
inline bool peerCloses(int fd) {
    for (;;) {
        Packet p = recvRaw(fd);
        if (p.status != Packet::kData) {
            return p.status == Packet::kClosed;
        }
    }
}

}  // namespace talvoem::test
