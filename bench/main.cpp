// talvoem-bench: what a call through the library costs, beside what the same
// exchange costs by hand, measured side by side in one run.
//
//   talvoem-bench [--quick] [--reps N] [--verbose]
//
// Needs root: it moves itself into a private mount namespace with a tmpfs on
// /dev/socket, plays init for the library's service there and runs that
// service, the floors' service and every client on threads of this process.
#include <android/log.h>
#include <json/version.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <map>
#include <optional>
#include <thread>

#include "Bench.h"
#include "TalvoemAdmission.h"
#include "Wire.h"

namespace talvoem::bench {

namespace {

// Sizes of one repetition: a query sample ends after `querySeconds` or
// `queryOps` round trips; then paced and flood notifications, channel
// cycles, and the resources block's queries and channels.
struct Plan {
    double querySeconds;
    size_t queryOps;
    size_t paced;
    size_t flood;
    size_t cycles;
    size_t resourceQueries;
    size_t resourceChannels;
};

constexpr Plan kFull = {1.5, 200000, 1000, 100000, 200, 10000, 1000};
constexpr Plan kQuick = {0.2, 2000, 50, 2000, 10, 200, 20};

// The bench's own messages; the stream `stderr` may point at /dev/null,
// where liblog's stderr logger then writes the library's log lines.
FILE* console = stderr;
// Calls through the library that failed: the only thing that fails the run.
size_t libraryFailures = 0;

void discardLog(const __android_logger_data*, const char*) {}

// Queries through the library or a floor; only the library's failures
// fail the run.
void query(Samples& samples, const std::string& key, const std::function<bool()>& op, int clients,
           const Plan& plan) {
    const size_t failed = runQueries(samples, key, op, clients, plan.querySeconds, plan.queryOps);
    if (failed > 0) {
        fprintf(console, "%s: %zu queries failed\n", key.c_str(), failed);
        libraryFailures += key.find(".lib") != std::string::npos ? failed : 0;
    }
}

void notify(Samples& samples, const std::string& key, Channel kind, test::TestService& library,
            size_t count, unsigned intervalUs) {
    const bool ok = runNotifications(samples, key, kind, library, count, intervalUs);
    const auto delivered = static_cast<size_t>(samples[key + ".delivered"].back());
    if (!ok || delivered != count) {
        fprintf(console, "%s: %s; %zu of %zu notifications delivered\n", key.c_str(),
                ok ? "channel took every report" : "channel NOT open or lost", delivered, count);
    }
    libraryFailures += !ok && kind == Channel::kLibrary ? 1 : 0;
}

// Who serves the library's socket: the library's service without an
// admission rule, or, for the rows that measure one, a twin of it with a
// rule: a predicate on the uid, and talvoemd's default cap of 32 connections
// per uid. init() reads the rule as it starts, so the twin takes the socket
// with a runner of its own for its rows.
class Serving {
public:
    explicit Serving(test::TestService& plain) : plain_(plain), runner_(std::in_place, plain) {
        ruled_.answer = plain.answer;
        talvoem::setAdmissionRule(&ruled_, {[](const CallerCredentials& caller) {
                                                return caller.uid == 0 || caller.uid == 1000;
                                            },
                                            32});
    }
    void withRule(bool rule) {
        runner_.reset();
        runner_.emplace(rule ? ruled_ : plain_);
    }

private:
    test::TestService& plain_;
    test::TestService& ruled_ =
        test::immortal<test::TestService>(&test::immortal<test::ForwardingFactory>());
    std::optional<test::ServiceRunner> runner_;
};

// One repetition of every row and floor. Within a pair, which one goes
// first alternates from one repetition to the next, so drift over the run
// is shared fairly.
void runRepetition(int rep, const Plan& plan, test::TestService& library, Serving& serving,
                   Samples& samples) {
    const bool libFirst = rep % 2 == 0;
    auto floorQuery = [] { return floor::query(false); };
    for (int clients : {1, 8}) {
        const std::string key = "query" + std::to_string(clients);
        for (int i = 0; i < 2; ++i) {
            if ((i == 0) == libFirst) {
                // With and without the rule, each on a fresh listener, which
                // of the two goes first alternating too.
                for (const bool rule : {!libFirst, libFirst}) {
                    serving.withRule(rule);
                    query(samples, key + (rule ? ".rule.lib" : ".lib"), libraryQuery, clients,
                          plan);
                }
                serving.withRule(false);
            } else {
                query(samples, key + ".floor", floorQuery, clients, plan);
            }
        }
    }
    // What the design's fixed costs come to, on the floor itself.
    floor::servedInline = true;
    query(samples, "query1.inline", floorQuery, 1, plan);
    floor::servedInline = false;
    floor::freshBuffers = true;
    query(
        samples, "query1.fresh", [] { return floor::query(true); }, 1, plan);
    floor::freshBuffers = false;
    __android_log_set_logger(discardLog);
    query(samples, "query1.quiet.lib", libraryQuery, 1, plan);
    query(samples, "query1.call.lib", queryServiceCall, 1, plan);
    __android_log_set_logger(__android_log_stderr_logger);

    std::pair<Channel, const char*> kinds[] = {
        {Channel::kLibrary, "lib"}, {Channel::kFloor, "floor"}, {Channel::kBare, "bare"}};
    if (!libFirst) {
        std::swap(kinds[0], kinds[1]);
    }
    for (const auto& [kind, name] : kinds) {
        notify(samples, std::string("paced.") + name, kind, library, plan.paced, 1000);
    }
    for (const auto& [kind, name] : kinds) {
        notify(samples, std::string("flood.") + name, kind, library, plan.flood, 0);
    }
    samples["flood.sent"].push_back(static_cast<double>(plan.flood));
    libraryFailures += runChannelCycles(samples, "cycle", plan.cycles);
}

// One line of the table: a library figure against a reference figure.
struct Line {
    const char* row;
    const char* unit;
    const char* key;
    const char* reference;  // what the reference is; "" when none
    const char* referenceKey;
    const char* target;  // on the ratio: ">= 0.83", "<= 1.20", or ""
};

const Line kLines[] = {
    {"query, 1 client", "ops/s", "query1.lib.ops", "query floor", "query1.floor.ops", ">= 0.83"},
    {"query, 1 client", "p50 us", "query1.lib.p50", "query floor", "query1.floor.p50", "<= 1.20"},
    {"query, 1 client", "p99 us", "query1.lib.p99", "query floor", "query1.floor.p99", ""},
    {"query, 8 clients", "ops/s", "query8.lib.ops", "query floor", "query8.floor.ops", ">= 0.83"},
    {"query, 8 clients", "p50 us", "query8.lib.p50", "query floor", "query8.floor.p50", "<= 1.20"},
    {"query, 8 clients", "p99 us", "query8.lib.p99", "query floor", "query8.floor.p99", ""},
    {"query, 1 client, admission rule", "ops/s", "query1.rule.lib.ops", "no rule", "query1.lib.ops",
     ">= 0.97"},
    {"query, 8 clients, admission rule", "ops/s", "query8.rule.lib.ops", "no rule",
     "query8.lib.ops", ">= 0.97"},
    {"notify, paced 1/ms", "p50 us", "paced.lib.p50", "channel floor", "paced.floor.p50",
     "<= 1.30"},
    {"notify, paced 1/ms", "p50 us", "paced.lib.p50", "bare push", "paced.bare.p50", ""},
    {"notify, paced 1/ms", "p99 us", "paced.lib.p99", "channel floor", "paced.floor.p99", ""},
    {"notify, flood", "msgs/s", "flood.lib.rate", "channel floor", "flood.floor.rate", ">= 0.80"},
    {"notify, flood", "msgs/s", "flood.lib.rate", "bare push", "flood.bare.rate", ""},
    {"notify, flood", "delivered", "flood.lib.delivered", "sent", "flood.sent", ">= 1.00"},
    {"channel set-up", "p50 us", "cycle.setup.p50", "", "", ""},
    {"channel set-up", "p99 us", "cycle.setup.p99", "", "", ""},
    {"channel tear-down", "p50 us", "cycle.teardown.p50", "", "", ""},
    {"channel tear-down", "p99 us", "cycle.teardown.p99", "", "", ""},
    {"query floor, 1 client", "p50 us", "query1.floor.p50", "served inline", "query1.inline.p50",
     ""},
    {"query floor, fresh 512 KiB bufs", "p50 us", "query1.fresh.p50", "query floor",
     "query1.floor.p50", ""},
    {"notify, channel floor paced", "p50 us", "paced.floor.p50", "bare push", "paced.bare.p50", ""},
    {"query, 1 client, queryService", "p50 us", "query1.call.lib.p50", "hand-written",
     "query1.quiet.lib.p50", ""},
    {"query, 1 client, logs to stderr", "ops/s", "query1.lib.ops", "logs discarded",
     "query1.quiet.lib.ops", ""},
    {"query, 1 client, logs to stderr", "p50 us", "query1.lib.p50", "logs discarded",
     "query1.quiet.lib.p50", ""},
};

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// "value ±n%": the median, and half the range over the repetitions.
std::string formatSpread(const std::vector<double>& values) {
    const double mid = median(values);
    const auto [min, max] = std::minmax_element(values.begin(), values.end());
    char text[48];
    snprintf(text, sizeof(text),
             mid >= 1000 ? "%.0f ±%.0f%%"
             : mid >= 10 ? "%.1f ±%.0f%%"
                         : "%.2f ±%.0f%%",
             mid, mid > 0 ? 50.0 * (*max - *min) / mid : 0.0);
    return text;
}

// The target verdict: met when the ratio is on the named side of the bound.
std::string verdict(const char* target, double ratio) {
    if (*target == '\0') {
        return "";
    }
    const double bound = atof(target + 3);
    const bool met = target[0] == '>' ? ratio >= bound - 1e-9 : ratio <= bound + 1e-9;
    return std::string(target) + (met ? " met" : " MISSED");
}

void printTable(const Samples& samples) {
    printf("%-32s %-10s %-18s %-16s %-18s %-7s %s\n", "row", "figure", "library", "reference", "",
           "ratio", "target");
    for (const Line& line : kLines) {
        std::string reference, ratio, target;
        if (*line.referenceKey != '\0') {
            const double r = median(samples.at(line.referenceKey));
            const double q = r > 0 ? median(samples.at(line.key)) / r : 0;
            reference = formatSpread(samples.at(line.referenceKey));
            char text[16];
            snprintf(text, sizeof(text), "%.2f", q);
            ratio = text;
            target = verdict(line.target, q);
        }
        printf("%-32s %-10s %-18s %-16s %-18s %-7s %s\n", line.row, line.unit,
               formatSpread(samples.at(line.key)).c_str(), line.reference, reference.c_str(),
               ratio.c_str(), target.c_str());
    }
}

std::string firstWordsAfter(const char* path, const std::string& prefix) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(prefix, 0) == 0) {
            return line.substr(line.find(':') + 2);
        }
    }
    return "unknown";
}

