// The transport: the connect retry schedule, one message per packet up to
// the 512 KiB receive limit whatever the default send buffer, and the result
// code and log lines of every failure. A socketpair stands in for the peer
// wherever no path is needed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <thread>

#include "LogCapture.h"
#include "SocketTransport.h"
#include "Wire.h"

using namespace talvoem::test;

namespace {

const std::string kConnectFailed = "Failed to connect to TALVO OEM Query Service (";
const LogLine kInvalidSend{ANDROID_LOG_WARN, "Could not send message, because fd is invalid!"};
const LogLine kSendFailed{ANDROID_LOG_ERROR, "Failed to send packet"};
const LogLine kCrashed{ANDROID_LOG_WARN, "Remote may has crashed"};

// Six attempts with the doubling interval between them, each failing with
// its own line; the sixth attempt's result comes back and nothing leaks.
TEST(Connection, RetriesFiveTimesThenReturnsTheLastResult) {
    const std::pair<int, std::string> cases[] = {
        {-2, "connection failed No such file or directory)"},
        {-1, "socket creation failed Too many open files)"},
    };
    for (const auto& [result, failure] : cases) {
        SCOPED_TRACE(failure);
        const int fdsBefore = openFdCount();
        LogCapture log;
        // A limit of no descriptors at all: every socket() fails with EMFILE.
        rlimit saved, none = {0, 0};
        getrlimit(RLIMIT_NOFILE, &saved);
        none.rlim_max = saved.rlim_max;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, result == -1 ? &none : &saved), 0);
        EXPECT_EQ(establishConnection(), result);
        setrlimit(RLIMIT_NOFILE, &saved);
        EXPECT_EQ(openFdCount(), fdsBefore);
        std::vector<LogLine> expected = {{ANDROID_LOG_ERROR, kConnectFailed + failure}};
        for (int retry = 0, ms = 20; retry < 5; ++retry, ms *= 2) {
            expected.push_back(
                {ANDROID_LOG_DEBUG, "establishConnection retry: " + std::to_string(retry) +
                                        ", interval: " + std::to_string(ms)});
            expected.push_back(expected[0]);
        }
        EXPECT_EQ(log.lines(), expected);
    }
}

// Both ends of a SOCK_SEQPACKET pair with default buffers; `local` is the
// library's side. An end a test has closed is set to -1.
struct Pair {
    Pair() { EXPECT_TRUE(seqpacketPair(fds)); }
    ~Pair() { close(local), close(peer); }
    int fds[2];
    int& local = fds[0];
    int& peer = fds[1];
};

// Any message up to 512 KiB travels whole through the default send buffer
// (212,992 bytes on most machines), NUL bytes included on receiving; a longer
// one is cut and the rest of its packet discarded. The receive replaces the
// string's content. A message is sent up to its first NUL.
TEST(Packet, MessagesUpTo512KiBArriveWholeLongerOnesAreCut) {
    const size_t sizes[] = {200 * 1024,    300 * 1024,        kReceiveLimit - 1,
                            kReceiveLimit, kReceiveLimit + 1, kReceiveLimit + 100000};
    for (size_t size : sizes) {
        SCOPED_TRACE(size);
        Pair pair;
        LogCapture log;
        std::string text(size, 'm');
        std::thread sender([&] { EXPECT_EQ(sendMsg(pair.local, text), 0); });
        std::string out = "a previous message";
        const size_t kept = std::min(size, kReceiveLimit);
        EXPECT_EQ(recvMsg(pair.peer, out), static_cast<ssize_t>(kept));
        sender.join();
        EXPECT_TRUE(out == text.substr(0, kept));
        ASSERT_TRUE(sendRaw(pair.local, std::string("x\0y", 3)));
        EXPECT_EQ(recvMsg(pair.peer, out), 3);
        EXPECT_EQ(out, std::string("x\0y", 3));
        EXPECT_TRUE(log.lines().empty());
    }
    Pair pair;
    std::string text("{\"a\":1}\0{\"b\":2}", 15);
    EXPECT_EQ(sendMsg(pair.local, text), 0);
    EXPECT_EQ(recvRaw(pair.peer).bytes, "{\"a\":1}") << "sent up to the first NUL";
    EXPECT_EQ(text.size(), 15u) << "and left alone";
}

