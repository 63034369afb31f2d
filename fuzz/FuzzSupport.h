#pragma once

// Shared by the fuzz targets and by the tests that replay their corpora.
// A broken expectation aborts, which libFuzzer reports as a crash and which
// fails the replaying test; the message names the input being replayed.
#include <android/log.h>
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
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

// Packets of a channel input are separated by the byte 0x1E (the record
// separator); two separators in a row make an empty packet.
constexpr char kPacketSeparator = '\x1e';

inline std::vector<std::string> splitPackets(const uint8_t* data, size_t size) {
    std::vector<std::string> packets(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == static_cast<uint8_t>(kPacketSeparator)) {
            packets.emplace_back();
        } else {
            packets.back().push_back(static_cast<char>(data[i]));
        }
    }
    return packets;
}

// Sends exactly `bytes` as one packet; false when the peer is gone (or, with
// MSG_DONTWAIT in `flags`, when its queue is full).
inline bool sendPacket(int fd, const std::string& bytes, int flags = 0) {
    return send(fd, bytes.data(), bytes.size(), flags | MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

enum class Recv { kData, kClosed, kTimeout };

// Larger than any packet the library sends or receives.
constexpr size_t kMaxPacket = 1 << 20;

// True when `fd` becomes readable within `timeout`. A signal that interrupts
// the wait does not end it early.
inline bool waitReadable(int fd, std::chrono::milliseconds timeout) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + timeout;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd pfd = {fd, POLLIN, 0};
        const int ready = poll(&pfd, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
        if (ready >= 0 || errno != EINTR) {
            return ready == 1;
        }
    }
}

// Receives one packet within `timeout`. A peer that closed with packets of
// ours unread leaves an ECONNRESET that the next receive reports once, ahead
// of the packets it sent before closing; those are still read.
inline Recv recvPacket(int fd, std::string& bytes,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    // One per thread, left uninitialised: clearing a megabyte for every
    // packet would cost more than the code under test.
    thread_local std::unique_ptr<char[]> buffer(new char[kMaxPacket]);
    for (;;) {
        if (!waitReadable(fd, timeout)) {
            return Recv::kTimeout;
        }
        ssize_t n = recv(fd, buffer.get(), kMaxPacket, 0);
        if (n > 0) {
            bytes.assign(buffer.get(), static_cast<size_t>(n));
            return Recv::kData;
        }
        if (n == 0 || errno != ECONNRESET) {
            return Recv::kClosed;
        }
    }
}

// libFuzzer raises SIGALRM every (-timeout / 2 + 1) seconds to watch for
// hangs, with a handler installed without SA_RESTART. Landing on a thread
// blocked in the library's receive, it makes that receive fail with EINTR,
// which the library rightly treats as a broken connection: a fault the input
// never asked for. Called from the first input (libFuzzer installs its
// handlers after LLVMFuzzerInitialize), this keeps the handler and lets
// interrupted calls restart. Without a handler (replaying tests) it does
// nothing.
inline void restartCallsAfterTimerSignals() {
    static const bool done = [] {
        struct sigaction action = {};
        if (sigaction(SIGALRM, nullptr, &action) != 0 || action.sa_handler == SIG_DFL ||
            action.sa_handler == SIG_IGN) {
            return false;
        }
        action.sa_flags |= SA_RESTART;
        return sigaction(SIGALRM, &action, nullptr) == 0;
    }();
    (void)done;
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
