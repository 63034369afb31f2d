// The transport: the connect retry schedule, one message per packet, the
// 512 KiB receive limit, and the result code and log lines of every failure.
// A socketpair stands in for the peer wherever no path is needed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "DescriptorsExhausted.h"
#include "LogCapture.h"
#include "SocketTransport.h"
#include "Wire.h"

using namespace talvoem::test;

namespace {

constexpr size_t kLimit = 524288;
const std::string kRetry = "establishConnection retry: ";
const std::string kConnectFailed = "Failed to connect to TALVO OEM Query Service (";

std::vector<std::string> linesStartingWith(const LogCapture& log, int priority,
                                           const std::string& prefix) {
    std::vector<std::string> found;
    for (const LogLine& line : log.lines()) {
        if (line.priority == priority && line.text.rfind(prefix, 0) == 0) {
            found.push_back(line.text);
        }
    }
    return found;
}

// A SOCK_SEQPACKET socket bound at the service path, not yet listening.
int bindServicePath() {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, "/dev/socket/talvoem", sizeof(addr.sun_path) - 1);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Six attempts, five debug lines with the doubling interval, one error line
// per attempt; the sixth attempt's own result comes back, and no attempt
// leaves a descriptor behind.
TEST(Connection, RetriesFiveTimesThenReturnsTheLastResult) {
    const std::vector<std::string> schedule = {
        kRetry + "0, interval: 20", kRetry + "1, interval: 40", kRetry + "2, interval: 80",
        kRetry + "3, interval: 160", kRetry + "4, interval: 320"};
    struct Case {
        const char* what;
        std::function<int()> connect;
        int result;
        std::string failure;
    };
    const Case cases[] = {
        {"no socket file", establishConnection, -2, "connection failed No such file or directory)"},
        {"bound, not listening",
         [] {
             int bound = bindServicePath();
             int fd = establishConnection();
             close(bound);
             unlink("/dev/socket/talvoem");
             return fd;
         },
         -2, "connection failed Connection refused)"},
        {"no descriptor free",
         [] {
             DescriptorsExhausted exhausted;
             return establishConnection();
         },
         -1, "socket creation failed Too many open files)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const int fdsBefore = openFdCount();
        LogCapture log;
        EXPECT_EQ(c.connect(), c.result);
        EXPECT_EQ(openFdCount(), fdsBefore);
        EXPECT_EQ(linesStartingWith(log, ANDROID_LOG_DEBUG, kRetry), schedule);
        EXPECT_EQ(log.count(ANDROID_LOG_ERROR, kConnectFailed + c.failure), 6u);
        EXPECT_EQ(log.lines().size(), 11u);
    }
}

// The listener appears once the first attempt has failed: the first attempt
// that finds it is returned, connected, and the retry lines stop there.
TEST(Connection, ServiceAppearingBetweenAttemptsIsUsed) {
    LogCapture log;
    int listener = -1;
    std::thread service([&] {
        log.waitFor(ANDROID_LOG_ERROR,
                    kConnectFailed + "connection failed No such file or directory)");
        listener = bindServicePath();
        listen(listener, 1);
    });
    int fd = establishConnection();
    service.join();
    ASSERT_GE(fd, 0) << "the service listened within the retry schedule";
    const size_t failed = linesStartingWith(log, ANDROID_LOG_ERROR, kConnectFailed).size();
    EXPECT_GE(failed, 1u);
    EXPECT_EQ(linesStartingWith(log, ANDROID_LOG_DEBUG, kRetry).size(), failed);

    int peer = accept(listener, nullptr, nullptr);
    std::string request = "{\"api\":\"queryPolicy\"}\n";
    EXPECT_EQ(sendMsg(fd, request), 0);
    EXPECT_EQ(recvRaw(peer).bytes, request);
    EXPECT_EQ(closeConnection(fd), 0);
    EXPECT_EQ(recvRaw(peer).status, Packet::kClosed);
    close(peer);
    close(listener);
}

// Both ends of a SOCK_SEQPACKET pair; `local` is the library's side.
struct Pair {
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
        }
        fd = -1;
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

TEST(Packet, SendGoesUpToTheFirstNulAndLeavesTheTextAlone) {
    const std::pair<std::string, std::string> cases[] = {
        {"{\"code\":0}\n", "{\"code\":0}\n"},
        {std::string("{\"a\":1}\0{\"b\":2}", 15), "{\"a\":1}"},
        {std::string("\0abc", 4), ""},
        {"", ""},
    };
    for (const auto& [text, onWire] : cases) {
        SCOPED_TRACE(text);
        Pair pair;
        LogCapture log;
        std::string sent = text;
        EXPECT_EQ(sendMsg(pair.local, sent), 0);
        EXPECT_EQ(sent, text);
        Packet packet = recvRaw(pair.peer);
        EXPECT_EQ(packet.status, onWire.empty() ? Packet::kClosed : Packet::kData)
            << "a zero-length packet reads like a close";
        EXPECT_EQ(packet.bytes, onWire);
        EXPECT_TRUE(log.lines().empty());
    }
}

// A packet comes back whole up to 512 KiB, NUL bytes included, replacing the
// string's content; a longer one is cut and its rest discarded.
TEST(Packet, ReceiveKeepsAtMost512KiBOfAPacket) {
    const std::pair<std::string, size_t> cases[] = {
        {std::string("{\"d\":\"x\0y\"}", 11), 11},
        {pattern(kLimit - 1), kLimit - 1},
        {pattern(kLimit), kLimit},
        {pattern(kLimit + 1), kLimit},
        {pattern(kLimit + 100000), kLimit},
    };
    for (const auto& [text, kept] : cases) {
        SCOPED_TRACE(text.size());
        Pair pair;
        int sndbuf = static_cast<int>(text.size() * 2 + 65536);  // root may exceed wmem_max
        ASSERT_EQ(setsockopt(pair.peer, SOL_SOCKET, SO_SNDBUFFORCE, &sndbuf, sizeof(sndbuf)), 0);
        ASSERT_TRUE(sendRaw(pair.peer, text));
        ASSERT_TRUE(sendRaw(pair.peer, "next"));
        std::string out = "a previous message, longer than the next one";
        EXPECT_EQ(recvMsg(pair.local, out), static_cast<ssize_t>(kept));
        EXPECT_TRUE(out == text.substr(0, kept));
        EXPECT_EQ(recvMsg(pair.local, out), 4);
        EXPECT_EQ(out, "next");
    }
}

// Nothing received: the string keeps its content, and one error line gives
// the system's text (for 0 it is whatever errno held, so only the prefix).
TEST(Packet, ReceiveFailuresLeaveTheStringAlone) {
    const std::string failed = "Failed to receive packet - ";
    struct Case {
        const char* what;
        std::function<int(Pair&)> prepare;  // returns the descriptor to read
        ssize_t result;
        std::string line;
    };
    const Case cases[] = {
        {"empty packet", [](Pair& p) { return sendRaw(p.peer, "") ? p.local : -100; }, 0, failed},
        {"peer closed", [](Pair& p) { return Pair::closeEnd(p.peer), p.local; }, 0, failed},
        {"negative descriptor", [](Pair&) { return -1; }, -1, failed + "Bad file descriptor"},
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
        EXPECT_EQ(lines[0].text.substr(0, c.line.size()), c.line);
    }
}

TEST(Packet, SendFailuresReturnTheirCodeAndLines) {
    const LogLine invalid{ANDROID_LOG_WARN, "Could not send message, because fd is invalid!"};
    const LogLine failed{ANDROID_LOG_ERROR, "Failed to send packet"};
    const LogLine crashed{ANDROID_LOG_WARN, "Remote may has crashed"};
    struct Case {
        const char* what;
        std::function<int(Pair&)> prepare;  // returns the descriptor to send on
        std::string text;
        int result;
        std::vector<LogLine> lines;
    };
    const Case cases[] = {
        {"negative descriptor", [](Pair&) { return -1; }, "{}", -1, {invalid}},
        {"peer gone",
         [](Pair& p) { return Pair::closeEnd(p.peer), p.local; },
         "{}",
         -4,
         {failed, crashed}},
        {"own side shut",
         [](Pair& p) { return shutdown(p.local, SHUT_WR), p.local; },
         "{}",
         -4,
         {failed, crashed}},
        {"not a socket",
         [](Pair& p) {
             Pair::closeEnd(p.local);
             return p.local = open("/dev/null", O_WRONLY);
         },
         "{}",
         -3,
         {failed}},
        {"larger than the send buffer",
         [](Pair& p) { return p.local; },
         pattern(4 << 20),
         -3,
         {failed}},
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
    EXPECT_EQ(closeConnection(pair.local), 0);
    EXPECT_EQ(fcntl(pair.local, F_GETFD), -1);
    pair.local = -1;
    EXPECT_EQ(recvRaw(pair.peer).status, Packet::kClosed);
    EXPECT_EQ(log.lines().size(), 2u);
}

}  // namespace
