#include "Report.h"

#include <json/version.h>
#include <stdio.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <fstream>

#include "Stats.h"

namespace talvoem::bench {

namespace {

enum class Better { kHigher, kLower, kNone };

// One line of the table: a library figure against a reference figure.
struct Line {
    const char* row;
    const char* unit;
    const char* key;
    const char* reference;  // what the reference is; nullptr when none
    const char* referenceKey;
    Better better;
    double target;  // on the ratio; 0 when the line has none
};

const Line kLines[] = {
    {"query, 1 client", "ops/s", "query1.lib.ops", "query floor", "query1.floor.ops",
     Better::kHigher, 1 / 1.2},
    {"query, 1 client", "p50 us", "query1.lib.p50", "query floor", "query1.floor.p50",
     Better::kLower, 1.2},
    {"query, 1 client", "p99 us", "query1.lib.p99", "query floor", "query1.floor.p99",
     Better::kLower, 0},
    {"query, 8 clients", "ops/s", "query8.lib.ops", "query floor", "query8.floor.ops",
     Better::kHigher, 1 / 1.2},
    {"query, 8 clients", "p50 us", "query8.lib.p50", "query floor", "query8.floor.p50",
     Better::kLower, 1.2},
    {"query, 8 clients", "p99 us", "query8.lib.p99", "query floor", "query8.floor.p99",
     Better::kLower, 0},
    {"notify, paced 1/ms", "p50 us", "paced.lib.p50", "channel floor", "paced.floor.p50",
     Better::kLower, 1.3},
    {"notify, paced 1/ms", "p50 us", "paced.lib.p50", "bare push", "paced.bare.p50", Better::kLower,
     0},
    {"notify, paced 1/ms", "p99 us", "paced.lib.p99", "channel floor", "paced.floor.p99",
     Better::kLower, 0},
    {"notify, flood", "msgs/s", "flood.lib.rate", "channel floor", "flood.floor.rate",
     Better::kHigher, 0.8},
    {"notify, flood", "msgs/s", "flood.lib.rate", "bare push", "flood.bare.rate", Better::kHigher,
     0},
    {"notify, flood", "delivered", "flood.lib.delivered", "sent", "flood.sent", Better::kHigher,
     1.0},
    {"channel set-up", "p50 us", "cycle.setup.p50", nullptr, nullptr, Better::kNone, 0},
    {"channel set-up", "p99 us", "cycle.setup.p99", nullptr, nullptr, Better::kNone, 0},
    {"channel tear-down", "p50 us", "cycle.teardown.p50", nullptr, nullptr, Better::kNone, 0},
    {"channel tear-down", "p99 us", "cycle.teardown.p99", nullptr, nullptr, Better::kNone, 0},
    {"query floor, 1 client", "p50 us", "query1.floor.p50", "served inline", "query1.inline.p50",
     Better::kNone, 0},
    {"query floor, fresh 512 KiB bufs", "p50 us", "query1.fresh.p50", "query floor",
     "query1.floor.p50", Better::kNone, 0},
    {"notify, channel floor paced", "p50 us", "paced.floor.p50", "bare push", "paced.bare.p50",
     Better::kNone, 0},
    {"query, 1 client, logs to stderr", "ops/s", "query1.lib.ops", "logs discarded",
     "query1.quiet.ops", Better::kNone, 0},
    {"query, 1 client, logs to stderr", "p50 us", "query1.lib.p50", "logs discarded",
     "query1.quiet.p50", Better::kNone, 0},
};

std::string formatValue(double v) {
    char text[32];
    snprintf(text, sizeof(text), v >= 1000 ? "%.0f" : v >= 10 ? "%.1f" : "%.2f", v);
    return text;
}

// "value ±n%": the median and half the range over the repetitions.
std::string formatSpread(const Spread& s) {
    const int half = s.median > 0 ? static_cast<int>(50.0 * (s.max - s.min) / s.median + 0.5) : 0;
    return formatValue(s.median) + " ±" + std::to_string(half) + "%";
}

std::string verdict(const Line& line, double ratio) {
    if (line.target == 0) {
        return "";
    }
    const bool met =
        line.better == Better::kHigher ? ratio >= line.target - 1e-9 : ratio <= line.target + 1e-9;
    char text[32];
    snprintf(text, sizeof(text), "%s %.2f %s",
             line.better == Better::kHigher ? ">=" : "<=", line.target, met ? "met" : "MISSED");
    return text;
}

std::string firstLine(const char* path, const char* prefix) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(prefix, 0) == 0) {
            size_t colon = line.find(':');
            return colon == std::string::npos ? line : line.substr(colon + 2);
        }
    }
    return "unknown";
}

}  // namespace

std::string loadAverage() {
    std::ifstream in("/proc/loadavg");
    std::string one, five, fifteen;
    in >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

std::string describeMachine() {
    utsname u = {};
    uname(&u);
    std::string cpu = firstLine("/proc/cpuinfo", "model name");
    return std::string(u.machine) + ", " + cpu + ", " +
           std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) + " CPUs, Linux " + u.release +
           "; compiler " + __VERSION__ + "; jsoncpp " + JSONCPP_VERSION_STRING;
}

void printTable(const Samples& samples) {
    printf("%-32s %-10s %-18s %-16s %-18s %-7s %s\n", "row", "figure", "library", "reference", "",
           "ratio", "target");
    for (const Line& line : kLines) {
        auto lib = samples.find(line.key);
        if (lib == samples.end()) {
            continue;
        }
        const Spread l = spreadOf(lib->second);
        std::string refText, ratioText, target;
        if (line.referenceKey != nullptr && samples.count(line.referenceKey) != 0) {
            const Spread r = spreadOf(samples.at(line.referenceKey));
            refText = formatSpread(r);
            const double ratio = r.median > 0 ? l.median / r.median : 0;
            char text[16];
            snprintf(text, sizeof(text), "%.2f", ratio);
            ratioText = text;
            target = verdict(line, ratio);
        }
        printf("%-32s %-10s %-18s %-16s %-18s %-7s %s\n", line.row, line.unit,
               formatSpread(l).c_str(), line.reference ? line.reference : "", refText.c_str(),
               ratioText.c_str(), target.c_str());
    }
}

}  // namespace talvoem::bench
