// The service side through real connections: the control socket's hand-over,
// a failing listen or accept, every request answered in band while the
// service goes on, channel registration, and the channel's sender alone over
// a socketpair.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <map>

#include "LogCapture.h"
#include "Service.h"
#include "SocketOemPolicyCBServer.h"
#include "Wire.h"

using namespace talvoem::test;

namespace {

const std::string kQuery = "{\"api\":\"queryPolicy\",\"data\":\"abc\",\"type\":3}\n";

std::string noSocketLine(int err) {
    return std::string("Server failed to connect to socket talvoem, error - ") + strerror(err);
}

// init's hand-over is trusted only for an open Unix-domain socket bound at
// /dev/socket/talvoem; a socket that is not the service's stays open.
TEST(Listener, WithoutAUsableControlSocketInitReturnsMinusOne) {
    TestService& service = immortal<TestService>(nullptr);
    const int elsewhere = bindPath(SOCK_SEQPACKET, "/dev/socket/talvoem_");
    const std::pair<std::string, int> cases[] = {
        {"unset", ENOENT},
        {"", ENOENT},
        {"12x", EINVAL},
        {"-3", EINVAL},
        {"987", EBADF},
        {"2147483648", EINVAL},
        {std::to_string(elsewhere), ENOTSOCK},
    };
    for (const auto& [value, err] : cases) {
        LogCapture log;
        setenv("ANDROID_SOCKET_talvoem", value.c_str(), 1);
        if (value == "unset") {
            unsetenv("ANDROID_SOCKET_talvoem");
        }
        EXPECT_EQ(service.init(), -1);
        EXPECT_EQ(log.lines(), (std::vector<LogLine>{{ANDROID_LOG_ERROR, noSocketLine(err)}}))
            << value;
    }
    EXPECT_EQ(fcntl(elsewhere, F_GETFD), 0) << "a socket that is not ours stays open";
    close(elsewhere);
}

TEST(Listener, ListenFailureClosesTheControlSocket) {
    TestService& service = immortal<TestService>(nullptr);
    LogCapture log;
    int fd = bindPath(SOCK_DGRAM);  // at the right path, but cannot listen
    setenv("ANDROID_SOCKET_talvoem", std::to_string(fd).c_str(), 1);
    EXPECT_EQ(service.init(), -1);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, std::string("Server failed to listen to socket, "
                                                            "error - ") +
                                                    strerror(EOPNOTSUPP)));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "control socket left open";
}

TEST(Listener, FailedAcceptEndsInitButAcceptedConnectionsAreServed) {
    TestService& service = immortal<TestService>(nullptr);
    LogCapture log;
    ServiceRunner runner(service);
    int early = connectRaw();
    ASSERT_GE(early, 0);
    ASSERT_TRUE(log.waitFor(ANDROID_LOG_INFO, "Server Connected to Client"));
    EXPECT_TRUE(log.waitFor(ANDROID_LOG_INFO, "Server waiting for client", 2));

    EXPECT_EQ(runner.stop(), -1);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "Server failed to accept packet over socket"));
    EXPECT_EQ(fcntl(runner.listenFd(), F_GETFD), -1) << "listening socket left open";
    EXPECT_LT(connectRaw(), 0);

    ASSERT_TRUE(sendRaw(early, kQuery));
    EXPECT_EQ(recvRaw(early).bytes, service.answer);
    EXPECT_EQ(recvRaw(early).status, Packet::kClosed);
    close(early);
}

// A connection that closes, or sends an empty packet, is closed unanswered.
TEST(Listener, ConnectionsThatBringNothingAreClosedWithoutAnswer) {
    TestService& service = immortal<TestService>(nullptr);
    LogCapture log;
    SocketOemQueryServer::svcHandlerThread(&service, -1);
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{{ANDROID_LOG_ERROR, "Invalid socket fd."}}));
    ServiceRunner runner(service);
    for (bool emptyPacket : {false, true}) {
        int fd = connectRaw();
        ASSERT_TRUE(emptyPacket ? sendRaw(fd, "") : shutdown(fd, SHUT_WR) == 0);
        EXPECT_EQ(recvRaw(fd).status, Packet::kClosed);
        close(fd);
    }
    EXPECT_EQ(service.served, 0);
}

