// talvoemd — the reference OEM Query Service.
//
//   talvoemd POLICY.json
//
// Serves the policy document in POLICY.json on the control socket "talvoem"
// (run it under init, or under talvoem-launcher on a host). Queries are
// answered from an immutable snapshot of the document. The file's folder is
// watched with inotify; when the file is written or renamed into place and
// still decodes, the snapshot is swapped and the live policy-callback channel
// is notified (type 1). A change that does not decode keeps the previous
// document. An answer longer than a client can receive is replaced by an
// envelope with code 3.
#include <android/log.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "OemJsonUtils.h"
#include "PolicySelection.h"
#include "SocketOemQueryServer.h"

namespace {

using Policy = std::vector<OemJsonUtils::QueryPolicy::Operate>;
constexpr const char* kTag = "talvoemd";
constexpr uint16_t kTypePolicyChanged = 1;
// The longest packet a client's recvMsg takes whole (SocketTransport.h).
constexpr size_t kReceiveLimit = 524288;
constexpr int32_t kCodeNoMatch = 1;
constexpr int32_t kCodeNotSelector = 2;
constexpr int32_t kCodeTooLong = 3;

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

std::string answerWith(const Policy& policy) {
    std::string document;
    OemJsonUtils::QueryPolicy::toJson(policy, document);
    return envelope(0, "success", document);
}

// A document can be loaded that no client could receive whole; the service
// still serves the parts a selector narrows it to.
void warnIfTooLong(const std::string& path, const Policy& policy) {
    const size_t length = answerWith(policy).size();
    if (length > kReceiveLimit) {
        __android_log_print(ANDROID_LOG_WARN, kTag,
                            "the whole policy in %s makes a %zu-byte answer, above the %zu bytes "
                            "a client can receive; a query for all of it gets code %d",
                            path.c_str(), length, kReceiveLimit, kCodeTooLong);
    }
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
            *result = envelope(kCodeNotSelector, "The query data is not a selector.");
            return 0;
        }
        Policy selected = selectPolicy(*policy, selector);
        if (selected.empty() && !data.empty()) {
            *result = envelope(kCodeNoMatch, "No policy matches the selector.");
            return 0;
        }
        *result = answerWith(selected);
        // Sent as it is, the answer would reach the client cut short: a
        // refusal it can read is better than a document it cannot.
        if (result->size() > kReceiveLimit) {
            __android_log_print(ANDROID_LOG_WARN, kTag,
                                "refused a %zu-byte answer, above the %zu-byte receive limit",
                                result->size(), kReceiveLimit);
            *result = envelope(kCodeTooLong,
                               "The answer exceeds the 524288 bytes a client can receive; "
                               "narrow the selector.");
        }
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

// Watches the folder that holds the policy file rather than the file itself:
// an editor writes a new file and renames it over the old one, and a watch on
// the old inode would never hear of the new one.
struct FolderWatch {
    int fd = -1;       // the inotify descriptor, owned for the life of the process
    std::string name;  // the policy file's name within the folder
};

// The watch, or fd -1 with errno set.
FolderWatch watchFolderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "."
                               : slash == 0               ? "/"
                                                          : path.substr(0, slash);
    FolderWatch watch;
    watch.name = slash == std::string::npos ? path : path.substr(slash + 1);
    watch.fd = inotify_init1(IN_CLOEXEC);
    if (watch.fd >= 0 &&
        inotify_add_watch(watch.fd, folder.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO) < 0) {
        const int err = errno;
        close(watch.fd);
        watch.fd = -1;
        errno = err;
    }
    return watch;
}

void reloadPolicy(const std::string& path, PolicyService& service) {
    auto policy = std::make_shared<Policy>();
    std::string error = loadPolicy(path, *policy);
    if (!error.empty()) {
        __android_log_print(ANDROID_LOG_WARN, kTag,
                            "policy file %s changed but %s; keeping the previous policy",
                            path.c_str(), error.c_str());
        return;
    }
    // Logged once swapped in, so whoever reads the line is served the new document.
    service.replacePolicy(policy);
    __android_log_print(ANDROID_LOG_INFO, kTag, "policy reloaded from %s", path.c_str());
    warnIfTooLong(path, *policy);
}

// Reloads once per batch of events that names the file. An overflowed event
// queue may have lost such an event, so it reloads too.
void followPolicy(FolderWatch watch, const std::string& path, PolicyService& service) {
    std::vector<char> buffer(64 * (sizeof(inotify_event) + NAME_MAX + 1));
    for (;;) {
        const ssize_t n = read(watch.fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "stopped watching %s: %s", path.c_str(),
                                n < 0 ? strerror(errno) : "end of events");
            return;
        }
        bool changed = false;
        bool folderGone = false;
        for (ssize_t at = 0; at < n;) {
            inotify_event event;
            memcpy(&event, buffer.data() + at, sizeof(event));
            const char* name = buffer.data() + at + sizeof(event);
            changed = changed || (event.mask & IN_Q_OVERFLOW) != 0 ||
                      (event.len > 0 && watch.name == name);
            folderGone = folderGone || (event.mask & IN_IGNORED) != 0;
            at += static_cast<ssize_t>(sizeof(event) + event.len);
        }
        if (changed) {
            reloadPolicy(path, service);
        }
        if (folderGone) {
            __android_log_print(ANDROID_LOG_ERROR, kTag,
                                "the folder of %s is gone; serving the current policy unwatched",
                                path.c_str());
            return;
        }
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
    // Watching starts before the first load, so an edit between the two is
    // not missed.
    FolderWatch watch = watchFolderOf(path);
    if (watch.fd < 0) {
        fprintf(stderr, "talvoemd: cannot watch the folder of %s: %s\n", path.c_str(),
                strerror(errno));
        return 1;
    }
    auto policy = std::make_shared<Policy>();
    std::string error = loadPolicy(path, *policy);
    if (!error.empty()) {
        fprintf(stderr, "talvoemd: cannot load %s: %s\n", path.c_str(), error.c_str());
        return 1;
    }
    warnIfTooLong(path, *policy);
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
    std::thread(followPolicy, watch, path, std::ref(service)).detach();
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
