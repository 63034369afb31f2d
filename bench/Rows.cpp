// The library's side of every row, and the timing shared with the floors.
#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "Bench.h"
#include "OemJsonUtils.h"
#include "SocketOemQueryClient.h"
#include "SocketTransport.h"
#include "TalvoemPolicyQuery.h"

namespace talvoem::bench {

namespace {

// Three operations of three subsystems of two functions each: about 1 KiB
// of JSON, the size of a typical device policy.
std::string buildDocument() {
    std::vector<OemJsonUtils::QueryPolicy::Operate> ops;
    for (const char* opName : {"camera", "location", "network"}) {
        OemJsonUtils::QueryPolicy::Operate op;
        op.name = opName;
        for (const char* subsysName : {"framework", "vendor", "telephony"}) {
            OemJsonUtils::QueryPolicy::Subsystem subsys;
            subsys.name = subsysName;
            subsys.funcs = {{"background_access", true}, {"foreground_only", false}};
            op.subsyss.push_back(subsys);
        }
        ops.push_back(op);
    }
    std::string text;
    OemJsonUtils::QueryPolicy::toJson(ops, text);
    return text;
}

// Adds the median and the 99th percentile of nanosecond `values`, in
// microseconds by nearest rank, as `key`.p50 and .p99 (0 when empty).
void addQuantiles(Samples& samples, const std::string& key, std::vector<int64_t>& values) {
    std::sort(values.begin(), values.end());
    for (const auto& [q, name] : {std::pair{0.50, ".p50"}, {0.99, ".p99"}}) {
        const auto rank = static_cast<size_t>(std::ceil(q * static_cast<double>(values.size())));
        samples[key + name].push_back(
            values.empty() ? 0 : static_cast<double>(values[std::max<size_t>(rank, 1) - 1]) / 1000);
    }
}

// The application's callback: notes when each delivery of kNotifyType
// arrived. Deliveries may run on threads of their own; `finished_` counts
// those done with the recorder, so once it reaches the expected count
// nothing touches the recorder any more and it may go.
class Recorder : public IOemPolicyCB {
public:
    explicit Recorder(size_t expected) : arrivals_(expected), expected_(expected) {}

