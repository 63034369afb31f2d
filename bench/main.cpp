// talvoem-bench: what a call through the library costs, beside what the same
// exchange costs by hand, measured side by side in one run.
//
//   talvoem-bench [--quick] [--reps N] [--verbose]
//
// Runs under talvoem-launcher, which hands it the control socket (scripts/bench
// does both). The library's service and the floors' service each run in a
// process of their own: this program again, started with --role.
#include <android/log.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "ChannelRows.h"
#include "QueryRows.h"
#include "Report.h"
#include "ServiceProcess.h"
#include "ServiceRole.h"
#include "StampBoard.h"

namespace talvoem::bench {

namespace {

struct Options {
    bool quick = false;
    bool verbose = false;
    int reps = 5;
};

// Sizes of one repetition, full or quick.
struct Plan {
    Budget query;
    size_t paced;
    size_t flood;
    size_t cycles;
    size_t resourceQueries;
    size_t resourceChannels;
};

constexpr Plan kFull = {{1.5, 200000}, 1000, 100000, 200, 10000, 1000};
constexpr Plan kQuick = {{0.2, 2000}, 50, 2000, 10, 200, 20};

void discardLog(const __android_logger_data*, const char*) {}

void addQuery(Samples& samples, const std::string& key, const QueryFigures& f) {
    samples[key + ".ops"].push_back(f.opsPerSec);
    samples[key + ".p50"].push_back(f.p50Us);
    samples[key + ".p99"].push_back(f.p99Us);
    if (f.failures > 0) {
        fprintf(stderr, "%s: %zu of %zu queries failed\n", key.c_str(), f.failures, f.ops);
    }
}

void addNotify(Samples& samples, const std::string& key, const NotifyFigures& f) {
    samples[key + ".p50"].push_back(f.p50Us);
    samples[key + ".p99"].push_back(f.p99Us);
    samples[key + ".rate"].push_back(f.msgsPerSec);
    samples[key + ".delivered"].push_back(static_cast<double>(f.delivered));
    if (f.delivered != f.expected) {
        fprintf(stderr, "%s: %zu of %zu notifications delivered\n", key.c_str(), f.delivered,
                f.expected);
    }
}

// One repetition of every row and floor. Within a pair, which one goes first
// alternates from one repetition to the next, so drift over the run is
// shared fairly.
void runRepetition(int rep, const Plan& plan, ServiceProcess& library, ServiceProcess& floor,
                   const StampBoard& board, Samples& samples) {
    const bool libFirst = rep % 2 == 0;
    for (int clients : {1, 8}) {
        const std::string key = "query" + std::to_string(clients);
        for (int i = 0; i < 2; ++i) {
            if ((i == 0) == libFirst) {
                addQuery(samples, key + ".lib", runQueries(libraryQuery, clients, plan.query));
            } else {
                addQuery(samples, key + ".floor", runQueries(floorQuery, clients, plan.query));
            }
        }
    }
    // What the design's fixed costs come to, on the floor itself.
    floor.command("serve inline reuse");
    addQuery(samples, "query1.inline", runQueries(floorQuery, 1, plan.query));
    floor.command("serve threads fresh");
    addQuery(samples, "query1.fresh", runQueries(floorQueryFreshBuffer, 1, plan.query));
    floor.command("serve threads reuse");
    library.command("log discard");
    addQuery(samples, "query1.quiet", runQueries(libraryQuery, 1, plan.query));
    library.command("log stderr");

    struct Kind {
        ChannelKind kind;
        ServiceProcess* service;
        const char* name;
    };
    Kind kinds[] = {{ChannelKind::kLibrary, &library, "lib"},
                    {ChannelKind::kFloor, &floor, "floor"},
                    {ChannelKind::kBare, &floor, "bare"}};
    if (!libFirst) {
        std::swap(kinds[0], kinds[1]);
    }
    for (const Kind& k : kinds) {
        addNotify(samples, std::string("paced.") + k.name,
                  runNotifications(k.kind, *k.service, board, plan.paced, 1000));
    }
    for (const Kind& k : kinds) {
        addNotify(samples, std::string("flood.") + k.name,
                  runNotifications(k.kind, *k.service, board, plan.flood, 0));
    }
    samples["flood.sent"].push_back(static_cast<double>(plan.flood));

    const CycleFigures cycles = runChannelCycles(plan.cycles);
    samples["cycle.setup.p50"].push_back(cycles.setupP50Us);
    samples["cycle.setup.p99"].push_back(cycles.setupP99Us);
    samples["cycle.teardown.p50"].push_back(cycles.teardownP50Us);
    samples["cycle.teardown.p99"].push_back(cycles.teardownP99Us);
}

// Waits up to 5 s for the service's threads and descriptors to come back to
// the baseline (connection threads end on their own, detached).
ProcessFigures settle(pid_t pid, const ProcessFigures& baseline) {
    ProcessFigures now = readProcessFigures(pid);
    for (int i = 0; i < 50; ++i) {
        if (now.threads <= baseline.threads && now.descriptors <= baseline.descriptors) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        now = readProcessFigures(pid);
    }
    return now;
}

// The service's figures once its start-up is over: "ready" comes when the
// socket listens, while its init thread may still be starting. Two readings
// 100 ms apart must agree (for at most 2 s).
ProcessFigures steadyFigures(pid_t pid) {
    ProcessFigures last = readProcessFigures(pid);
    for (int i = 0; i < 20; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const ProcessFigures now = readProcessFigures(pid);
        if (now.threads == last.threads && now.descriptors == last.descriptors) {
            return now;
        }
        last = now;
    }
    return last;
}

void printFigures(const char* when, const ProcessFigures& f, const ProcessFigures& base) {
    printf("  %-30s RSS %6ld KiB (%+ld)   threads %3ld (%+ld)   descriptors %3ld (%+ld)\n", when,
           f.rssKiB, f.rssKiB - base.rssKiB, f.threads, f.threads - base.threads, f.descriptors,
           f.descriptors - base.descriptors);
}

// A fresh library service: its figures at start, after sequential queries
// and after channel open/dispose cycles.
bool runResources(const Plan& plan, int boardFd, bool verbose) {
    ServiceProcess service("service", boardFd, verbose);
    if (!service.ready()) {
        return false;
    }
    const ProcessFigures start = steadyFigures(service.pid());
    size_t failed = 0;
    for (size_t i = 0; i < plan.resourceQueries; ++i) {
        failed += libraryQuery() ? 0 : 1;
    }
    const ProcessFigures afterQueries = settle(service.pid(), start);
    failed += runChannelCycles(plan.resourceChannels).failures;
    const ProcessFigures afterChannels = settle(service.pid(), start);
    printf("\nservice resources (a fresh service process)\n");
    printFigures("at start", start, start);
    printFigures(("after " + std::to_string(plan.resourceQueries) + " queries").c_str(),
                 afterQueries, start);
    printFigures(("after " + std::to_string(plan.resourceChannels) + " channels").c_str(),
                 afterChannels, start);
    const bool flat =
        afterChannels.threads == start.threads && afterChannels.descriptors == start.descriptors;
    printf("  threads and descriptors back to baseline: %s; failed calls: %zu\n",
           flat ? "yes" : "NO", failed);
    return failed == 0;
}

int usage(FILE* out, int status) {
    fprintf(out,
            "usage: talvoem-bench [--quick] [--reps N] [--verbose]\n"
            "Run it through scripts/bench, or under talvoem-launcher --namespace.\n"
            "  --quick    a smoke run of a few seconds\n"
            "  --reps N   repetitions of every row (default 5; 1 with --quick)\n"
            "  --verbose  keep the library's log lines (the services' stderr)\n");
    return status;
}

bool parseOptions(int argc, char** argv, Options& options) {
    bool repsGiven = false;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--quick") == 0) {
            options.quick = true;
        } else if (strcmp(argv[i], "--verbose") == 0) {
            options.verbose = true;
        } else if (strcmp(argv[i], "--reps") == 0 && i + 1 < argc) {
            options.reps = atoi(argv[++i]);
            repsGiven = true;
        } else {
            return false;
        }
    }
    if (options.quick && !repsGiven) {
        options.reps = 1;
    }
    return options.reps > 0;
}

