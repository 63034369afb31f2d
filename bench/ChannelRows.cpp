#include "ChannelRows.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "FloorWire.h"
#include "IOemPolicyCB.h"
#include "SocketOemQueryClient.h"
#include "Stats.h"
#include "Workload.h"

namespace talvoem::bench {

namespace {

// The application's callback: notes when each delivery arrived. Deliveries
// run on threads of their own; `finished_` counts those that are done with
// the recorder, so once it reaches the expected count nothing touches it any
// more and it may go.
class Recorder : public IOemPolicyCB {
public:
    explicit Recorder(size_t expected) : arrivals_(expected), expected_(expected) {}

    void onPolicyChanged(uint16_t type, std::string*) override {
        if (type != kNotifyType) {
            return;
        }
        const uint64_t at = nowNs();
        const size_t i = arrived_.fetch_add(1);
        if (i < arrivals_.size()) {
            arrivals_[i] = at;
        }
        // Read before the count goes up: once it reaches the expected count
        // the recorder may be gone, so only the last delivery, the one that
        // says so, may touch it afterwards.
        const size_t expected = expected_;
        if (finished_.fetch_add(1) + 1 == expected) {
            std::lock_guard<std::mutex> lock(mutex_);
            done_ = true;
            allIn_.notify_all();
        }
    }

    bool waitAll(std::chrono::seconds limit) {
        std::unique_lock<std::mutex> lock(mutex_);
        return allIn_.wait_for(lock, limit, [this] { return done_; });
    }

    size_t delivered() const { return arrived_.load(); }
    std::vector<uint64_t>& arrivals() { return arrivals_; }

private:
    std::vector<uint64_t> arrivals_;
    const size_t expected_;
    std::atomic<size_t> arrived_{0};
    std::atomic<size_t> finished_{0};
    std::mutex mutex_;
    std::condition_variable allIn_;
    bool done_ = false;  // guarded by mutex_
};

class ChannelEnd {
public:
    virtual ~ChannelEnd() = default;
    virtual bool open(IOemPolicyCB* cb) = 0;
    virtual void close() = 0;
};

class LibraryEnd : public ChannelEnd {
public:
    bool open(IOemPolicyCB* cb) override { return client_.observePolicyCallback(cb) == 0; }
    void close() override { client_.disposePolicyCallback(); }

private:
    SocketOemQueryClient client_;
};

// The client end of the floor channel: one receive thread that parses each
// message and delivers it, on a detached thread of its own or, bare, inline.
class FloorEnd : public ChannelEnd {
public:
    explicit FloorEnd(bool bare) : bare_(bare) {}

    bool open(IOemPolicyCB* cb) override {
        fd_ = floor::connectTo(kFloorSocketPath);
        if (fd_ < 0 || !sendRequest(1)) {
            return false;
        }
        floor::Receiver receiver;
        long n = receiver.receive(fd_);
        Json::Value reply;
        if (n < 1 || !floor::parse(receiver.text(), receiver.text() + n, reply) ||
            !reply.isObject() || reply["code"].asInt() != 0) {
            return false;
        }
        thread_ = std::thread([this, cb] { loopRecv(cb); });
        return true;
    }

    void close() override {
        sendRequest(2);
        thread_.join();
    }

    ~FloorEnd() override {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

private:
    bool sendRequest(int type) {
        Json::Value request;
        request["api"] = "setPolicyCallback";
        request["type"] = type;
        return floor::sendText(fd_, floor::write(request));
    }

    void loopRecv(IOemPolicyCB* cb) {
        floor::Receiver receiver;
        for (;;) {
            long n = receiver.receive(fd_);
            Json::Value message;
            if (n < 1) {
                return;
            }
            if (!floor::parse(receiver.text(), receiver.text() + n, message) ||
                !message.isObject()) {
                continue;
            }
            const int cmd = message["cmd"].asInt();
            if (cmd == 2) {
                return;
            }
            const uint16_t type = static_cast<uint16_t>(message["type"].asInt());
            if (cmd != 1) {
                continue;
            }
            if (bare_) {
                cb->onPolicyChanged(type, nullptr);
            } else {
                std::thread([cb, type] { cb->onPolicyChanged(type, nullptr); }).detach();
            }
        }
    }

    const bool bare_;
    int fd_ = -1;
    std::thread thread_;
};

std::unique_ptr<ChannelEnd> makeEnd(ChannelKind kind) {
    if (kind == ChannelKind::kLibrary) {
        return std::make_unique<LibraryEnd>();
    }
    return std::make_unique<FloorEnd>(kind == ChannelKind::kBare);
}

NotifyFigures summarise(Recorder& recorder, const StampBoard& board, size_t count) {
    NotifyFigures figures;
    figures.expected = count;
    figures.delivered = std::min(recorder.delivered(), count);
    std::vector<uint64_t> latencies;
    uint64_t last = 0;
    for (size_t i = 0; i < figures.delivered; ++i) {
        const uint64_t at = recorder.arrivals()[i];
        last = std::max(last, at);
        latencies.push_back(at > board.reportedNs[i] ? at - board.reportedNs[i] : 0);
    }
    figures.p50Us = quantileUs(latencies, 0.50);
    figures.p99Us = quantileUs(latencies, 0.99);
    if (figures.delivered > 0 && last > board.reportedNs[0]) {
        figures.msgsPerSec = static_cast<double>(figures.delivered) * 1e9 /
                             static_cast<double>(last - board.reportedNs[0]);
    }
    return figures;
}

}  // namespace

NotifyFigures runNotifications(ChannelKind kind, ServiceProcess& service, const StampBoard& board,
                               size_t count, unsigned intervalUs) {
    auto recorder = std::make_unique<Recorder>(count);
    std::unique_ptr<ChannelEnd> end = makeEnd(kind);
    NotifyFigures figures;
    figures.expected = count;
    if (!end->open(recorder.get())) {
        return figures;
    }
    const char* mode = kind == ChannelKind::kBare ? "bare" : "queue";
    const bool pushed = service.command("push " + std::to_string(count) + " " +
                                        std::to_string(intervalUs) + " " + mode) == "ok";
    const auto limit = std::chrono::seconds(60 + count * intervalUs / 1000000);
    const bool complete = pushed && recorder->waitAll(limit);
    end->close();
    figures = summarise(*recorder, board, count);
    if (!complete) {
        // Deliveries may still be on their way to it: it stays for good.
        recorder.release();
    }
    return figures;
}

CycleFigures runChannelCycles(size_t cycles) {
    Recorder idle(0);
    SocketOemQueryClient client;
    std::vector<uint64_t> setup;
    std::vector<uint64_t> teardown;
    CycleFigures figures;
    for (size_t i = 0; i < cycles; ++i) {
        const uint64_t t0 = nowNs();
        if (client.observePolicyCallback(&idle) != 0) {
            ++figures.failures;
            continue;
        }
        const uint64_t t1 = nowNs();
        client.disposePolicyCallback();
        setup.push_back(t1 - t0);
        teardown.push_back(nowNs() - t1);
    }
    figures.setupP50Us = quantileUs(setup, 0.50);
    figures.setupP99Us = quantileUs(setup, 0.99);
    figures.teardownP50Us = quantileUs(teardown, 0.50);
    figures.teardownP99Us = quantileUs(teardown, 0.99);
    return figures;
}

}  // namespace talvoem::bench
