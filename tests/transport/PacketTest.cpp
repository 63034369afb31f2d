// One message per packet: what sendMsg puts on the wire, what recvMsg hands
// back (and leaves alone when nothing came), the 512 KiB receive limit, and the
// result codes and log lines of every failure. A socketpair stands in for the
// peer; no path is needed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "LogCapture.h"
#include "SocketTransport.h"
#include "Wire.h"

using namespace talvoem::test;

namespace {

constexpr size_t kLimit = 524288;

// Owns both ends of a SOCK_SEQPACKET pair; `local` is the library's side.
class Pair {
public:
    Pair() {
        int fds[2];
        EXPECT_TRUE(seqpacketPair(fds));
        local = fds[0];
        peer = fds[1];
    }
    ~Pair() {
        closeEnd(local);
        closeEnd(peer);
    }
    static void closeEnd(int& fd) {
        if (fd >= 0) {
            close(fd);
            fd = -1;
        }
    }
    // Lets one packet of `bytes` leave `fd` whole (the default send buffer
    // refuses packets this large). Root may exceed the system-wide maximum.
    static void allowPacketsOf(int fd, size_t bytes) {
        int size = static_cast<int>(bytes * 2 + 65536);
        ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof(size)), 0);
    }

    int local;
    int peer;
};

std::string pattern(size_t n) {
    std::string text(n, '\0');
    for (size_t i = 0; i < n; ++i) {
        text[i] = static_cast<char>('a' + i % 26);
    }
    return text;
}

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.rfind(prefix, 0) == 0;
}

TEST(Packet, SendGoesUpToTheFirstNulAndLeavesTheTextAlone) {
    struct Case {
        const char* what;
        std::string text;
        std::string onWire;
    };
    const Case cases[] = {
        {"envelope with its line feed", "{\"code\":0}\n", "{\"code\":0}\n"},
        {"embedded NUL", std::string("{\"a\":1}\0{\"b\":2}", 15), "{\"a\":1}"},
        {"NUL first", std::string("\0abc", 4), ""},
        {"empty text", "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Pair pair;
        LogCapture log;
        std::string text = c.text;
        EXPECT_EQ(sendMsg(pair.local, text), 0);
        EXPECT_EQ(text, c.text);
        Packet packet = recvRaw(pair.peer);
        ASSERT_EQ(packet.status, c.onWire.empty() ? Packet::kClosed : Packet::kData)
            << "a zero-length packet reads like a close";
        EXPECT_EQ(packet.bytes, c.onWire);
        EXPECT_TRUE(log.lines().empty());
    }
}

TEST(Packet, ReceiveReplacesTheWholeStringWithThePacketBytes) {
    Pair pair;
    const std::string bytes("{\"data\":\"x\0y\"}\n", 15);
    ASSERT_TRUE(sendRaw(pair.peer, bytes));
    ASSERT_TRUE(sendRaw(pair.peer, "{}"));
    std::string out = "a previous message that is longer than the next ones";
    EXPECT_EQ(recvMsg(pair.local, out), static_cast<ssize_t>(bytes.size()));
    EXPECT_EQ(out, bytes) << "embedded NUL bytes are kept";
    EXPECT_EQ(recvMsg(pair.local, out), 2);
    EXPECT_EQ(out, "{}") << "one packet per call";
}

TEST(Packet, ReceiveKeepsAtMost512KiBOfAPacket) {
    struct Case {
        size_t sent;
        size_t kept;
    };
    const Case cases[] = {{kLimit - 1, kLimit - 1},
                          {kLimit, kLimit},
                          {kLimit + 1, kLimit},
                          {kLimit + 100000, kLimit}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.sent);
        Pair pair;
        Pair::allowPacketsOf(pair.local, c.sent);
        std::string text = pattern(c.sent);
        ASSERT_EQ(sendMsg(pair.local, text), 0);
        std::string next = "next";
        ASSERT_EQ(sendMsg(pair.local, next), 0);

        std::string out;
        EXPECT_EQ(recvMsg(pair.peer, out), static_cast<ssize_t>(c.kept));
        EXPECT_TRUE(out == text.substr(0, c.kept)) << "first bytes of the packet, in order";
        EXPECT_EQ(recvMsg(pair.peer, out), 4) << "the cut-off rest of the packet is discarded";
        EXPECT_EQ(out, "next");
    }
}

