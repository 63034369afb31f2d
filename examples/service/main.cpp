// A minimal service: it answers queries from a policy document built with the
// codec, and tells the watching application each time the document changes
// (here: night_mode flips every half second, as if someone edited the policy).
//
// The control socket comes from init (or talvoem-launcher, which plays init):
//   talvoem-launcher --namespace -- example-service
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "IOemPolicyCBFactory.h"
#include "OemJsonUtils.h"
#include "SocketOemQueryServer.h"
#include "TalvoemConnection.h"

using namespace OemJsonUtils::QueryPolicy;

namespace {

// The notification type this service uses for "the policy changed".
constexpr uint16_t kPolicyChanged = 7;

// When a watcher opens a channel, the library hands the factory that channel
// (whose onPolicyChanged sends a notification to the application) and gives
// whatever the factory returns to the service's setPolicyCallback. The library
// owns the object returned and deletes it when the channel ends. This one
// just forwards; a real service could filter or translate here.
class Forwarder : public IOemPolicyCB {
public:
    explicit Forwarder(IOemPolicyCB* channel) : channel_(channel) {}
    void onPolicyChanged(uint16_t type, std::string* data) override {
        channel_->onPolicyChanged(type, data);
    }

private:
    IOemPolicyCB* channel_;
};

class ForwarderFactory : public IOemPolicyCBFactory {
public:
    IOemPolicyCB* createCallback(IOemPolicyCB* channel) override { return new Forwarder(channel); }
};

class ExampleService : public SocketOemQueryServer {
public:
    explicit ExampleService(IOemPolicyCBFactory* factory) : SocketOemQueryServer(factory) {}

    // Runs on a connection thread, many at once: everything shared is read
    // under mutex_. `data` is the application's selector (empty: everything).
    // Whatever is written to `result` is the whole answer, envelope included.
    int8_t queryPolicy(uint16_t /*type*/, const std::string& data, std::string* result) override {
        Data selector;
        if (!data.empty() && fromJson(data, selector) != 0) {
            // Non-zero with nothing written: the library answers for us with
            // {"code":-1,"msg":"failed"}.
            return 1;
        }
        OemJsonUtils::Resp answer{0, "success", select(selector.op_name)};
        if (answer.data.empty()) {
            answer = {1, "no such operation", ""};
        }
        OemJsonUtils::toJson(answer, *result);
        // An answer longer than this connection can carry would not be sent
        // at all; say so in a short envelope instead.
        if (result->size() > talvoem::currentSendLimit()) {
            OemJsonUtils::toJson(OemJsonUtils::Resp{2, "answer too large", ""}, *result);
        }
        return 0;
    }

    // Runs on the channel's connection thread: with the factory's callback
    // when a watcher's channel opens, with nullptr when it ends (after that
    // the library deletes the callback). Returning non-zero refuses the
    // channel. The library serves one channel at a time.
    int8_t setPolicyCallback(IOemPolicyCB* cb) override {
        std::lock_guard<std::mutex> lock(mutex_);
        watcher_ = cb;
        return 0;
    }

    // Changes the document and reports it. The report is made under mutex_,
    // so setPolicyCallback(nullptr) waits for it and the callback is never
    // used after the library has deleted it. onPolicyChanged only queues.
    bool flipNightMode() {
        std::lock_guard<std::mutex> lock(mutex_);
        Function& nightMode = document_[0].subsyss[0].funcs[1];
        nightMode.enable = !nightMode.enable;
        if (watcher_ != nullptr) {
            std::string what = "camera/capture/night_mode";
            watcher_->onPolicyChanged(kPolicyChanged, &what);
        }
        return nightMode.enable;
    }

private:
    // The document as text: all of it, or the one operation named.
    std::string select(const std::string& opName) {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<Operate> chosen;
        for (const Operate& op : document_) {
            if (opName.empty() || op.name == opName) {
                chosen.push_back(op);
            }
        }
        std::string text;
        if (!chosen.empty()) {
            toJson(chosen, text);
        }
        return text;
    }

    std::mutex mutex_;  // guards document_ and watcher_
    std::vector<Operate> document_ = {
        {"camera", {{"capture", {{"hdr", true}, {"night_mode", false}}}}},
        {"network", {{"wifi", {{"hotspot", true}}}}},
    };
    IOemPolicyCB* watcher_ = nullptr;
};

}  // namespace

int main() {
    // Connection threads are detached and never joined, so the service and
    // its factory live as long as the process.
    auto* service = new ExampleService(new ForwarderFactory);
    std::thread([service] {
        for (;;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
            printf("night_mode is now %s\n", service->flipNightMode() ? "on" : "off");
            fflush(stdout);
        }
    }).detach();
    // Accepts connections until the socket fails; each runs on its own thread.
    service->init();
    fprintf(stderr,
            "example-service: no control socket /dev/socket/talvoem "
            "(start it under talvoem-launcher, or from init)\n");
    return 1;
}
