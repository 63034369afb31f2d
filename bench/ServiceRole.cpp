#include "ServiceRole.h"

#include <android/log.h>
#include <stdio.h>
#include <string.h>

#include <chrono>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

#include "Workload.h"

namespace talvoem::bench {

namespace {

void discardLog(const __android_logger_data*, const char*) {}

std::string push(ServiceControl& control, StampBoard* board, std::istringstream& args) {
    size_t count = 0;
    uint64_t intervalUs = 0;
    std::string mode;
    if (!(args >> count >> intervalUs >> mode) || count > StampBoard::kCapacity ||
        (mode != "queue" && mode != "bare")) {
        return "error bad push";
    }
    const bool bare = mode == "bare";
    const uint64_t start = nowNs();
    for (size_t i = 0; i < count; ++i) {
        if (intervalUs > 0) {
            const uint64_t due = start + i * intervalUs * 1000;
            const uint64_t now = nowNs();
            if (due > now) {
                std::this_thread::sleep_for(std::chrono::nanoseconds(due - now));
            }
        }
        board->reportedNs[i] = nowNs();
        if (!control.report(bare)) {
            return "error no channel";
        }
    }
    return "ok";
}

std::string setServing(ServiceControl& control, std::istringstream& args) {
    std::string threads, buffer;
    args >> threads >> buffer;
    if ((threads != "threads" && threads != "inline") || (buffer != "reuse" && buffer != "fresh")) {
        return "error bad serve";
    }
    return control.setServing(threads == "threads", buffer == "fresh") ? "ok" : "error not a floor";
}

std::string setLog(std::istringstream& args) {
    std::string where;
    args >> where;
    if (where == "discard") {
        __android_log_set_logger(discardLog);
    } else if (where == "stderr") {
        __android_log_set_logger(__android_log_stderr_logger);
    } else {
        return "error bad log";
    }
    return "ok";
}

}  // namespace

int runCommandLoop(ServiceControl& control, StampBoard* board) {
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream args(line);
        std::string verb;
        args >> verb;
        std::string reply = verb == "push"    ? push(control, board, args)
                            : verb == "log"   ? setLog(args)
                            : verb == "serve" ? setServing(control, args)
                                              : "error unknown command";
        printf("%s\n", reply.c_str());
        fflush(stdout);
    }
    return 0;
}

}  // namespace talvoem::bench