// The service's answer goes back byte for byte, up to the 512 KiB a client
// can receive, whatever the default send buffer; type and data reach it.
TEST(Dispatch, QueryReachesTheServiceAndItsAnswerComesBackWhole) {
    TestService& service = immortal<TestService>(nullptr);
    ServiceRunner runner(service);
    EXPECT_EQ(roundTrip(kQuery), service.answer);
    EXPECT_EQ(service.lastType, 3);
    EXPECT_EQ(service.lastData, "abc");
    EXPECT_EQ(roundTrip("{\"api\":\"queryPolicy\",\"type\":65537}"), service.answer);
    EXPECT_EQ(service.lastType, 1);
    EXPECT_EQ(service.lastData, "");
    for (size_t size : {200 * 1024, 300 * 1024, static_cast<int>(kReceiveLimit)}) {
        service.answer = std::string(size, 'a');
        EXPECT_TRUE(roundTrip(kQuery) == service.answer) << size;
    }
}

// Without a callback factory every registration, whatever its type, gets code 6.
TEST(Dispatch, EveryBadRequestGetsItsEnvelopeAndTheServiceGoesOn) {
    const std::string parse = "Failed to parse request.", noApi = "Require not empty api.";
    const std::tuple<std::string, int, std::string, LogLine> cases[] = {
        {"x", 4, "Failed to get api.", {ANDROID_LOG_ERROR, "Server failed to get api."}},
        {"{}", 11, noApi, {ANDROID_LOG_ERROR, "Server require not empty api."}},
        {"{\"api\":\"\"}", 11, noApi, {ANDROID_LOG_ERROR, "Server require not empty api."}},
        {"{\"api\":\"QueryPolicy\"}",
         10,
         "No such api method.",
         {ANDROID_LOG_ERROR, "Server not define such api method."}},
        {"{\"api\":\"queryPolicy\",\"type\":\"3\"}",
         4,
         parse,
         {ANDROID_LOG_ERROR, "Server failed to parse request."}},
        {"{\"api\":\"setPolicyCallback\",\"type\":[1]}",
         4,
         parse,
         {ANDROID_LOG_ERROR, "Server failed to parse request."}},
        {kRegister, 6, "No callback factory", {ANDROID_LOG_WARN, "Server has no callback factory"}},
        {kDispose, 6, "No callback factory", {ANDROID_LOG_WARN, "Server has no callback factory"}},
    };
    TestService& service = immortal<TestService>(nullptr);
    ServiceRunner runner(service);
    for (const auto& [request, code, msg, line] : cases) {
        SCOPED_TRACE(request);
        std::string text = request, response;
        EXPECT_EQ(service.onTransact(-1, text, response), 0) << "a refusal is no failure";
        LogCapture log;
        EXPECT_EQ(roundTrip(request), envelopeText(code, msg));
        EXPECT_EQ(log.count(line.priority, line.text), 1u);
        EXPECT_EQ(roundTrip(kQuery), service.answer);
    }
    EXPECT_EQ(service.served, 8);
}

TEST(Dispatch, FallbackTextOnlyWhenTheServiceFailsWithoutAnswering) {
    const std::tuple<int8_t, std::string, std::string> cases[] = {
        {0, "", ""},  // nothing sent: the client sees the close
        {1, "", "{\"code\":-1,\"msg\":\"failed\"}"},
        {-1, "custom failure", "custom failure"},
    };
    TestService& service = immortal<TestService>(nullptr);
    ServiceRunner runner(service);
    for (const auto& [status, answer, reply] : cases) {
        service.status = status;
        service.answer = answer;
        std::string text = kQuery, response;
        EXPECT_EQ(service.onTransact(-1, text, response), status);
        LogCapture log;
        EXPECT_EQ(roundTrip(kQuery), reply);
        EXPECT_EQ(log.count(ANDROID_LOG_ERROR, "Server failed to call api."), answer != reply);
    }
}

const std::string kRefused = envelopeText(-1, "Server failed to set policy callback.");

struct ChannelFixture : testing::Test {
    EventLog& events = immortal<EventLog>();
    ForwardingFactory& factory = immortal<ForwardingFactory>(&events);
    TestService& service = immortal<TestService>(&factory, &events);
};

// Reports from several threads reach the client each in its own packet and
// in order per thread; the take-down withdraws the callback, then deletes it.
TEST_F(ChannelFixture, NotificationsFromManyThreadsArriveInOrderThenExitComesLast) {
    ServiceRunner runner(service);
    int fd = registerRaw();
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(service.waitForCallback(true));
    std::vector<std::thread> reporters;
    for (int t = 1; t <= 4; ++t) {
        reporters.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i) {
                service.report(static_cast<uint16_t>(t), std::to_string(i));
            }
        });
    }
    std::map<int, int> next;
    for (int n = 0; n < 4 * 50; ++n) {
        Packet packet = recvRaw(fd);
        ASSERT_EQ(packet.status, Packet::kData);
        int type = packet.bytes[packet.bytes.size() - 3] - '0';
        EXPECT_EQ(packet.bytes, notifyText(type, std::to_string(next[type]++)));
    }
    for (std::thread& t : reporters) {
        t.join();
    }
    ASSERT_TRUE(sendRaw(fd, kDispose));
    EXPECT_EQ(recvRaw(fd).bytes, kExit);
    EXPECT_EQ(recvRaw(fd).status, Packet::kClosed);
    close(fd);
    ASSERT_TRUE(waitUntil([&] { return events.events().size() == 3; }));
    EXPECT_EQ(events.events(),
              (std::vector<std::string>{"set callback", "set null", "callback deleted"}));
}

