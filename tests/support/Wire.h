#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

// A peer of the wire protocol written without the library's transport, shared
// by the tests, the fuzz targets and the bench: the protocol's literal texts,
// raw sockets at the fixed path, and the private namespace they live in.
namespace talvoem::test {

constexpr const char* kServicePath = "/dev/socket/talvoem";
constexpr size_t kReceiveLimit = 524288;

// The texts the library writes, as they travel (each ends in a line feed).
inline const std::string kRegister = "{\"api\":\"setPolicyCallback\",\"type\":1}\n";
inline const std::string kDispose = "{\"api\":\"setPolicyCallback\",\"type\":2}\n";
inline const std::string kSuccess = "{\"code\":0,\"msg\":\"success\"}\n";
inline const std::string kExit = "{\"cmd\":2}\n";
constexpr uint16_t kConnectionLost = 100;
// {"cmd":1,"data":D,"type":T}; `data` must need no escaping.
std::string notifyText(uint16_t type, const std::string& data);
// {"code":C,"msg":M}; `msg` must need no escaping.
std::string envelopeText(int code, const std::string& msg);
// A query request with both members present.
std::string queryText(uint16_t type, const std::string& data);

// Moves the process into a private mount namespace with a fresh tmpfs on
// /dev/socket (needs root; call before any thread starts). False, with the
// reason on stderr, when that fails.
bool enterPrivateSocketDir();

// A socket of `type` bound at `path` (unlinked first), not listening; -1.
int bindPath(int type = SOCK_SEQPACKET, const char* path = kServicePath);

// Connects to the service path; -1 on failure.
int connectRaw();
// Connects to the service path from a child process running as `uid` (gid
// the same), so the service sees that caller; the connection is ours once
// the child has exited. The socket must be open to `uid` (chmod 0666).
// Needs root. -1 on failure; `pid` gets the child's pid.
int connectAs(uid_t uid, pid_t* pid = nullptr);
// Sends `bytes` exactly (NULs included) as one packet, never raising SIGPIPE.
bool sendRaw(int fd, const std::string& bytes, int flags = 0);

struct Packet {
    enum Status { kData, kClosed, kTimeout } status;
    std::string bytes;
};
// Receives one packet (up to 1 MiB) within `timeout`. Interrupted waits go
// on, and the one ECONNRESET a peer leaves when it closes with packets of
// ours unread is passed over, so the packets it sent before are still read.
Packet recvRaw(int fd, std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Connects, sends one request, returns the one reply ("" when none came),
// then waits for the service to close the connection.
std::string roundTrip(const std::string& request);
// Opens a channel by hand; -1 unless the service answered with success.
int registerRaw();
// Ends a raw connection from our side and waits until the peer has closed.
void closeRaw(int fd);
bool seqpacketPair(int fds[2]);

int openFdCount();
int threadCount();
// Polls `done` until it holds or `timeout` passes.
bool waitUntil(const std::function<bool()>& done,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));

// The process's threads and descriptors at one moment; back() waits until
// both have returned to it.
struct Baseline {
    int threads = threadCount();
    int fds = openFdCount();
    bool back(std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
        return waitUntil([&] { return threadCount() <= threads && openFdCount() <= fds; }, timeout);
    }
};

}  // namespace talvoem::test