// Nothing received: the out string keeps what it held, and the failure line
// carries the system's text.
TEST(Packet, ReceiveFailuresLeaveTheStringAndLogTheReason) {
    struct Case {
        const char* what;
        std::function<int(Pair&)> prepare;  // returns the descriptor to read
        ssize_t result;
        std::string line;  // exact, or a prefix when the errno is not the call's own
        bool exact;
    };
    const Case cases[] = {
        {"empty packet",
         [](Pair& p) {
             sendRaw(p.peer, "");
             return p.local;
         },
         0, "Failed to receive packet - ", false},
        {"peer closed",
         [](Pair& p) {
             Pair::closeEnd(p.peer);
             return p.local;
         },
         0, "Failed to receive packet - ", false},
        {"negative descriptor", [](Pair&) { return -1; }, -1,
         "Failed to receive packet - Bad file descriptor", true},
        {"not a socket",
         [](Pair& p) {
             Pair::closeEnd(p.local);
             p.local = open("/dev/null", O_RDONLY);
             return p.local;
         },
         -1, "Failed to receive packet - Socket operation on non-socket", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Pair pair;
        int fd = c.prepare(pair);
        LogCapture log;
        std::string out = "kept";
        EXPECT_EQ(recvMsg(fd, out), c.result);
        EXPECT_EQ(out, "kept");
        auto lines = log.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].priority, ANDROID_LOG_ERROR);
        if (c.exact) {
            EXPECT_EQ(lines[0].text, c.line);
        } else {
            EXPECT_TRUE(startsWith(lines[0].text, c.line)) << lines[0].text;
        }
    }
}

TEST(Packet, SendFailuresReturnTheirCodeAndLines) {
    struct Case {
        const char* what;
        std::function<int(Pair&)> prepare;  // returns the descriptor to send on
        std::string text;
        int result;
        std::vector<LogLine> lines;
    };
    const LogLine sendFailed{ANDROID_LOG_ERROR, "Failed to send packet"};
    const LogLine crashed{ANDROID_LOG_WARN, "Remote may has crashed"};
    const Case cases[] = {
        {"negative descriptor",
         [](Pair&) { return -1; },
         "{}",
         -1,
         {{ANDROID_LOG_WARN, "Could not send message, because fd is invalid!"}}},
        {"any negative descriptor",
         [](Pair&) { return -7; },
         "{}",
         -1,
         {{ANDROID_LOG_WARN, "Could not send message, because fd is invalid!"}}},
        {"peer gone (EPIPE)",
         [](Pair& p) {
             Pair::closeEnd(p.peer);
             return p.local;
         },
         "{}",
         -4,
         {sendFailed, crashed}},
        {"own side shut for writing (EPIPE)",
         [](Pair& p) {
             shutdown(p.local, SHUT_WR);
             return p.local;
         },
         "{}",
         -4,
         {sendFailed, crashed}},
        {"not a socket (ENOTSOCK)",
         [](Pair& p) {
             Pair::closeEnd(p.local);
             p.local = open("/dev/null", O_WRONLY);
             return p.local;
         },
         "{}",
         -3,
         {sendFailed}},
        {"packet larger than the send buffer (EMSGSIZE)",
         [](Pair& p) { return p.local; },
         pattern(4 << 20),
         -3,
         {sendFailed}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Pair pair;
        int fd = c.prepare(pair);
        LogCapture log;
        std::string text = c.text;
        EXPECT_EQ(sendMsg(fd, text), c.result);
        auto lines = log.lines();
        ASSERT_EQ(lines.size(), c.lines.size());
        for (size_t i = 0; i < lines.size(); ++i) {
            EXPECT_EQ(lines[i].priority, c.lines[i].priority);
            EXPECT_EQ(lines[i].text, c.lines[i].text);
        }
    }
}

TEST(Packet, CloseConnectionClosesOnlyValidDescriptors) {
    Pair pair;
    LogCapture log;
    EXPECT_EQ(closeConnection(-1), -1);
    EXPECT_EQ(closeConnection(-2), -1);
    EXPECT_EQ(log.count(ANDROID_LOG_WARN, "Could not close connection, because fd is invalid!"),
              2u);
    EXPECT_EQ(log.lines().size(), 2u);

    EXPECT_EQ(closeConnection(pair.local), 0);
    EXPECT_EQ(fcntl(pair.local, F_GETFD), -1) << "the descriptor is closed";
    pair.local = -1;
    EXPECT_EQ(recvRaw(pair.peer).status, Packet::kClosed);
    EXPECT_EQ(log.lines().size(), 2u);
}

}  // namespace
