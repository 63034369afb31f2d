// talvoemd — the reference OEM Query Service.
//
//   talvoemd [--query-uid LIST] [--watch-uid LIST] [--max-connections-per-uid N] POLICY.json
//
// Serves the policy document in POLICY.json on the control socket "talvoem"
// (run it under init, or under talvoem-launcher on a host). Queries are
// answered from an immutable snapshot of the document. The file's folder is
// watched with inotify; when the file is written or renamed into place, still
// reads (PolicyFile.h) and decodes to a different document, the snapshot is
// swapped and the live policy-callback channel is told (type 1) by a reporter
// thread of its own. A change that does not read keeps the previous document,
// and so does a file deleted or renamed away. An answer longer than the
// connection can carry is replaced by an envelope with code 3. Callers are
// told apart by uid (CallerAccess.h): queries and the channel are served to
// the uids the command line lists, and the library's admission rule caps the
// connections one uid holds open.
#include <android/log.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "CallerAccess.h"
#include "CallerProtocol.h"
#include "OemJsonUtils.h"
#include "PolicyFile.h"
#include "PolicySelection.h"
#include "SocketOemQueryServer.h"
#include "TalvoemAdmission.h"
#include "TalvoemConnection.h"
#include "TalvoemProtocol.h"
#include "Version.h"

namespace {

using talvoem::protocol::kReceiveLimit;
constexpr const char* kTag = "talvoemd";
// The type of talvoemd's one notification, and its own answer codes.
constexpr uint16_t kTypePolicyChanged = 1;
constexpr int32_t kCodeNoMatch = 1;
constexpr int32_t kCodeNotSelector = 2;
constexpr int32_t kCodeTooLong = 3;

std::string envelope(int32_t code, const std::string& msg, const std::string& data = "") {
    OemJsonUtils::Resp resp{code, msg, data};
    std::string text;
    OemJsonUtils::toJson(resp, text);
    return text;
}

std::string encode(const Policy& policy) {
    std::string document;
    OemJsonUtils::QueryPolicy::toJson(policy, document);
    return document;
}

// What queries are answered from: a document and its text, never changed
// once shared.
struct Snapshot {
    explicit Snapshot(Policy read) : policy(std::move(read)), document(encode(policy)) {}
    const Policy policy;
    const std::string document;
};

// A document can be loaded that no client could receive whole; the service
// still serves the parts a selector narrows it to. Judged by the receive
// limit: what a connection can send is known only once a client connects.
void warnIfTooLong(const std::string& path, const Snapshot& snapshot) {
    const size_t length = envelope(0, "success", snapshot.document).size();
    if (length > kReceiveLimit) {
        __android_log_print(ANDROID_LOG_WARN, kTag,
                            "the whole policy in %s makes a %zu-byte answer, above the %zu bytes "
                            "a client can receive; a query for all of it gets code %d",
                            path.c_str(), length, kReceiveLimit, kCodeTooLong);
    }
}

// Reports policy changes to the live channel from a thread of its own, so the
// reload path never waits for a channel: the library's sender sends under its
// lock, and a watcher that stops reading holds that send (and every report
// after it) until the watcher reads again or its process ends. Changes made
// while a report waits coalesce into one pending report.
//
// Threads: changed() from the reload thread, setChannel() from the library's
// connection threads, run() on the reporter thread.
// Locks: pendingMutex_ guards pending_. channelMutex_ guards channel_ and is
// held across the channel's onPolicyChanged, so the library's
// setChannel(nullptr) waits for a report in progress before it deletes the
// callback. The two are never held together.
class ChangeReporter {
public:
    void changed() {
        {
            std::lock_guard<std::mutex> lock(pendingMutex_);
            pending_ = true;
        }
        wake_.notify_one();
    }

    void setChannel(IOemPolicyCB* channel) {
        std::lock_guard<std::mutex> lock(channelMutex_);
        channel_ = channel;
    }