// Nothing received: the string keeps its content, and one error line gives
// the system's text (for 0 it is whatever errno held, so only the prefix).
TEST(Packet, ReceiveFailuresLeaveTheStringAlone) {
    const std::string failed = "Failed to receive packet - ";
    const std::tuple<const char*, std::function<int(Pair&)>, ssize_t, std::string> cases[] = {
        {"empty packet", [](Pair& p) { return sendRaw(p.local, ""), p.peer; }, 0, failed},
        {"peer closed", [](Pair& p) { return close(p.local), p.local = -1, p.peer; }, 0, failed},
        {"negative descriptor", [](Pair&) { return -1; }, -1, failed + "Bad file descriptor"},
    };
    for (const auto& [what, prepare, result, line] : cases) {
        SCOPED_TRACE(what);
        Pair pair;
        int fd = prepare(pair);
        LogCapture log;
        std::string out = "kept";
        EXPECT_EQ(recvMsg(fd, out), result);
        EXPECT_EQ(out, "kept");
        auto lines = log.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].priority, ANDROID_LOG_ERROR);
        EXPECT_EQ(lines[0].text.substr(0, line.size()), line);
    }
}

size_t wmemMax() {
    size_t max = 0;
    std::ifstream("/proc/sys/net/core/wmem_max") >> max;
    return max;
}

// Two threads sending large messages on one descriptor, each raising the
// buffer from the default at the same moment: neither may lower what the
// other raised, so every send that fits the largest buffer succeeds and
// arrives whole. A fresh pair per round, so each round starts from the default.
TEST(Packet, ConcurrentLargeSendersOnOneDescriptorAllArriveWhole) {
    const std::string texts[] = {std::string(std::min<size_t>(500000, 2 * wmemMax() - 64), 'a'),
                                 std::string(213000, 'b')};
    for (int round = 0; round < 1000; ++round) {
        Pair pair;
        std::atomic<int> ready{0};
        auto send = [&](std::string text) {
            for (++ready; ready < 2;) {
                std::this_thread::yield();
            }
            EXPECT_EQ(sendMsg(pair.local, text), 0) << "round " << round;
        };
        std::thread first(send, texts[0]), second(send, texts[1]);
        const std::string one = recvRaw(pair.peer).bytes, other = recvRaw(pair.peer).bytes;
        first.join();
        second.join();
        ASSERT_TRUE((one == texts[0] && other == texts[1]) ||
                    (one == texts[1] && other == texts[0]))
            << "round " << round;
    }
}

TEST(Packet, SendFailuresReturnTheirCodeAndLines) {
    // Beyond what SO_SNDBUF may be raised to: the send fails as it always did,
    // and says once per process how large the packet was and what the limit is
    // (the buffer asked for fits the receive limit, the kernel grants at most
    // twice wmem_max, and 32 bytes of it are the kernel's).
    const std::string tooLong(2 * wmemMax() + 1, 'm');
    const size_t sendLimit = std::min(2 * wmemMax(), 2 * (kReceiveLimit + 32)) - 32;
    const std::tuple<const char*, std::function<int(Pair&)>, std::string, int, std::vector<LogLine>>
        cases[] = {
            {"negative descriptor", [](Pair&) { return -1; }, "{}", -1, {kInvalidSend}},
            {"peer gone",
             [](Pair& p) { return close(p.peer), p.peer = -1, p.local; },
             "{}",
             -4,
             {kSendFailed, kCrashed}},
            {"not a socket",
             [](Pair& p) { return close(p.local), p.local = open("/dev/null", O_WRONLY); },
             "{}",
             -3,
             {kSendFailed}},
            {"beyond the largest send buffer",
             [](Pair& p) { return p.local; },
             tooLong,
             -3,
             {kSendFailed,
              {ANDROID_LOG_ERROR, "A " + std::to_string(tooLong.size()) +
                                      "-byte packet exceeds the " + std::to_string(sendLimit) +
                                      " bytes this socket can "
                                      "send (its buffer fits the receive limit where "
                                      "net.core.wmem_max allows)"}}},
        };
    for (const auto& [what, prepare, text, result, lines] : cases) {
        SCOPED_TRACE(what);
        Pair pair;
        int fd = prepare(pair);
        LogCapture log;
        std::string sent = text;
        EXPECT_EQ(sendMsg(fd, sent), result);
        EXPECT_EQ(log.lines(), lines);
    }
    Pair pair;
    LogCapture log;
    std::string again = tooLong;
    EXPECT_EQ(sendMsg(pair.local, again), -3);
    EXPECT_EQ(log.lines(), std::vector<LogLine>{kSendFailed}) << "the limit is told once";
}

TEST(Packet, CloseConnectionClosesOnlyValidDescriptors) {
    Pair pair;
    LogCapture log;
    EXPECT_EQ(closeConnection(-1), -1);
    EXPECT_EQ(log.lines(),
              (std::vector<LogLine>{
                  {ANDROID_LOG_WARN, "Could not close connection, because fd is invalid!"}}));
    EXPECT_EQ(closeConnection(pair.local), 0);
    EXPECT_EQ(fcntl(pair.local, F_GETFD), -1);
    pair.local = -1;
    EXPECT_EQ(recvRaw(pair.peer).status, Packet::kClosed);
}

}  // namespace