// One channel at most: a second registration waits 500 ms for the lock and
// is refused, leaving the first undisturbed; one whose wait sees the first
// channel end gets a channel of its own.
TEST_F(ChannelFixture, SecondRegistrationWaitsForTheLockAndIsRefusedUnlessItIsReleased) {
    LogCapture log;
    ServiceRunner runner(service);
    int first = registerRaw();
    ASSERT_TRUE(service.waitForCallback(true));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(roundTrip(kRegister), kRefused);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(450));
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_ERROR, "Server already established a policy callback connection"));
    service.report(9, "still here");
    EXPECT_EQ(recvRaw(first).bytes, notifyText(9, "still here"));
    auto second = std::async(std::launch::async, registerRaw);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // let it queue on the lock
    ASSERT_TRUE(sendRaw(first, kDispose));
    EXPECT_EQ(recvRaw(first).bytes, kExit);
    int fd = second.get();
    EXPECT_GE(fd, 0);
    closeRaw(fd);
    closeRaw(first);
}

TEST_F(ChannelFixture, RefusedRegistrationsLeaveNoChannelAndTheLockFree) {
    const std::string dispose = "Dispose should send with an established callback connection";
    const std::string noType = "Server not define such policy callback type.";
    const std::tuple<std::string, std::string, LogLine> cases[] = {
        {kDispose, envelopeText(11, dispose), {ANDROID_LOG_WARN, dispose}},
        {"{\"api\":\"setPolicyCallback\",\"type\":3}",
         envelopeText(-1, "No such type"),
         {ANDROID_LOG_DEBUG, noType}},
        {"{\"api\":\"setPolicyCallback\"}",
         envelopeText(-1, "No such type"),
         {ANDROID_LOG_DEBUG, noType}},
    };
    ServiceRunner runner(service);
    for (const auto& [request, reply, line] : cases) {
        LogCapture log;
        EXPECT_EQ(roundTrip(request), reply);
        EXPECT_TRUE(log.contains(line.priority, line.text)) << line.text;
    }
    LogCapture log;
    factory.makeNothing = true;
    EXPECT_EQ(roundTrip(kRegister), kRefused);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "Server failed to create callback from factory"));
    EXPECT_TRUE(events.events().empty()) << "the service saw nothing";
    factory.makeNothing = false;
    service.refuseCallback = true;
    EXPECT_EQ(roundTrip(kRegister), kRefused);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "Server failed to set policy callback"));
    EXPECT_EQ(events.events(), (std::vector<std::string>{"set callback", "callback deleted"}));
    service.refuseCallback = false;
    int fd = registerRaw();
    EXPECT_GE(fd, 0);
    closeRaw(fd);
}

// A client gone with notifications queued, or one that never reads while its
// socket fills and the send thread blocks, ends only its own channel; queries
// are served meanwhile.
TEST_F(ChannelFixture, ClientsThatVanishOrNeverReadEndOnlyTheirChannel) {
    service.echo = true;
    ServiceRunner runner(service);
    Baseline baseline;
    for (bool reads : {true, false}) {
        SCOPED_TRACE(reads ? "vanishes mid-flood" : "never reads");
        LogCapture log;
        int fd = registerRaw();
        ASSERT_TRUE(service.waitForCallback(true));
        const int flood = reads ? 10000 : 100000;
        std::atomic<int> reported{0};
        std::thread reporter([&] {
            for (; reported < flood; ++reported) {
                service.report(static_cast<uint16_t>(reported % 65535 + 1), "notification");
            }
        });
        for (int i = 0; reads && i < 100; ++i) {
            ASSERT_EQ(recvRaw(fd).status, Packet::kData);
        }
        for (int i = 0; !reads && i < 50; ++i) {
            ASSERT_EQ(roundTrip(queryText(3, std::to_string(i))), echoAnswer(3, std::to_string(i)));
        }
        EXPECT_TRUE(reads || reported < flood) << "the client never read: no backlog?";
        close(fd);
        reporter.join();
        EXPECT_TRUE(log.waitFor(ANDROID_LOG_ERROR,
                                "Server policy callback connection with client interrupted."));
        EXPECT_TRUE(service.waitForCallback(false));
        EXPECT_TRUE(baseline.back()) << threadCount() << " threads, " << openFdCount() << " fds";
    }
}