    void run() {
        for (;;) {
            {
                std::unique_lock<std::mutex> lock(pendingMutex_);
                wake_.wait(lock, [this] { return pending_; });
                pending_ = false;
            }
            std::lock_guard<std::mutex> lock(channelMutex_);
            if (channel_ != nullptr) {
                channel_->onPolicyChanged(kTypePolicyChanged, nullptr);
            }
        }
    }

private:
    std::mutex pendingMutex_;
    std::condition_variable wake_;
    bool pending_ = false;
    std::mutex channelMutex_;
    IOemPolicyCB* channel_ = nullptr;
};

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

// Who may query and who may watch, from the command line.
struct Access {
    UidList query;
    UidList watch;
};

// Threads: queries arrive on many connection threads and read the snapshot
// without a lock (atomic shared_ptr); the reload thread swaps it, and only it
// does. Changes reach the channel through the reporter, never from here.
class PolicyService : public SocketOemQueryServer {
public:
    PolicyService(IOemPolicyCBFactory* factory, std::shared_ptr<const Snapshot> snapshot,
                  ChangeReporter& reporter, Access access)
        : SocketOemQueryServer(factory),
          snapshot_(std::move(snapshot)),
          reporter_(reporter),
          access_(std::move(access)) {}

    int8_t queryPolicy(uint16_t type, const std::string& data, std::string* result) override {
        talvoem::CallerCredentials caller;
        const bool known = talvoem::currentCaller(&caller);
        if (type == kTypeWhoAmI) {
            *result = whoAmI(caller, known);
            return 0;
        }
        if (!access_.query.allows(known, caller.uid)) {
            queryRefusals_.refused(caller.uid);
            *result = envelope(kCodePermissionDenied, kPermissionDenied);
            return 0;
        }
        queryRefusals_.granted();
        std::shared_ptr<const Snapshot> snapshot = std::atomic_load(&snapshot_);
        OemJsonUtils::QueryPolicy::Data selector;
        if (!data.empty() && OemJsonUtils::QueryPolicy::fromJson(data, selector) != 0) {
            *result = envelope(kCodeNotSelector, "The query data is not a selector.");
            return 0;
        }
        if (data.empty()) {
            *result = envelope(0, "success", snapshot->document);
        } else {
            Policy selected = selectPolicy(snapshot->policy, selector);
            *result = selected.empty() ? envelope(kCodeNoMatch, "No policy matches the selector.")
                                       : envelope(0, "success", encode(selected));
        }
        // A longer answer would not go out at all (or arrive cut): a refusal
        // the client can read is better than a document it cannot.
        const size_t limit = talvoem::currentSendLimit();
        if (result->size() > limit) {
            __android_log_print(ANDROID_LOG_WARN, kTag,
                                "refused a %zu-byte answer, above the %zu bytes this connection "
                                "can carry",
                                result->size(), limit);
            *result = envelope(kCodeTooLong, "The answer exceeds the " + std::to_string(limit) +
                                                 " bytes a client can receive; narrow the "
                                                 "selector.");
        }
        return 0;
    }

    // A refusal (non-zero) is answered by the library as any refused
    // registration is; withdrawing the channel (nullptr) is never refused.
    int8_t setPolicyCallback(IOemPolicyCB* cb) override {
        if (cb != nullptr) {
            talvoem::CallerCredentials caller;
            const bool known = talvoem::currentCaller(&caller);
            if (!access_.watch.allows(known, caller.uid)) {
                channelRefusals_.refused(caller.uid);
                return 1;
            }
            channelRefusals_.granted();
        }
        reporter_.setChannel(cb);
        return 0;
    }

    // Swaps in `snapshot` and has the change reported; false, keeping the
    // current one, when it holds the same document.
    bool replace(std::shared_ptr<const Snapshot> snapshot) {
        if (snapshot->document == std::atomic_load(&snapshot_)->document) {
            return false;
        }
        std::atomic_store(&snapshot_, std::move(snapshot));
        reporter_.changed();
        return true;
    }

private:
    // The answer to kTypeWhoAmI (CallerProtocol.h).
    std::string whoAmI(const talvoem::CallerCredentials& caller, bool known) const {
        Json::Value seen(Json::objectValue);
        seen["uid"] = caller.uid;
        seen["gid"] = caller.gid;
        seen["pid"] = caller.pid;
        seen["query"] = access_.query.allows(known, caller.uid);
        seen["watch"] = access_.watch.allows(known, caller.uid);
        Json::StreamWriterBuilder writer;
        writer["indentation"] = "";
        return envelope(0, "success", Json::writeString(writer, seen));
    }