std::string loadAverage() {
    std::ifstream in("/proc/loadavg");
    std::string one, five, fifteen;
    in >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

// This process's figures, "RSS threads descriptors": it hosts the service
// and its clients alike.
using Usage = std::array<long, 3>;

Usage usage() {
    return {std::stol(firstWordsAfter("/proc/self/status", "VmRSS:")), test::threadCount(),
            test::openFdCount()};
}

std::string describe(const std::string& when, const Usage& u, const Usage& base) {
    char text[160];
    snprintf(text, sizeof(text),
             "  %-30s RSS %6ld KiB (%+ld)   threads %3ld (%+ld)   descriptors %3ld (%+ld)\n",
             when.c_str(), u[0], u[0] - base[0], u[1], u[1] - base[1], u[2], u[2] - base[2]);
    return text;
}

// A fresh library service, before anything else has run in the process: its
// figures at start, after sequential queries and after channel cycles, each
// once the detached connection threads have ended. Returns the block.
std::string measureResources(const Plan& plan) {
    auto& service = test::immortal<test::TestService>(&test::immortal<test::ForwardingFactory>());
    service.answer = queryAnswerText();
    test::ServiceRunner runner(service);
    // Start-up is over once two readings 100 ms apart agree (at most 2 s).
    Usage start;
    test::waitUntil(
        [&] {
            const Usage last = usage();
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            start = usage();
            return start[1] == last[1] && start[2] == last[2];
        },
        std::chrono::seconds(2));
    const test::Baseline baseline{static_cast<int>(start[1]), static_cast<int>(start[2])};
    size_t failed = 0;
    for (size_t i = 0; i < plan.resourceQueries; ++i) {
        failed += libraryQuery() ? 0 : 1;
    }
    baseline.back(std::chrono::seconds(5));
    const Usage afterQueries = usage();
    Samples unused;
    failed += runChannelCycles(unused, "cycle", plan.resourceChannels);
    const bool flat = baseline.back(std::chrono::seconds(5));
    const Usage afterChannels = usage();
    libraryFailures += failed;
    return "\nservice resources (a fresh service; the bench process's own figures)\n" +
           describe("at start", start, start) +
           describe("after " + std::to_string(plan.resourceQueries) + " queries", afterQueries,
                    start) +
           describe("after " + std::to_string(plan.resourceChannels) + " channels", afterChannels,
                    start) +
           "  threads and descriptors back to baseline: " + (flat ? "yes" : "NO") +
           "; failed calls: " + std::to_string(failed) + "\n";
}

}  // namespace

