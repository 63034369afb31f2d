// talvoemctl — talks to the OEM Query Service from the command line.
//
//   talvoemctl query [--type N] [--op NAME] [--subsys NAME] [--func NAME] [--json] [--verbose]
//   talvoemctl watch [--count N] [--timeout SECONDS] [--verbose]
#include <android/log.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <time.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>

#include "OemJsonUtils.h"
#include "SocketOemQueryClient.h"
#include "SocketTransport.h"

namespace {

using Options = std::map<std::string, std::string>;
constexpr uint16_t kTypeServiceLost = 100;
// The longest packet the library's recvMsg takes whole (SocketTransport.h);
// a longer one arrives cut to this length.
constexpr size_t kReceiveLimit = 524288;

// Exit statuses, one per way a command can fail; kept in step with the help
// texts below and README.md's Tools table.
enum Exit {
    kOk = 0,
    kRefused = 1,      // the service answered with a code other than 0
    kUsage = 2,        // bad command line
    kNoService = 3,    // nothing listening on the socket
    kNoAnswer = 4,     // the service closed the connection without an answer
    kCut = 5,          // the answer was longer than the receive limit
    kBadAnswer = 6,    // the answer was not an envelope, or held no policy document
    kServiceLost = 7,  // watch: the service closed the channel
    kTimedOut = 8,     // watch: the timeout came before N notifications
};

const char* const kQueryHelp =
    "usage: talvoemctl query [--type N] [--op NAME] [--subsys NAME] [--func NAME] [--json]\n"
    "                        [--verbose]\n"
    "Asks the service for its policy document and prints it as a tree. With a selector\n"
    "(--op, --subsys, --func; an omitted level matches everything) only the matching part\n"
    "is printed. --json prints the service's raw answer. --verbose shows the library's\n"
    "log lines.\n"
    "Exit status: 0 printed; 1 the service answered a code other than 0; 2 bad usage;\n"
    "3 no service listening; 4 the service closed the connection without an answer;\n"
    "5 the answer was longer than 524288 bytes and arrived cut; 6 the answer was not an\n"
    "envelope or held no policy document.\n";
const char* const kWatchHelp =
    "usage: talvoemctl watch [--count N] [--timeout SECONDS] [--verbose]\n"
    "Opens a policy-callback channel and prints one timestamped line per notification\n"
    "until N notifications, the timeout or Ctrl-C. --verbose shows the library's log\n"
    "lines.\n"
    "Exit status: 0 N notifications came, or the timeout or Ctrl-C ended a watch without\n"
    "--count; 1 the service refused the channel; 2 bad usage; 3 no service listening;\n"
    "4 the service closed the connection without an answer; 6 the answer was not an\n"
    "envelope; 7 the service was lost; 8 the timeout came before N notifications.\n";

int usageError(const std::string& why, const char* help) {
    fprintf(stderr, "talvoemctl: %s\n%s", why.c_str(), help);
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

bool toNumber(const std::string& text, long max, long& value) {
    char* end = nullptr;
    value = strtol(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0' && value >= 0 && value <= max;
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

// One query over the library's transport; kOk with the raw answer in
// `reply`, or the exit status of the failure, told on stderr.
int exchange(const std::string& request, std::string& reply) {
    int fd = establishConnection();
    if (fd < 0) {
        fprintf(stderr, "talvoemctl: no service is listening on /dev/socket/talvoem\n");
        return kNoService;
    }
    std::string text = request;
    ssize_t length = -1;
    if (sendMsg(fd, text) == 0) {
        // recvMsg cannot tell a packet cut at its limit from one that fits
        // it exactly; the peek tells the packet's real length.
        length = recv(fd, nullptr, 0, MSG_PEEK | MSG_TRUNC);
        if (length > 0 && recvMsg(fd, reply) <= 0) {
            length = -1;
        }
    }
    closeConnection(fd);
    if (length <= 0) {
        fprintf(stderr, "talvoemctl: the service closed the connection without an answer\n");
        return kNoAnswer;
    }
    if (static_cast<size_t>(length) > kReceiveLimit) {
        fprintf(stderr, "talvoemctl: the answer was cut at %zu of its %zd bytes\n", kReceiveLimit,
                length);
        return kCut;
    }
    return kOk;
}

int query(const Options& options) {
    OemJsonUtils::QueryPolicy::Req req;
    req.api = "queryPolicy";
    long type = 0;
    if (options.count("type") && !toNumber(options.at("type"), 65535, type)) {
        return usageError("--type takes a number from 0 to 65535", kQueryHelp);
    }
    req.type = static_cast<uint16_t>(type);
    OemJsonUtils::QueryPolicy::Data selector;
    selector.op_name = options.count("op") ? options.at("op") : "";
    selector.subsys_name = options.count("subsys") ? options.at("subsys") : "";
    selector.func_name = options.count("func") ? options.at("func") : "";
    if (!selector.op_name.empty() || !selector.subsys_name.empty() || !selector.func_name.empty()) {
        OemJsonUtils::QueryPolicy::toJson(selector, req.data);
    }
    std::string request, reply;
    OemJsonUtils::QueryPolicy::toJson(req, request);
    const int exchanged = exchange(request, reply);
    if (exchanged != kOk) {
        return exchanged;
    }
    OemJsonUtils::Resp resp;
    if (OemJsonUtils::fromJson(reply, resp) != 0) {
        fprintf(stderr, "talvoemctl: the answer (%zu bytes) is not an envelope\n", reply.size());
        return kBadAnswer;
    }
    if (options.count("json")) {
        fputs(reply.c_str(), stdout);
    }
    if (resp.code != 0) {
        fprintf(stderr, "talvoemctl: the service answered code %d: %s\n", resp.code,
                resp.msg.c_str());
        return kRefused;
    }
    std::vector<OemJsonUtils::QueryPolicy::Operate> ops;
    if (!options.count("json")) {
        if (OemJsonUtils::QueryPolicy::fromJson(resp.data, ops) != 0) {
            fprintf(stderr, "talvoemctl: the answer holds no policy document\n");
            return kBadAnswer;
        }
        printTree(ops);
    }
    return kOk;
}

// Prints each notification and counts them for the waiting main thread.
class Printer : public IOemPolicyCB {
public:
    void onPolicyChanged(uint16_t type, std::string*) override {
        timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        // Deliveries run on threads of their own: format under the lock.
        std::lock_guard<std::mutex> lock(mutex);
        tm local;
        char stamp[32];
        strftime(stamp, sizeof(stamp), "%H:%M:%S", localtime_r(&now.tv_sec, &local));
        if (type == kTypeServiceLost) {
            printf("[%s.%03ld] service lost\n", stamp, now.tv_nsec / 1000000);
            lost = true;
        } else {
            printf("[%s.%03ld] policy changed (type %u)\n", stamp, now.tv_nsec / 1000000, type);
            ++count;
        }
        fflush(stdout);
        changed.notify_all();
    }
    std::mutex mutex;
    std::condition_variable changed;
    long count = 0;
    bool lost = false;
};

volatile sig_atomic_t interrupted = 0;

// Tells why observePolicyCallback failed (its codes: SocketOemPolicyCBClient.h).
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
        default:
            fprintf(stderr, "talvoemctl: the service refused the channel (code %d)\n", code);
            return kRefused;
    }
}

int watch(const Options& options) {
    long wanted = 0, seconds = 0;
    if (options.count("count") && !toNumber(options.at("count"), 1000000000, wanted)) {
        return usageError("--count takes a positive number", kWatchHelp);
    }
    if (options.count("timeout") && !toNumber(options.at("timeout"), 1000000, seconds)) {
        return usageError("--timeout takes a number of seconds", kWatchHelp);
    }
    signal(SIGPIPE, SIG_IGN);
    signal(SIGINT, [](int) { interrupted = 1; });
    signal(SIGTERM, [](int) { interrupted = 1; });
    static Printer printer;  // outlives every delivery thread
    SocketOemQueryClient client;
    const int opened = client.observePolicyCallback(&printer);
    if (opened != 0) {
        return channelFailure(opened);
    }
    printf("watching for policy changes\n");
    fflush(stdout);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    bool lost, timedOut;
    long seen;
    {
        std::unique_lock<std::mutex> lock(printer.mutex);
        while (!interrupted && !printer.lost && (wanted == 0 || printer.count < wanted) &&
               (seconds == 0 || std::chrono::steady_clock::now() < deadline)) {
            printer.changed.wait_for(lock, std::chrono::milliseconds(100));
        }
        lost = printer.lost;
        seen = printer.count;
        timedOut = !interrupted && !lost && wanted > 0 && seen < wanted;
    }
    client.disposePolicyCallback();
    if (lost) {
        fprintf(stderr, "talvoemctl: the service was lost after %ld notifications\n", seen);
        return kServiceLost;
    }
    if (timedOut) {
        fprintf(stderr, "talvoemctl: timed out after %ld of %ld notifications\n", seen, wanted);
        return kTimedOut;
    }
    return kOk;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "--help" || command == "-h" || command == "help") {
        printf("usage: talvoemctl query|watch [options]   (talvoemctl COMMAND --help)\n%s%s",
               kQueryHelp, kWatchHelp);
        return 0;
    }
    if (command != "query" && command != "watch") {
        return usageError(command.empty() ? "missing command" : "unknown command " + command,
                          "usage: talvoemctl query|watch [options]   (talvoemctl --help)\n");
    }
    const char* help = command == "query" ? kQueryHelp : kWatchHelp;
    for (int i = 2; i < argc; ++i) {
        if (std::string(argv[i]) == "--help") {
            fputs(help, stdout);
            return 0;
        }
    }
    Options options;
    std::string error;
    bool parsed =
        command == "query"
            ? parseOptions(argc, argv, " type op subsys func ", " json verbose ", options, error)
            : parseOptions(argc, argv, " count timeout ", " verbose ", options, error);
    if (!parsed) {
        return usageError(error, help);
    }
    // The library logs every connection attempt; a failure is told in one
    // line of our own unless the user asks for the detail.
    if (!options.count("verbose")) {
        __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    }
    return command == "query" ? query(options) : watch(options);
}