    std::shared_ptr<const Snapshot> snapshot_;
    ChangeReporter& reporter_;
    const Access access_;
    RefusalEpisode queryRefusals_{RefusalEpisode::Kind::kQuery};
    RefusalEpisode channelRefusals_{RefusalEpisode::Kind::kChannel};
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
    const uint32_t events = IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM;
    if (watch.fd >= 0 && inotify_add_watch(watch.fd, folder.c_str(), events) < 0) {
        const int err = errno;
        close(watch.fd);
        watch.fd = -1;
        errno = err;
    }
    return watch;
}

// Runs on the reload thread only. `gone` remembers that the file's absence
// was logged, so it is logged once until the file comes back.
void reloadPolicy(const std::string& path, PolicyService& service, bool& gone) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0 && errno == ENOENT) {
        if (!gone) {
            __android_log_print(ANDROID_LOG_WARN, kTag,
                                "policy file %s was deleted or renamed away; keeping the current "
                                "policy until it comes back",
                                path.c_str());
        }
        gone = true;
        return;
    }
    gone = false;
    Policy policy;
    std::string error = readPolicyFile(path, policy);
    if (!error.empty()) {
        __android_log_print(ANDROID_LOG_WARN, kTag,
                            "policy file %s changed but %s; keeping the previous policy",
                            path.c_str(), error.c_str());
        return;
    }
    auto snapshot = std::make_shared<const Snapshot>(std::move(policy));
    // Logged once swapped in, so whoever reads the line is served the new document.
    if (!service.replace(snapshot)) {
        __android_log_print(ANDROID_LOG_INFO, kTag, "policy file %s rewritten with no change",
                            path.c_str());
        return;
    }
    __android_log_print(ANDROID_LOG_INFO, kTag, "policy reloaded from %s", path.c_str());
    warnIfTooLong(path, *snapshot);
}

// Reloads once per batch of events that names the file. An overflowed event
// queue may have lost such an event, so it reloads too.
void followPolicy(FolderWatch watch, const std::string& path, PolicyService& service) {
    std::vector<char> buffer(64 * (sizeof(inotify_event) + NAME_MAX + 1));
    bool gone = false;
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
            reloadPolicy(path, service, gone);
        }
        if (folderGone) {
            __android_log_print(ANDROID_LOG_ERROR, kTag,
                                "the folder of %s is gone; serving the current policy unwatched",
                                path.c_str());
            return;
        }
    }
}

const char* const kHelp =
    "usage: talvoemd [--query-uid LIST] [--watch-uid LIST] [--max-connections-per-uid N]\n"
    "                POLICY.json\n"
    "       talvoemd --help | --version\n"
    "Serves the policy document in POLICY.json on /dev/socket/talvoem (control\n"
    "socket \"talvoem\", handed over by init or talvoem-launcher) and notifies the\n"
    "policy-callback channel when the file changes. The file is refused above\n"
    "4194304 bytes, with bytes after the document, or with a name twice at one level.\n"
    "  --query-uid LIST   answer queries only from these uids (comma-separated\n"
    "                     numbers); others get code 13, \"permission denied\".\n"
    "                     Default: every uid.\n"
    "  --watch-uid LIST   let only these uids open the policy-callback channel;\n"
    "                     others are refused as any refused channel is (code -1).\n"
    "                     Default: root and talvoemd's own uid.\n"
    "  --max-connections-per-uid N\n"
    "                     close at once, unanswered, a connection that would give\n"
    "                     one uid more than N open (channels included); 0: no cap.\n"
    "                     Default: 32.\n"
    "Refusals are logged with the uid, once until something is granted again. A query\n"
    "of type 65535 is answered to every uid with the uid, gid and pid talvoemd sees\n"
    "and whether it may query and watch (talvoemctl --verbose shows it).\n"
    "Exit status: 0 stopped by SIGINT or SIGTERM; 1 the policy file did not load,\n"
    "no control socket was handed over, or the listener failed; 2 bad usage.\n";

constexpr size_t kDefaultConnectionsPerUid = 32;
constexpr long kMostConnectionsPerUid = 1000000;

// What the command line asks for.
struct Settings {
    std::string path;
    Access access;
    size_t connectionsPerUid = kDefaultConnectionsPerUid;
};

int usageError(const std::string& why) {
    fprintf(stderr, "talvoemd: %s; see talvoemd --help\n", why.c_str());
    return 2;
}

