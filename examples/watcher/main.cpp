// A minimal watcher: opens a policy-callback channel, prints each change the
// service reports, and disposes of the channel after N of them.
//   example-watcher [N]      (default 3)
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "SocketOemQueryClient.h"
#include "TalvoemProtocol.h"

namespace {

// Each change arrives on a thread of the library's own, one per delivery,
// with its type only (data is null). If the service goes away, one last
// delivery comes with type 100.
class Printer : public IOemPolicyCB {
public:
    void onPolicyChanged(uint16_t type, std::string* /*data*/) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (type == talvoem::protocol::kTypeConnectionLost) {
            printf("the service went away\n");
            lost_ = true;
        } else {
            printf("policy changed (type %u)\n", type);
            ++changes_;
        }
        fflush(stdout);
        changed_.notify_all();
    }

    // True once `n` changes came; false when the service went away or
    // nothing came for ten seconds.
    bool waitFor(int n) {
        std::unique_lock<std::mutex> lock(mutex_);
        while (changes_ < n && !lost_) {
            if (changed_.wait_for(lock, std::chrono::seconds(10)) == std::cv_status::timeout) {
                return false;
            }
        }
        return !lost_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int changes_ = 0;
    bool lost_ = false;
};

}  // namespace

int main(int argc, char** argv) {
    const int wanted = argc > 1 ? atoi(argv[1]) : 3;
    // Deliveries run on detached threads that may still be finishing after
    // the channel is disposed of: the callback lives as long as the process.
    auto* printer = new Printer;
    SocketOemQueryClient client;
    // 0 when the service registered us; 1 when no service was found (after
    // retrying for about 600 ms); -1 from the service when it already serves
    // a watcher (one at a time).
    const int result = client.observePolicyCallback(printer);
    if (result != 0) {
        fprintf(stderr, "example-watcher: could not open a channel (%d)\n", result);
        return 1;
    }
    printf("watching for %d changes\n", wanted);
    fflush(stdout);
    const bool ok = printer->waitFor(wanted);
    // Ends the channel (the service's setPolicyCallback gets nullptr) and
    // waits for the channel's receive thread. Always before the client goes.
    client.disposePolicyCallback();
    return ok ? 0 : 1;
}