int run(int argc, char** argv) {
    bool quick = false;
    bool verbose = false;
    int reps = 0;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--quick") == 0) {
            quick = true;
        } else if (strcmp(argv[i], "--verbose") == 0) {
            verbose = true;
        } else if (strcmp(argv[i], "--reps") == 0 && i + 1 < argc && atoi(argv[i + 1]) > 0) {
            reps = atoi(argv[++i]);
        } else {
            fprintf(stderr,
                    "usage: talvoem-bench [--quick] [--reps N] [--verbose]   (needs root)\n"
                    "  --quick    a smoke run of a few seconds\n"
                    "  --reps N   repetitions of every row (default 5; 1 with --quick)\n"
                    "  --verbose  keep the library's log lines (on stderr)\n");
            return strcmp(argv[i], "--help") == 0 ? 0 : 2;
        }
    }
    reps = reps > 0 ? reps : quick ? 1 : 5;
    const Plan& plan = quick ? kQuick : kFull;
    if (!test::enterPrivateSocketDir()) {
        return 1;
    }
    if (!verbose) {
        // liblog's stderr logger writes through the stream, not descriptor
        // 2, so the sanitizers' reports still reach the terminal.
        if (FILE* sink = fopen("/dev/null", "w")) {
            stderr = sink;
        }
    }
    __android_log_set_logger(__android_log_stderr_logger);
    utsname u = {};
    uname(&u);
    printf("talvoem-bench: %s run, %d repetition(s); medians ±half their range\n",
           quick ? "quick" : "full", reps);
    printf("machine: %s, %s, %ld CPUs, Linux %s; compiler %s; jsoncpp %s\n", u.machine,
           firstWordsAfter("/proc/cpuinfo", "model name").c_str(), sysconf(_SC_NPROCESSORS_ONLN),
           u.release, __VERSION__, JSONCPP_VERSION_STRING);
    printf("load average at start: %s\n", loadAverage().c_str());
    fflush(stdout);

    const std::string resources = measureResources(plan);
    auto& library = test::immortal<test::TestService>(&test::immortal<test::ForwardingFactory>());
    library.answer = queryAnswerText();
    Serving serving(library);
    if (!floor::start()) {
        fprintf(console, "talvoem-bench: the floor service did not start\n");
        return 1;
    }
    Samples warmUp;
    runQueries(warmUp, "lib", libraryQuery, 1, 0.2, 500);
    runQueries(
        warmUp, "floor", [] { return floor::query(false); }, 1, 0.2, 500);
    Samples samples;
    for (int rep = 0; rep < reps; ++rep) {
        runRepetition(rep, plan, library, serving, samples);
    }
    printf("\n");
    printTable(samples);
    printf("%sload average at end: %s\n", resources.c_str(), loadAverage().c_str());
    if (libraryFailures > 0) {
        fprintf(console, "talvoem-bench: %zu calls through the library failed\n", libraryFailures);
    }
    return libraryFailures == 0 ? 0 : 1;
}

}  // namespace talvoem::bench

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    return talvoem::bench::run(argc, argv);
}
