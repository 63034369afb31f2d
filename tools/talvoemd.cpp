// talvoemd — the reference OEM Query Service.
//
//   talvoemd POLICY.json
//
// Serves the policy document in POLICY.json on the control socket "talvoem"
// (run it under init, or under talvoem-launcher on a host). Queries are
// answered from an immutable snapshot of the document; when the file changes
// and still decodes, the snapshot is swapped and the live policy-callback
// channel is notified (type 1). A change that does not decode keeps the
// previous document.
#include <android/log.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

#include "OemJsonUtils.h"
#include "PolicySelection.h"
#include "SocketOemQueryServer.h"

namespace {

using Policy = std::vector<OemJsonUtils::QueryPolicy::Operate>;
constexpr const char* kTag = "talvoemd";
constexpr uint16_t kTypePolicyChanged = 1;

// Reads and decodes a policy file; an empty string on success, else why not.
std::string loadPolicy(const std::string& path, Policy& policy) {
    std::ifstream file(path);
    if (!file) {
        return "cannot open the file";
    }
    std::stringstream text;
    text << file.rdbuf();
    if (OemJsonUtils::QueryPolicy::fromJson(text.str(), policy) != 0) {
        return "not a policy document";
    }
    return "";
}

std::string envelope(int32_t code, const std::string& msg, const std::string& data = "") {
    OemJsonUtils::Resp resp{code, msg, data};
    std::string text;
    OemJsonUtils::toJson(resp, text);
    return text;
}

// Forwards the service's change reports to the channel it was made for.
class ChannelCallback : public IOemPolicyCB {
public:
    explicit ChannelCallback(IOemPolicyCB* channel) : channel_(channel) {}
    void onPolicyChanged(uint16_t type, std::string* data) override {
        channel_->onPolicyChanged(type, data);
    }

private:
    IOemPolicyCB* channel_;
};

class ChannelFactory : public IOemPolicyCBFactory {
public:
    IOemPolicyCB* createCallback(IOemPolicyCB* channel) override {
        return new ChannelCallback(channel);
    }
};

// Threads: queries arrive on many connection threads and read the snapshot
// without a lock (atomic shared_ptr); the watcher swaps it. callbackMutex_
// guards the live channel's callback, so it is never used after the server
// withdraws it.
class PolicyService : public SocketOemQueryServer {
public:
    PolicyService(IOemPolicyCBFactory* factory, std::shared_ptr<const Policy> policy)
        : SocketOemQueryServer(factory), policy_(std::move(policy)) {}

    int8_t queryPolicy(uint16_t, const std::string& data, std::string* result) override {
        std::shared_ptr<const Policy> policy = std::atomic_load(&policy_);
        OemJsonUtils::QueryPolicy::Data selector;
        if (!data.empty() && OemJsonUtils::QueryPolicy::fromJson(data, selector) != 0) {
            *result = envelope(2, "The query data is not a selector.");
            return 0;
        }
        Policy selected = selectPolicy(*policy, selector);
        if (selected.empty() && !data.empty()) {
            *result = envelope(1, "No policy matches the selector.");
            return 0;
        }
        std::string document;
        OemJsonUtils::QueryPolicy::toJson(selected, document);
        *result = envelope(0, "success", document);
        return 0;
    }

    int8_t setPolicyCallback(IOemPolicyCB* cb) override {
        std::lock_guard<std::mutex> lock(callbackMutex_);
        callback_ = cb;
        return 0;
    }

    void replacePolicy(std::shared_ptr<const Policy> policy) {
        std::atomic_store(&policy_, std::move(policy));
        std::lock_guard<std::mutex> lock(callbackMutex_);
        if (callback_ != nullptr) {
            callback_->onPolicyChanged(kTypePolicyChanged, nullptr);
        }
    }

private:
    std::shared_ptr<const Policy> policy_;
    std::mutex callbackMutex_;
    IOemPolicyCB* callback_ = nullptr;
};

struct FileStamp {
    ino_t inode = 0;
    off_t size = -1;
    struct timespec mtime = {};
    bool operator!=(const FileStamp& o) const {
        return inode != o.inode || size != o.size || mtime.tv_sec != o.mtime.tv_sec ||
               mtime.tv_nsec != o.mtime.tv_nsec;
    }
};

FileStamp stampOf(const std::string& path) {
    struct stat st = {};
    FileStamp stamp;
    if (stat(path.c_str(), &st) == 0) {
        stamp = {st.st_ino, st.st_size, st.st_mtim};
    }
    return stamp;
}

// Polls the file (editors replace it, so the inode counts too) and reloads it.
void watchPolicy(const std::string& path, PolicyService& service) {
    FileStamp seen = stampOf(path);
    for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        FileStamp now = stampOf(path);
        if (!(now != seen)) {
            continue;
        }
        seen = now;
        auto policy = std::make_shared<Policy>();
        std::string error = loadPolicy(path, *policy);
        if (!error.empty()) {
            __android_log_print(ANDROID_LOG_WARN, kTag,
                                "policy file %s changed but %s; keeping the previous policy",
                                path.c_str(), error.c_str());
            continue;
        }
        __android_log_print(ANDROID_LOG_INFO, kTag, "policy reloaded from %s", path.c_str());
        service.replacePolicy(std::move(policy));
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 || std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h") {
        bool help = argc == 2;
        fprintf(help ? stdout : stderr,
                "usage: talvoemd POLICY.json\n"
                "Serves the policy document in POLICY.json on /dev/socket/talvoem (control\n"
                "socket \"talvoem\", handed over by init or talvoem-launcher) and notifies\n"
                "policy-callback channels when the file changes.\n");
        return help ? 0 : 2;
    }
    const std::string path = argv[1];
    auto policy = std::make_shared<Policy>();
    std::string error = loadPolicy(path, *policy);
    if (!error.empty()) {
        fprintf(stderr, "talvoemd: cannot load %s: %s\n", path.c_str(), error.c_str());
        return 1;
    }
    // SIGPIPE ignored: a client that goes away must not take the service down.
    // SIGINT/SIGTERM are blocked here, so every thread inherits the mask and
    // only the main thread takes them, in sigwait.
    signal(SIGPIPE, SIG_IGN);
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    static ChannelFactory factory;
    static PolicyService service(&factory, policy);
    static std::atomic<bool> listenerFailed{false};
    std::thread([] {
        int8_t status = service.init();
        __android_log_print(ANDROID_LOG_ERROR, kTag, "listener ended (%d)", status);
        listenerFailed = true;
        kill(getpid(), SIGTERM);
    }).detach();
    std::thread(watchPolicy, path, std::ref(service)).detach();
    __android_log_print(ANDROID_LOG_INFO, kTag, "serving %zu operations from %s", policy->size(),
                        path.c_str());

    int signal = 0;
    sigwait(&stop, &signal);
    __android_log_print(ANDROID_LOG_INFO, kTag, "stopping on signal %d", signal);
    // Connection threads are detached and use the service until they end, so
    // the process ends here rather than destroying the service under them.
    fflush(nullptr);
    _exit(listenerFailed ? 1 : 0);
}
