#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace talvoem::test {

// A raw peer of the wire protocol, independent of the library's transport.

// Connects to /dev/socket/talvoem; -1 on failure.
int connectRaw();

// Sends `bytes` exactly (embedded NULs included) as one packet.
bool sendRaw(int fd, const std::string& bytes);

struct Packet {
    enum Status { kData, kClosed, kTimeout, kError } status;
    std::string bytes;
};
// Receives one packet (up to 1 MiB), waiting at most `timeout`.
Packet recvRaw(int fd, std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Connects, sends one request, returns the one reply; then reads until the
// service closes the connection. An empty string when nothing came back.
std::string roundTrip(const std::string& request);

// A SOCK_SEQPACKET socketpair, for channel classes tested without a path.
bool seqpacketPair(int fds[2]);

// Counts the process's open descriptors and threads (from /proc/self).
int openFdCount();
int threadCount();

// Polls `done` until it holds or `timeout` passes.
bool waitUntil(const std::function<bool()>& done,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace talvoem::test
