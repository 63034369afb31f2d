// talvoemctl — talks to the OEM Query Service from the command line.
//
//   talvoemctl query [--type N] [--op NAME] [--subsys NAME] [--func NAME] [--timeout SECONDS]
//                    [--json] [--verbose]
//   talvoemctl watch [--count N] [--timeout SECONDS] [--verbose]
//   talvoemctl --help | --version
//
// Nothing waits without bound: a query ends at its deadline, a watch's channel
// request must be answered within kRegistrationWait and its dispose within
// kDisposeWait, and SIGINT or SIGTERM ends either command at any stage.
#include <android/log.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>

#include "CallerProtocol.h"
#include "OemJsonUtils.h"
#include "SocketOemQueryClient.h"
#include "TalvoemPolicyQuery.h"
#include "TalvoemProtocol.h"
#include "Version.h"

namespace {

using Options = std::map<std::string, std::string>;
using talvoem::QueryResult;

// Exit statuses, one per way a command can fail; kept in step with the help
// texts below and README.md's Tools table.
enum Exit {
    kOk = 0,
    kRefused = 1,       // the service answered with a code other than 0
    kUsage = 2,         // bad command line
    kNoService = 3,     // nothing listening on the socket
    kNoAnswer = 4,      // the service closed the connection without an answer
    kCut = 5,           // the answer was longer than the receive limit
    kBadAnswer = 6,     // the answer was not an envelope, or held no policy document
    kServiceLost = 7,   // watch: the service closed the channel
    kTimedOut = 8,      // a deadline passed first
    kLocalFailure = 9,  // the request could not be made on this side
    kSignalBase = 128,  // + the signal's number (130 SIGINT, 143 SIGTERM), as shells tell one
};

constexpr long kDefaultQuerySeconds =
    std::chrono::duration_cast<std::chrono::seconds>(talvoem::kDefaultQueryTimeout).count();
constexpr std::chrono::seconds kRegistrationWait{5};
constexpr std::chrono::seconds kDisposeWait{5};

const char* const kQueryHelp =
    "usage: talvoemctl query [--type N] [--op NAME] [--subsys NAME] [--func NAME]\n"
    "                        [--timeout SECONDS] [--json] [--verbose]\n"
    "Asks the service for its policy document and prints it as a tree. With a selector\n"
    "(--op, --subsys, --func; an omitted level matches everything) only the matching part\n"
    "is printed. --json prints the service's raw answer. --timeout bounds the whole query\n"
    "(default 5 s). --verbose shows the library's log lines and, first, which uid the\n"
    "service sees (talvoemd's query type 65535).\n"
    "Exit status: 0 printed; 1 the service answered a code other than 0 (\"permission\n"
    "denied\": it does not answer this uid); 2 bad usage;\n"
    "3 no service listening; 4 the service closed the connection without an answer;\n"
    "5 the answer was longer than 524288 bytes and arrived cut; 6 the answer was not an\n"
    "envelope or held no policy document; 8 no answer before the timeout; 9 the query\n"
    "could not be made here; 130/143 ended by SIGINT/SIGTERM.\n";
const char* const kWatchHelp =
    "usage: talvoemctl watch [--count N] [--timeout SECONDS] [--verbose]\n"
    "Opens a policy-callback channel and prints one timestamped line per notification\n"
    "until N notifications, the timeout, SIGINT (Ctrl-C) or SIGTERM. The service must\n"
    "answer the channel request within 5 s. --verbose shows the library's log lines\n"
    "and, first, which uid the service sees.\n"
    "Exit status: 0 N notifications came, or the timeout or a signal ended a watch\n"
    "without --count; 1 the service refused the channel (\"permission denied\": it lets\n"
    "no channel open from this uid); 2 bad usage; 3 no service\n"
    "listening; 4 the service closed the connection without an answer; 6 the answer was\n"
    "not an envelope; 7 the service was lost; 8 the channel request was not answered in\n"
    "5 s, or the timeout came before N notifications; 9 the channel could not start\n"
    "here; 130/143 SIGINT/SIGTERM ended it before it was open or before N notifications.\n";

// One line, and where the whole story is.
int usageError(const std::string& why, const std::string& command) {
    fprintf(stderr, "talvoemctl: %s; see talvoemctl %s--help\n", why.c_str(),
            command.empty() ? "" : (command + " ").c_str());
    return kUsage;
}

// Parses --name VALUE pairs (and bare flags listed in `flags`).
bool parseOptions(int argc, char** argv, const std::string& valued, const std::string& flags,
                  Options& options, std::string& error) {
    for (int i = 2; i < argc; ++i) {
        std::string arg = argv[i];
        std::string name = arg.rfind("--", 0) == 0 ? arg.substr(2) : "";
        if (!name.empty() && flags.find(" " + name + " ") != std::string::npos) {
            options[name] = "1";
        } else if (!name.empty() && valued.find(" " + name + " ") != std::string::npos) {
            if (i + 1 >= argc) {
                error = arg + " needs a value";
                return false;
            }
            options[name] = argv[++i];
        } else {
            error = "unexpected argument " + arg;
            return false;
        }
    }
    return true;
}

// Reads option `name` as a whole number from `min` to `max` into `value`,
// which keeps its default when the option is absent.
bool numberOption(const Options& options, const char* name, long min, long max, long& value) {
    auto found = options.find(name);
    if (found == options.end()) {
        return true;
    }
    const std::string& text = found->second;
    char* end = nullptr;
    value = strtol(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0' && value >= min && value <= max;
}

// SIGINT and SIGTERM are blocked in every thread (the library's threads
// inherit the mask) and taken by one thread of ours in sigwait, which hands
// each to `onSignal`: a blocking library call is never interrupted under its
// caller, and the handling may lock and print.
void takeSignals(std::function<void(int)> onSignal) {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    std::thread([stop, onSignal = std::move(onSignal)] {
        for (int signal = 0;;) {
            if (sigwait(&stop, &signal) == 0) {
                onSignal(signal);
            }
        }
    }).detach();
}

void printLine(const std::string& text) {
    fputs(text.c_str(), stdout);
    if (text.empty() || text.back() != '\n') {
        fputc('\n', stdout);
    }
}

void printTree(const std::vector<OemJsonUtils::QueryPolicy::Operate>& ops) {
    auto named = [](const std::string& name) { return name.empty() ? "(unnamed)" : name.c_str(); };
    for (const auto& op : ops) {
        printf("%s\n", named(op.name));
        for (const auto& subsys : op.subsyss) {
            printf("  %s\n", named(subsys.name));
            for (const auto& func : subsys.funcs) {
                printf("    %-24s %s\n", named(func.name), func.enable ? "enabled" : "disabled");
            }
        }
    }
}

// What talvoemd says it sees of this process (CallerProtocol.h).
struct Seen {
    bool told = false;  // false: no answer, or not one of talvoemd's
    unsigned uid = 0;
    unsigned gid = 0;
    long pid = 0;
    bool query = false;
    bool watch = false;
};

Seen askWhoAmI() {
    constexpr std::chrono::seconds kWait{2};
    Seen seen;
    const talvoem::QueryAnswer answer = talvoem::queryService(kTypeWhoAmI, "", kWait);
    if (answer.result != QueryResult::kAnswered || answer.envelope.code != 0) {
        return seen;
    }
    Json::Value data;
    std::istringstream text(answer.envelope.data);
    std::string errors;
    try {
        if (Json::parseFromStream(Json::CharReaderBuilder(), text, &data, &errors) &&
            data.isObject() && data.isMember("uid")) {
            seen = {true,
                    data["uid"].asUInt(),
                    data["gid"].asUInt(),
                    data["pid"].asInt64(),
                    data["query"].asBool(),
                    data["watch"].asBool()};
        }
    } catch (const Json::Exception&) {  // a member of another type: not talvoemd's answer
    }
    return seen;
}

// --verbose: which uid the service sees, before the command goes on.
void tellWhoAmI() {
    const Seen seen = askWhoAmI();
    if (!seen.told) {
        fprintf(stderr, "talvoemctl: the service did not say which uid it sees\n");
        return;
    }
    fprintf(stderr,
            "talvoemctl: the service sees uid %u (gid %u, pid %ld); it %s this uid's queries "
            "and %s it open the channel\n",
            seen.uid, seen.gid, seen.pid, seen.query ? "answers" : "does not answer",
            seen.watch ? "lets" : "does not let");
}

// Tells why a query brought no envelope; its exit status.
int queryFailure(const talvoem::QueryAnswer& answer, long seconds) {
    switch (answer.result) {
        case QueryResult::kNoService:
            fprintf(stderr, "talvoemctl: no service is listening on /dev/socket/talvoem\n");
            return kNoService;
        case QueryResult::kClosedWithoutAnswer:
            fprintf(stderr, "talvoemctl: the service closed the connection without an answer\n");
            return kNoAnswer;
        case QueryResult::kTimedOut:
            fprintf(stderr, "talvoemctl: no answer within %ld s\n", seconds);
            return kTimedOut;
        case QueryResult::kAnswerCut:
            fprintf(stderr, "talvoemctl: the answer was longer than %zu bytes and arrived cut\n",
                    talvoem::protocol::kReceiveLimit);
            return kCut;
        case QueryResult::kNotEnvelope:
            fprintf(stderr, "talvoemctl: the answer (%zu bytes) is not an envelope\n",
                    answer.text.size());
            return kBadAnswer;
        default:
            fprintf(stderr, "talvoemctl: %s\n", talvoem::describe(answer.result));
            return kLocalFailure;
    }
}

int query(const Options& options) {
    long type = 0, seconds = kDefaultQuerySeconds;
    if (!numberOption(options, "type", 0, 65535, type)) {
        return usageError("--type takes a number from 0 to 65535", "query");
    }
    if (!numberOption(options, "timeout", 1, 1000000, seconds)) {
        return usageError("--timeout takes a positive number of seconds", "query");
    }
    OemJsonUtils::QueryPolicy::Data selector;
    selector.op_name = options.count("op") ? options.at("op") : "";
    selector.subsys_name = options.count("subsys") ? options.at("subsys") : "";
    selector.func_name = options.count("func") ? options.at("func") : "";
    std::string data;
    if (!selector.op_name.empty() || !selector.subsys_name.empty() || !selector.func_name.empty()) {
        OemJsonUtils::QueryPolicy::toJson(selector, data);
    }
    // Nothing to undo: an interrupted query just ends.
    takeSignals([](int signal) { _exit(kSignalBase + signal); });
    if (options.count("verbose")) {
        tellWhoAmI();
    }
    const talvoem::QueryAnswer answer =
        talvoem::queryService(static_cast<uint16_t>(type), data, std::chrono::seconds(seconds));
    if (answer.result != QueryResult::kAnswered) {
        return queryFailure(answer, seconds);
    }
    if (options.count("json")) {
        printLine(answer.text);
    }
    if (answer.envelope.code == kCodePermissionDenied && answer.envelope.msg == kPermissionDenied) {
        fprintf(stderr,
                "talvoemctl: permission denied: the service answers no queries from uid %u\n",
                getuid());
        return kRefused;
    }
    if (answer.envelope.code != 0) {
        fprintf(stderr, "talvoemctl: the service answered code %d: %s\n", answer.envelope.code,
                answer.envelope.msg.c_str());
        return kRefused;
    }
    std::vector<OemJsonUtils::QueryPolicy::Operate> ops;
    if (!options.count("json")) {
        if (OemJsonUtils::QueryPolicy::fromJson(answer.envelope.data, ops) != 0) {
            fprintf(stderr, "talvoemctl: the answer holds no policy document\n");
            return kBadAnswer;
        }
        printTree(ops);
    }
    return kOk;
}

// One watch: prints each notification and tells the main thread how the
// watch stands.
//
// Threads: deliveries come on the library's detached notify threads; the
// channel request and the dispose run on threads of their own, one after the
// other; a signal comes from the signal thread; the main thread waits on
// `changed`. `mutex` guards every member below it, and stdout while the
// watch runs, so lines never mix.
//
// Never deleted: a delivery may come after the channel is disposed of, up to
// the end of the process, so the watch outlives every thread that can call it.
// Once `closed` a delivery prints and counts nothing, so exactly N lines are
// printed whatever arrives during the dispose.
class Watch : public IOemPolicyCB {
public:
    static constexpr int kPending = -1000;   // observePolicyCallback has not returned
    static constexpr int kNoThread = -1001;  // its receive thread could not start

    explicit Watch(long wanted) : wanted(wanted) {}

    void onPolicyChanged(uint16_t type, std::string*) override {
        std::lock_guard<std::mutex> lock(mutex);
        if (closed) {
            return;
        }
        if (type == talvoem::protocol::kTypeConnectionLost) {
            stamp("service lost");
            lost = closed = true;
        } else {
            stamp("policy changed (type " + std::to_string(type) + ")");
            closed = ++count == wanted;
        }
        changed.notify_all();
    }

    void interrupt(int signal) {
        std::lock_guard<std::mutex> lock(mutex);
        lastSignal = signal;
        ++signals;
        changed.notify_all();
    }

    const long wanted;  // 0: no limit
    // Used by one thread at a time: the request's, then the dispose's.
    SocketOemQueryClient client;
    std::mutex mutex;
    std::condition_variable changed;
    long count = 0;
    bool lost = false;
    bool closed = false;
    int opened = kPending;
    bool disposed = false;
    int signals = 0;
    int lastSignal = 0;

private:
    static void stamp(const std::string& what) {
        timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        tm local;
        char stamp[32];
        strftime(stamp, sizeof(stamp), "%H:%M:%S", localtime_r(&now.tv_sec, &local));
        printf("[%s.%03ld] %s\n", stamp, now.tv_nsec / 1000000, what.c_str());
        fflush(stdout);
    }
};

// Tells why the channel did not open (observePolicyCallback's codes:
// SocketOemPolicyCBClient.h); its exit status.
int channelFailure(int code) {
    switch (code) {
        case 1:
            fprintf(stderr, "talvoemctl: no service is listening on /dev/socket/talvoem\n");
            return kNoService;
        case 2:
        case 3:
            fprintf(stderr, "talvoemctl: the service closed the connection without an answer\n");
            return kNoAnswer;
        case 4:
            fprintf(stderr, "talvoemctl: the answer to the channel request is not an envelope\n");
            return kBadAnswer;
        case Watch::kNoThread:
            fprintf(stderr, "talvoemctl: the channel's receive thread could not start\n");
            return kLocalFailure;
        case talvoem::protocol::kCodeFailed:
            // talvoemd refuses by uid as it refuses a second watcher: ask it which.
            if (const Seen seen = askWhoAmI(); seen.told && !seen.watch) {
                fprintf(stderr,
                        "talvoemctl: permission denied: the service lets no channel open from "
                        "uid %u\n",
                        seen.uid);
                return kRefused;
            }
            fprintf(stderr,
                    "talvoemctl: the service refused the channel (code -1): the service already "
                    "serves a watcher, one at a time, or refused it\n");
            return kRefused;
        default:
            fprintf(stderr, "talvoemctl: the service refused the channel (code %d)\n", code);
            return kRefused;
    }
}

void openChannel(Watch& w) {
    int opened;
    try {
        opened = w.client.observePolicyCallback(&w);
    } catch (const std::system_error&) {
        opened = Watch::kNoThread;
    }
    std::lock_guard<std::mutex> lock(w.mutex);
    w.opened = opened;
    w.changed.notify_all();
}

// How an open watch ended, told on stderr; its exit status. The caller holds
// w.mutex.
int outcome(const Watch& w) {
    if (w.wanted > 0 && w.count >= w.wanted) {
        return kOk;
    }
    if (w.lost) {
        fprintf(stderr, "talvoemctl: the service was lost after %ld notifications\n", w.count);
        return kServiceLost;
    }
    if (w.signals > 0) {
        return w.wanted > 0 ? kSignalBase + w.lastSignal : kOk;
    }
    if (w.wanted > 0) {
        fprintf(stderr, "talvoemctl: timed out after %ld of %ld notifications\n", w.count,
                w.wanted);
        return kTimedOut;
    }
    return kOk;
}

// Ends the channel, waiting up to kDisposeWait or another signal. A service
// that does not end it in time is left to the end of the process, which
// closes the connection all the same.
void closeChannel(Watch& w, std::unique_lock<std::mutex>& lock) {
    const int signals = w.signals;
    lock.unlock();
    std::thread([&w] {
        w.client.disposePolicyCallback();
        std::lock_guard<std::mutex> disposed(w.mutex);
        w.disposed = true;
        w.changed.notify_all();
    }).detach();
    lock.lock();
    w.changed.wait_for(lock, kDisposeWait, [&] { return w.disposed || w.signals > signals; });
}

// The watch from its channel request to its end; the exit status.
int runWatch(Watch& w, long seconds) {
    std::thread(openChannel, std::ref(w)).detach();
    std::unique_lock<std::mutex> lock(w.mutex);
    w.changed.wait_for(lock, kRegistrationWait,
                       [&] { return w.signals > 0 || w.opened != Watch::kPending; });
    if (w.signals > 0) {
        return kSignalBase + w.lastSignal;
    }
    if (w.opened == Watch::kPending) {
        fprintf(stderr,
                "talvoemctl: the service did not answer the channel request within %lld s\n",
                static_cast<long long>(kRegistrationWait.count()));
        return kTimedOut;
    }
    if (w.opened != 0) {
        const int opened = w.opened;
        lock.unlock();  // telling why may take a query: signals are still taken meanwhile
        return channelFailure(opened);
    }
    printf("watching for policy changes\n");
    fflush(stdout);
    auto ended = [&] { return w.closed || w.signals > 0; };
    if (seconds > 0) {
        w.changed.wait_for(lock, std::chrono::seconds(seconds), ended);
    } else {
        w.changed.wait(lock, ended);
    }
    w.closed = true;
    const int status = outcome(w);
    closeChannel(w, lock);
    return status;
}

int watch(const Options& options) {
    long wanted = 0, seconds = 0;
    if (!numberOption(options, "count", 1, 1000000000, wanted)) {
        return usageError("--count takes a positive number", "watch");
    }
    if (!numberOption(options, "timeout", 1, 1000000, seconds)) {
        return usageError("--timeout takes a positive number of seconds", "watch");
    }
    signal(SIGPIPE, SIG_IGN);
    Watch& w = *new Watch(wanted);  // never deleted (see Watch)
    takeSignals([&w](int signal) { w.interrupt(signal); });
    if (options.count("verbose")) {
        tellWhoAmI();
    }
    const int status = runWatch(w, seconds);
    // Threads of the library may still run (a request never answered, a late
    // delivery): the process ends here, without running destructors under them.
    fflush(nullptr);
    _exit(status);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "--help" || command == "-h" || command == "help") {
        printf("usage: talvoemctl query|watch [options]   (talvoemctl COMMAND --help)\n%s%s",
               kQueryHelp, kWatchHelp);
        return kOk;
    }
    if (command == "--version") {
        printf("talvoemctl %s\n", kTalvoemVersion);
        return kOk;
    }
    if (command != "query" && command != "watch") {
        return usageError(command.empty() ? "missing command" : "unknown command " + command, "");
    }
    for (int i = 2; i < argc; ++i) {
        if (std::string(argv[i]) == "--help") {
            fputs(command == "query" ? kQueryHelp : kWatchHelp, stdout);
            return kOk;
        }
    }
    Options options;
    std::string error;
    bool parsed = command == "query"
                      ? parseOptions(argc, argv, " type op subsys func timeout ", " json verbose ",
                                     options, error)
                      : parseOptions(argc, argv, " count timeout ", " verbose ", options, error);
    if (!parsed) {
        return usageError(error, command);
    }
    // The library logs every connection attempt; a failure is told in one
    // line of our own unless the user asks for the detail.
    if (!options.count("verbose")) {
        __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    }
    return command == "query" ? query(options) : watch(options);
}