// The sender alone, with the test as its client over a socketpair.
struct Sender : testing::Test {
    void SetUp() override { ASSERT_TRUE(seqpacketPair(fds)); }
    void TearDown() override {
        close(fds[0]);
        close(fds[1]);
    }
    std::future<int> observe(SocketOemPolicyCBServer& sender) {
        return std::async(std::launch::async, [&sender] { return sender.observe(); });
    }
    int fds[2];  // [0] the service's end, [1] the client's
};

TEST_F(Sender, DropsBeforeRunningAndAfterEndAndSendsExitOnce) {
    LogCapture log;
    SocketOemPolicyCBServer sender(fds[0]);
    sender.onPolicyChanged(1, nullptr);
    auto result = observe(sender);
    EXPECT_EQ(recvRaw(fds[1]).bytes, kSuccess) << "the reply must be the first packet";
    sender.onPolicyChanged(5, nullptr);
    EXPECT_EQ(recvRaw(fds[1]).bytes, "{\"cmd\":1,\"type\":5}\n");
    ASSERT_TRUE(sendRaw(fds[1], "{\"api\":\"other\",\"type\":2,\"data\":\"x\"}"));
    EXPECT_EQ(result.get(), 0);
    EXPECT_EQ(recvRaw(fds[1]).bytes, kExit);
    sender.onPolicyChanged(6, nullptr);
    sender.internalDispose();
    EXPECT_EQ(recvRaw(fds[1], std::chrono::milliseconds(200)).status, Packet::kTimeout);
    EXPECT_EQ(sender.observe(), 1);
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_ERROR, "Server can not observe callback with invalid fd."));
}

TEST_F(Sender, PacketsThatAreNotADisposeKeepTheChannelOpen) {
    LogCapture log;
    SocketOemPolicyCBServer sender(fds[0]);
    auto result = observe(sender);
    ASSERT_EQ(recvRaw(fds[1]).bytes, kSuccess);
    for (const char* packet :
         {"x", "[2]", "{\"api\":\"setPolicyCallback\"}", "{\"type\":7}", "{\"type\":\"2\"}"}) {
        ASSERT_TRUE(sendRaw(fds[1], packet));
    }
    ASSERT_TRUE(log.waitFor(ANDROID_LOG_WARN, "Server policy callback recv unknow request", 3));
    ASSERT_TRUE(log.waitFor(ANDROID_LOG_WARN, "Server policy callback recv unexpected type 0"));
    ASSERT_TRUE(log.waitFor(ANDROID_LOG_WARN, "Server policy callback recv unexpected type 7"));
    std::string data = "{\"quoted\":\"json\"}";
    sender.onPolicyChanged(3, &data);
    EXPECT_EQ(recvRaw(fds[1]).bytes,
              "{\"cmd\":1,\"data\":\"{\\\"quoted\\\":\\\"json\\\"}\",\"type\":3}\n");
    shutdown(fds[1], SHUT_RD);  // the client takes nothing more: a send fails, the loop goes on
    sender.onPolicyChanged(4, nullptr);
    EXPECT_TRUE(log.waitFor(ANDROID_LOG_ERROR, "Server not able to send msg, error - Broken pipe"));
    ASSERT_TRUE(sendRaw(fds[1], kDispose));
    EXPECT_EQ(result.get(), 0);
}

// The client reads nothing until its dispose: the send thread stalls on a
// full socket with the queue growing behind it. The exit message still comes
// last, and once.
TEST_F(Sender, DisposeWithAQueueStillFullSendsExitLastAndOnlyOnce) {
    int small = 4096;
    setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    SocketOemPolicyCBServer sender(fds[0]);
    auto result = observe(sender);
    ASSERT_EQ(recvRaw(fds[1]).bytes, kSuccess);
    std::thread reporter([&] {
        for (int i = 0; i < 2000; ++i) {
            sender.onPolicyChanged(1, nullptr);
        }
    });
    ASSERT_TRUE(sendRaw(fds[1], kDispose));
    int exits = 0;
    std::string last;
    for (Packet p = recvRaw(fds[1]); p.status == Packet::kData;
         p = recvRaw(fds[1], std::chrono::milliseconds(500))) {
        exits += p.bytes == kExit;
        last = p.bytes;
    }
    reporter.join();
    EXPECT_EQ(result.get(), 0);
    EXPECT_EQ(last, kExit);
    EXPECT_EQ(exits, 1);
}

}  // namespace
