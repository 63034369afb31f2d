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

// Receives one packet within `timeout`. A peer that closed with packets of
// ours unread leaves an ECONNRESET that the next receive reports once, ahead
// of the packets it sent before closing; those are still read.
inline Recv recvPacket(int fd, std::string& bytes,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    // One per thread, left uninitialised: clearing a megabyte for every
    // packet would cost more than the code under test.
    thread_local std::unique_ptr<char[]> buffer(new char[kMaxPacket]);
    for (;;) {
        pollfd pfd = {fd, POLLIN, 0};
        if (poll(&pfd, 1, static_cast<int>(timeout.count())) != 1) {
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
