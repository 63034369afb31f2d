#pragma once

// What the fuzz targets and the tests that replay their corpora share beyond
// the test support library. A broken expectation aborts, which libFuzzer
// reports as a crash and which fails the replaying test; the message names
// the input being replayed.
#include <android/log.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include <cstdint>
#include <string>
#include <vector>

namespace talvoem::fuzz {

// Set by the replaying test to the file being run; empty while fuzzing.
inline std::string& currentInput() {
    static std::string name;
    return name;
}

inline void check(bool holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "fuzz expectation broken: %s%s%s\n", what,
                currentInput().empty() ? "" : " -- input ", currentInput().c_str());
        abort();
    }
}

// The packets of an input are separated by the byte 0x1E (the record
// separator); two separators in a row make an empty packet.
inline std::vector<std::string> splitPackets(const uint8_t* data, size_t size) {
    std::vector<std::string> packets(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0x1e) {
            packets.emplace_back();
        } else {
            packets.back().push_back(static_cast<char>(data[i]));
        }
    }
    return packets;
}

// libFuzzer's hang timer, SIGALRM, has a handler installed without
// SA_RESTART: landing on a thread blocked in the library's receive, it fails
// that receive with EINTR, which the library rightly takes for a broken
// connection the input never asked for. Called from the first input
// (libFuzzer installs its handlers after LLVMFuzzerInitialize), this lets
// interrupted calls restart; without a handler (replaying tests) it does
// nothing.
inline void restartCallsAfterTimerSignals() {
    [[maybe_unused]] static const bool done = [] {
        struct sigaction action = {};
        if (sigaction(SIGALRM, nullptr, &action) != 0 || action.sa_handler == SIG_DFL ||
            action.sa_handler == SIG_IGN) {
            return false;
        }
        action.sa_flags |= SA_RESTART;
        return sigaction(SIGALRM, &action, nullptr) == 0;
    }();
}

// Process set-up for a fuzzer (the replaying tests get theirs from the test
// main): a broken pipe must not kill it, and the library's log is dropped
// unless TALVOEM_FUZZ_LOG is set, since every input logs.
inline void quietProcess() {
    signal(SIGPIPE, SIG_IGN);
    if (getenv("TALVOEM_FUZZ_LOG") == nullptr) {
        __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    }
}

}  // namespace talvoem::fuzz