int runRole(const char* role, const char* boardFd) {
    StampBoard* board = mapStampBoard(atoi(boardFd));
    if (board == nullptr) {
        return 1;
    }
    if (strcmp(role, "service") == 0) {
        return runLibraryService(board);
    }
    return strcmp(role, "floor") == 0 ? runFloorService(board) : 1;
}

int runBench(const Options& options) {
    const Plan& plan = options.quick ? kQuick : kFull;
    const int boardFd = createStampBoard();
    StampBoard* board = boardFd < 0 ? nullptr : mapStampBoard(boardFd);
    if (board == nullptr) {
        perror("talvoem-bench: stamp board");
        return 1;
    }
    printf("talvoem-bench: %s run, %d repetition(s); medians ±half their range\n",
           options.quick ? "quick" : "full", options.reps);
    printf("machine: %s\nload average at start: %s\n", describeMachine().c_str(),
           loadAverage().c_str());
    Samples samples;
    {
        ServiceProcess library("service", boardFd, options.verbose);
        ServiceProcess floor("floor", boardFd, options.verbose);
        if (!library.ready() || !floor.ready()) {
            fprintf(stderr, "talvoem-bench: a service process did not start\n");
            return 1;
        }
        runQueries(libraryQuery, 1, {0.2, 500});  // warm-up, not reported
        runQueries(floorQuery, 1, {0.2, 500});
        for (int rep = 0; rep < options.reps; ++rep) {
            runRepetition(rep, plan, library, floor, *board, samples);
        }
    }
    printf("\n");
    printTable(samples);
    const bool ok = runResources(plan, boardFd, options.verbose);
    printf("load average at end: %s\n", loadAverage().c_str());
    return ok ? 0 : 1;
}

}  // namespace

}  // namespace talvoem::bench

int main(int argc, char** argv) {
    using namespace talvoem::bench;
    signal(SIGPIPE, SIG_IGN);
    if (argc == 5 && strcmp(argv[1], "--role") == 0 && strcmp(argv[3], "--stamps") == 0) {
        return runRole(argv[2], argv[4]);
    }
    Options options;
    if (!parseOptions(argc, argv, options)) {
        return usage(stderr, 2);
    }
    if (getenv("ANDROID_SOCKET_talvoem") == nullptr) {
        fprintf(stderr, "talvoem-bench: no control socket; run it through scripts/bench\n");
        return usage(stderr, 2);
    }
    if (!options.verbose) {
        // The bench's own process is a client: its few log lines would only
        // clutter the table.
        __android_log_set_logger(discardLog);
    }
    return runBench(options);
}