    void onPolicyChanged(uint16_t type, std::string*) override {
        if (type != kNotifyType) {
            return;
        }
        const int64_t at = nowNs();
        const size_t i = arrived_.fetch_add(1);
        if (i < arrivals_.size()) {
            arrivals_[i] = at;
        }
        // Read before the count goes up: only the delivery that completes
        // it may touch the recorder afterwards.
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

    size_t delivered() const { return std::min(arrived_.load(), expected_); }
    const std::vector<int64_t>& arrivals() const { return arrivals_; }

private:
    std::vector<int64_t> arrivals_;
    const size_t expected_;
    std::atomic<size_t> arrived_{0};
    std::atomic<size_t> finished_{0};
    std::mutex mutex_;
    std::condition_variable allIn_;
    bool done_ = false;  // guarded by mutex_
};

class LibraryEnd : public ChannelEnd {
public:
    bool open(IOemPolicyCB* cb) override { return client_.observePolicyCallback(cb) == 0; }
    void close() override { client_.disposePolicyCallback(); }

private:
    SocketOemQueryClient client_;
};

}  // namespace

const std::string& policyDocumentText() {
    static const std::string text = buildDocument();
    return text;
}

const std::string& queryAnswerText() {
    static const std::string text = [] {
        std::string envelope;
        OemJsonUtils::toJson(OemJsonUtils::Resp{0, "success", policyDocumentText()}, envelope);
        return envelope;
    }();
    return text;
}

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool libraryQuery() {
    const int fd = establishConnection();
    if (fd < 0) {
        return false;
    }
    OemJsonUtils::QueryPolicy::Req req;
    req.api = "queryPolicy";
    req.type = kQueryType;
    std::string request;
    std::string answer;
    OemJsonUtils::Resp resp;
    const bool ok = OemJsonUtils::QueryPolicy::toJson(req, request) == 0 &&
                    sendMsg(fd, request) == 0 && recvMsg(fd, answer) > 0 &&
                    OemJsonUtils::fromJson(answer, resp) == 0 && resp.code == 0 &&
                    !resp.data.empty();
    closeConnection(fd);
    return ok;
}

bool queryServiceCall() {
    const QueryAnswer answer = queryService(kQueryType, "");
    return answer.result == QueryResult::kAnswered && answer.envelope.code == 0 &&
           !answer.envelope.data.empty();
}

size_t runQueries(Samples& samples, const std::string& key, const std::function<bool()>& op,
                  int clients, double seconds, size_t maxOps) {
    const int64_t start = nowNs();
    const int64_t deadline = start + static_cast<int64_t>(seconds * 1e9);
    const size_t perClient = std::max<size_t>(1, maxOps / static_cast<size_t>(clients));
    std::vector<std::vector<int64_t>> latencies(static_cast<size_t>(clients));
    std::vector<size_t> failures(static_cast<size_t>(clients), 0);
    std::vector<std::thread> threads;
    for (size_t c = 0; c < latencies.size(); ++c) {
        threads.emplace_back([&, c] {
            latencies[c].reserve(perClient);
            while (latencies[c].size() < perClient && nowNs() < deadline) {
                const int64_t t0 = nowNs();
                failures[c] += op() ? 0 : 1;
                latencies[c].push_back(nowNs() - t0);
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    const double elapsed = static_cast<double>(nowNs() - start) / 1e9;
    std::vector<int64_t> all;
    size_t failed = 0;
    for (size_t c = 0; c < latencies.size(); ++c) {
        all.insert(all.end(), latencies[c].begin(), latencies[c].end());
        failed += failures[c];
    }
    samples[key + ".ops"].push_back(static_cast<double>(all.size()) / elapsed);
    addQuantiles(samples, key, all);
    return failed;
}

bool runNotifications(Samples& samples, const std::string& key, Channel kind,
                      test::TestService& library, size_t count, unsigned intervalUs) {
    auto recorder = std::make_unique<Recorder>(count);
    std::unique_ptr<ChannelEnd> end = kind == Channel::kLibrary
                                          ? std::make_unique<LibraryEnd>()
                                          : floor::makeChannelEnd(kind == Channel::kBare);
    std::vector<int64_t> reported(count);
    bool live = end->open(recorder.get());
    const int64_t start = nowNs();
    for (size_t i = 0; i < count && live; ++i) {
        const int64_t due = start + static_cast<int64_t>(i * intervalUs) * 1000;
        if (intervalUs > 0 && due > nowNs()) {
            std::this_thread::sleep_for(std::chrono::nanoseconds(due - nowNs()));
        }
        reported[i] = nowNs();
        live = kind == Channel::kLibrary ? library.report(kNotifyType, policyDocumentText())
                                         : floor::report(kind == Channel::kBare);
    }
    const auto limit = std::chrono::seconds(60 + count * intervalUs / 1000000);
    const bool complete = live && recorder->waitAll(limit);
    end->close();
    const size_t delivered = recorder->delivered();
    std::vector<int64_t> latencies;
    int64_t last = 0;
    for (size_t i = 0; i < delivered; ++i) {
        last = std::max(last, recorder->arrivals()[i]);
        latencies.push_back(std::max<int64_t>(recorder->arrivals()[i] - reported[i], 0));
    }
    addQuantiles(samples, key, latencies);
    samples[key + ".rate"].push_back(delivered > 0 && last > reported[0]
                                         ? static_cast<double>(delivered) * 1e9 /
                                               static_cast<double>(last - reported[0])
                                         : 0);
    samples[key + ".delivered"].push_back(static_cast<double>(delivered));
    if (!complete) {
        // Deliveries may still be on their way to it: it stays for good.
        test::immortal<std::unique_ptr<Recorder>>(std::move(recorder));
    }
    return live;
}

size_t runChannelCycles(Samples& samples, const std::string& key, size_t cycles) {
    Recorder idle(0);
    SocketOemQueryClient client;
    std::vector<int64_t> setup;
    std::vector<int64_t> teardown;
    size_t failed = 0;
    for (size_t i = 0; i < cycles; ++i) {
        const int64_t t0 = nowNs();
        if (client.observePolicyCallback(&idle) != 0) {
            ++failed;
            continue;
        }
        const int64_t t1 = nowNs();
        client.disposePolicyCallback();
        setup.push_back(t1 - t0);
        teardown.push_back(nowNs() - t1);
    }
    addQuantiles(samples, key + ".setup", setup);
    addQuantiles(samples, key + ".teardown", teardown);
    return failed;
}

}  // namespace talvoem::bench
