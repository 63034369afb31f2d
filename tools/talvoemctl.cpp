// talvoemctl — talks to the OEM Query Service from the command line.
//
//   talvoemctl query [--type N] [--op NAME] [--subsys NAME] [--func NAME] [--json] [--verbose]
//   talvoemctl watch [--count N] [--timeout SECONDS] [--verbose]
#include <android/log.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
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

const char* const kQueryHelp =
    "usage: talvoemctl query [--type N] [--op NAME] [--subsys NAME] [--func NAME] [--json]\n"
    "                        [--verbose]\n"
    "Asks the service for its policy document and prints it as a tree. With a selector\n"
    "(--op, --subsys, --func; an omitted level matches everything) only the matching part\n"
    "is printed. --json prints the service's raw answer. Exit status 1 when no service\n"
    "answers or the answer's code is not 0. --verbose shows the library's log lines.\n";
const char* const kWatchHelp =
    "usage: talvoemctl watch [--count N] [--timeout SECONDS] [--verbose]\n"
    "Opens a policy-callback channel and prints one timestamped line per notification\n"
    "until N notifications, the timeout or Ctrl-C. Exit status 1 when no channel could\n"
    "be opened, the service was lost, or the timeout came before N notifications.\n"
    "--verbose shows the library's log lines.\n";

int usageError(const std::string& why, const char* help) {
    fprintf(stderr, "talvoemctl: %s\n%s", why.c_str(), help);
    return 2;
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

// One query over the library's transport and codec; the raw answer in `reply`.
bool exchange(const std::string& request, std::string& reply) {
    int fd = establishConnection();
    if (fd < 0) {
        return false;
    }
    std::string text = request;
    bool answered = sendMsg(fd, text) == 0 && recvMsg(fd, reply) > 0;
    closeConnection(fd);
    return answered;
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
    if (!exchange(request, reply)) {
        fprintf(stderr, "talvoemctl: no service answers on /dev/socket/talvoem\n");
        return 1;
    }
    OemJsonUtils::Resp resp;
    if (OemJsonUtils::fromJson(reply, resp) != 0) {
        fprintf(stderr, "talvoemctl: the answer is not an envelope: %s\n", reply.c_str());
        return 1;
    }
    if (options.count("json")) {
        fputs(reply.c_str(), stdout);
    }
    if (resp.code != 0) {
        fprintf(stderr, "talvoemctl: the service answered code %d: %s\n", resp.code,
                resp.msg.c_str());
        return 1;
    }
    std::vector<OemJsonUtils::QueryPolicy::Operate> ops;
    if (!options.count("json")) {
        if (OemJsonUtils::QueryPolicy::fromJson(resp.data, ops) != 0) {
            fprintf(stderr, "talvoemctl: the answer holds no policy document\n");
            return 1;
        }
        printTree(ops);
    }
    return 0;
}

// Prints each notification and counts them for the waiting main thread.
class Printer : public IOemPolicyCB {
public:
    void onPolicyChanged(uint16_t type, std::string*) override {
        timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        char stamp[32];
        strftime(stamp, sizeof(stamp), "%H:%M:%S", localtime(&now.tv_sec));
        std::lock_guard<std::mutex> lock(mutex);
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
    int result = client.observePolicyCallback(&printer);
    if (result != 0) {
        fprintf(stderr, "talvoemctl: cannot open a policy-callback channel (code %d)\n", result);
        return 1;
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
    if (timedOut) {
        fprintf(stderr, "talvoemctl: timed out after %ld of %ld notifications\n", seen, wanted);
    }
    return lost || timedOut ? 1 : 0;
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