// Reads the value of option `name` into `settings`; false when it is not one.
bool readOption(const std::string& name, const std::string& value, Settings& settings) {
    if (name == "--max-connections-per-uid") {
        char* end = nullptr;
        const long n = strtol(value.c_str(), &end, 10);
        settings.connectionsPerUid = static_cast<size_t>(n);
        return !value.empty() && *end == '\0' && n >= 0 && n <= kMostConnectionsPerUid;
    }
    return parseUidList(value,
                        name == "--query-uid" ? settings.access.query : settings.access.watch);
}

// The command line's answer (help, version, a usage error), or -1 to run.
int commandLine(int argc, char** argv, Settings& settings) {
    const std::string first = argc > 1 ? argv[1] : "";
    if (argc == 2 && (first == "--help" || first == "-h")) {
        fputs(kHelp, stdout);
        return 0;
    }
    if (argc == 2 && first == "--version") {
        printf("talvoemd %s\n", kTalvoemVersion);
        return 0;
    }
    settings.access.watch = {false, {0, getuid()}};
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--query-uid" || arg == "--watch-uid" || arg == "--max-connections-per-uid") {
            if (i + 1 >= argc) {
                return usageError(arg + " needs a value");
            }
            if (!readOption(arg, argv[++i], settings)) {
                return usageError(arg == "--max-connections-per-uid"
                                      ? arg + " takes a number from 0 to " +
                                            std::to_string(kMostConnectionsPerUid)
                                      : arg + " takes uids as comma-separated numbers");
            }
        } else if (arg.size() > 1 && arg[0] == '-') {
            return usageError("unknown option " + arg);
        } else {
            files.push_back(arg);
        }
    }
    if (files.size() != 1) {
        return usageError("expects one policy file");
    }
    settings.path = files[0];
    return -1;
}

// Init hands the control socket over in ANDROID_SOCKET_talvoem; without it the
// listener could only fail.
bool haveControlSocket() {
    if (getenv("ANDROID_SOCKET_talvoem") != nullptr) {
        return true;
    }
    fprintf(stderr,
            "talvoemd: no control socket \"talvoem\" was handed over (ANDROID_SOCKET_talvoem is "
            "unset); run it under talvoem-launcher, or from init with a \"socket talvoem "
            "seqpacket\" line\n");
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    if (int answered = commandLine(argc, argv, settings); answered >= 0) {
        return answered;
    }
    const std::string& path = settings.path;
    // Watching starts before the first load, so an edit between the two is
    // not missed.
    FolderWatch watch = watchFolderOf(path);
    if (watch.fd < 0) {
        fprintf(stderr, "talvoemd: cannot watch the folder of %s: %s\n", path.c_str(),
                strerror(errno));
        return 1;
    }
    Policy policy;
    std::string error = readPolicyFile(path, policy);
    if (!error.empty()) {
        fprintf(stderr, "talvoemd: cannot load %s: %s\n", path.c_str(), error.c_str());
        return 1;
    }
    if (!haveControlSocket()) {
        return 1;
    }
    auto snapshot = std::make_shared<const Snapshot>(std::move(policy));
    warnIfTooLong(path, *snapshot);
    // SIGPIPE ignored: a client that goes away must not take the service down.
    // SIGINT/SIGTERM (and SIGUSR1, the listener's end) are blocked here, so
    // every thread inherits the mask and only the main thread takes them, in
    // sigwait.
    signal(SIGPIPE, SIG_IGN);
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    static ChannelFactory factory;
    static ChangeReporter reporter;
    static PolicyService service(&factory, snapshot, reporter, settings.access);
    talvoem::setAdmissionRule(&service, {nullptr, settings.connectionsPerUid});
    std::thread([] { reporter.run(); }).detach();
    std::thread([] {
        int8_t status = service.init();
        __android_log_print(ANDROID_LOG_ERROR, kTag, "listener ended (%d)", status);
        kill(getpid(), SIGUSR1);
    }).detach();
    std::thread(followPolicy, watch, path, std::ref(service)).detach();
    __android_log_print(ANDROID_LOG_INFO, kTag, "serving %zu operations from %s",
                        snapshot->policy.size(), path.c_str());

    int signal = 0;
    sigwait(&stop, &signal);
    if (signal != SIGUSR1) {
        __android_log_print(ANDROID_LOG_INFO, kTag, "stopping on signal %d", signal);
    }
    // Connection threads are detached and use the service until they end, so
    // the process ends here rather than destroying the service under them.
    fflush(nullptr);
    _exit(signal == SIGUSR1 ? 1 : 0);
}
