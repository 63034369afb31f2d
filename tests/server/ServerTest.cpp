// The service side through real connections: the control socket's hand-over,
// a failing listen or accept, descriptors and threads running out, every
// request answered in band while the service goes on, channel registration,
// and the channel's sender alone over a socketpair.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <map>
#include <optional>

#include "LogCapture.h"
#include "Service.h"
#include "SocketOemPolicyCBServer.h"
#include "TalvoemConnection.h"
#include "ThreadFault.h"
#include "Wire.h"

using namespace talvoem::test;

namespace {

const std::string kQuery = "{\"api\":\"queryPolicy\",\"data\":\"abc\",\"type\":3}\n";

// The number in the first line logged that starts with `prefix`; -1 if none.
int loggedCount(const LogCapture& log, const std::string& prefix) {
    for (const LogLine& line : log.lines()) {
        if (line.text.compare(0, prefix.size(), prefix) == 0) {
            return atoi(line.text.c_str() + prefix.size());
        }
    }
    return -1;
}

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

// Takes every descriptor the process could still open, under a limit lowered
// for the purpose, and gives them back with the limit when it goes.
class DescriptorFill {
public:
    DescriptorFill() {
        getrlimit(RLIMIT_NOFILE, &saved_);
        rlimit low = {std::min<rlim_t>(saved_.rlim_cur, 256), saved_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &low);
        for (int fd; (fd = open("/dev/null", O_RDONLY)) >= 0;) {
            held_.push_back(fd);
        }
    }
    ~DescriptorFill() {
        std::for_each(held_.begin(), held_.end(), close);
        setrlimit(RLIMIT_NOFILE, &saved_);
    }

private:
    rlimit saved_;
    std::vector<int> held_;
};

// Out of threads, each new connection is closed unanswered and one episode
// is logged for them all; the next connection that gets a thread is served
// and ends the episode. A later shortage is an episode of its own.
TEST(Listener, ConnectionsThatGetNoThreadAreClosedAndTheListenerGoesOn) {
    REQUIRE_THREAD_FAULT();
    TestService& service = immortal<TestService>(nullptr);
    ServiceRunner runner(service);
    Baseline baseline;
    LogCapture log;
    for (int refused : {3, 1}) {
        {
            ThreadFault fault;
            for (int i = 0; i < refused; ++i) {
                int fd = connectRaw();
                EXPECT_EQ(recvRaw(fd).status, Packet::kClosed);
                close(fd);
            }
            EXPECT_EQ(fault.refused(), refused);
        }
        EXPECT_EQ(roundTrip(kQuery), service.answer);
        EXPECT_TRUE(
            log.waitFor(ANDROID_LOG_INFO, "Server starts connection threads again after closing " +
                                              std::to_string(refused) + " connections"));
    }
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR,
                        "Server cannot start connection threads, error - Resource temporarily "
                        "unavailable; closing new connections"),
              2u);
    EXPECT_TRUE(baseline.back()) << openFdCount() << " fds";
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
// can receive, whatever the default send buffer; type and data reach it, and
// the connection's send limit is known inside the call and nowhere else.
TEST(Dispatch, QueryReachesTheServiceAndItsAnswerComesBackWhole) {
    struct LimitService : TestService {
        using TestService::TestService;
        int8_t queryPolicy(uint16_t type, const std::string& data, std::string* result) override {
            sendLimit = talvoem::currentSendLimit();
            return TestService::queryPolicy(type, data, result);
        }
        std::atomic<size_t> sendLimit{0};
    };
    LimitService& service = immortal<LimitService>(nullptr);
    ServiceRunner runner(service);
    EXPECT_EQ(roundTrip(kQuery), service.answer);
    EXPECT_EQ(service.lastType, 3);
    EXPECT_EQ(service.lastData, "abc");
    EXPECT_GT(service.sendLimit, 0u);
    EXPECT_LE(service.sendLimit, kReceiveLimit);
    int fds[2];
    ASSERT_TRUE(seqpacketPair(fds));
    std::string text = kQuery, response;
    service.onTransact(fds[0], text, response);
    EXPECT_EQ(talvoem::currentSendLimit(), 0u) << "still known after the call";
    close(fds[0]);
    close(fds[1]);
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
    factory.makeNothing = false;
    factory.passThrough = true;  // deleted as callback and as channel, were it accepted
    EXPECT_EQ(roundTrip(kRegister), kRefused);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR,
                             "Server refused a callback from factory that is the channel itself"));
    EXPECT_TRUE(events.events().empty()) << "the service saw nothing";
    factory.passThrough = false;
    service.refuseCallback = true;
    EXPECT_EQ(roundTrip(kRegister), kRefused);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "Server failed to set policy callback"));
    EXPECT_EQ(events.events(), (std::vector<std::string>{"set callback", "callback deleted"}));
    service.refuseCallback = false;
    int fd = registerRaw();
    EXPECT_GE(fd, 0);
    closeRaw(fd);
}

// A channel whose send thread cannot be made is refused in band with code 2:
// the service gets its callback withdrawn, nothing stays behind and the next
// registration succeeds.
TEST_F(ChannelFixture, AChannelWithoutASendThreadIsRefusedAndLeavesNothing) {
    REQUIRE_THREAD_FAULT();
    LogCapture log;
    ServiceRunner runner(service);
    Baseline baseline;
    int fd = connectRaw();
    // The listener waits again once it has made this connection's thread.
    ASSERT_TRUE(log.waitFor(ANDROID_LOG_INFO, "Server waiting for client", 2));
    {
        ThreadFault fault(1);
        ASSERT_TRUE(sendRaw(fd, kRegister));
        EXPECT_EQ(recvRaw(fd).bytes, envelopeText(2, "Server failed to set policy callback."));
        EXPECT_EQ(recvRaw(fd).status, Packet::kClosed);
        EXPECT_EQ(fault.refused(), 1);
    }
    close(fd);
    EXPECT_TRUE(log.contains(
        ANDROID_LOG_ERROR,
        "Server failed to start policy callback send thread: Resource temporarily unavailable"));
    EXPECT_EQ(events.events(),
              (std::vector<std::string>{"set callback", "set null", "callback deleted"}));
    EXPECT_TRUE(baseline.back()) << threadCount() << " threads, " << openFdCount() << " fds";
    int again = registerRaw();
    EXPECT_GE(again, 0);
    closeRaw(again);
}

// Out of descriptors, the listener waits out the failing accepts (one
// episode logged, at least 5 ms between tries) while a channel opened before
// keeps delivering. Once descriptors come back the clients that connected
// meanwhile are served and a new channel can be opened.
TEST_F(ChannelFixture, OutOfDescriptorsTheListenerBacksOffAndRecovers) {
    const std::string noDescriptors =
        "Server cannot accept connections, error - Too many open files; retrying with back-off";
    ServiceRunner runner(service);
    int channel = registerRaw();
    ASSERT_TRUE(service.waitForCallback(true));
    // One delivery before the fill as well: UndefinedBehaviorSanitizer checks
    // a call's dynamic type once and then remembers it, and that first check
    // needs a pipe, which a process without descriptors cannot make.
    service.report(7, "before");
    EXPECT_EQ(recvRaw(channel).bytes, notifyText(7, "before"));
    // Made before the fill: connecting takes no further descriptor.
    const int clients[] = {socket(AF_UNIX, SOCK_SEQPACKET, 0), socket(AF_UNIX, SOCK_SEQPACKET, 0)};
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, kServicePath);
    auto connectClient = [&addr](int fd) {
        return connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    };
    LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    std::optional<DescriptorFill> fill(std::in_place);
    // A blocked accept holds the descriptor of the connection it waits for:
    // the first client takes that one, and the next accept finds none.
    ASSERT_TRUE(connectClient(clients[0]));
    ASSERT_TRUE(log.waitFor(ANDROID_LOG_ERROR, noDescriptors));
    ASSERT_TRUE(connectClient(clients[1]));
    for (int i = 0; i < 5; ++i) {
        service.report(7, std::to_string(i));
        EXPECT_EQ(recvRaw(channel).bytes, notifyText(7, std::to_string(i)));
        // The episode lasts a while: the listener tries again meanwhile.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    fill.reset();
    for (int fd : clients) {
        ASSERT_TRUE(sendRaw(fd, kQuery));
        EXPECT_EQ(recvRaw(fd).bytes, service.answer);
        close(fd);
    }
    const auto elapsedMs = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, noDescriptors), 1u);
    EXPECT_FALSE(log.contains(ANDROID_LOG_ERROR, "Server failed to accept packet over socket"));
    const int failed = loggedCount(log, "Server accepts connections again after ");
    EXPECT_GE(failed, 2);
    EXPECT_LE(failed, elapsedMs.count() / 5 + 1) << "accept retried without a pause";
    ASSERT_TRUE(sendRaw(channel, kDispose));
    EXPECT_EQ(recvRaw(channel).bytes, kExit);
    closeRaw(channel);
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

// A reply that cannot be sent leaves the channel stopped, its send thread
// ended: nothing is left for the destructor to force to stop.
TEST_F(Sender, AReplyThatCannotBeSentLeavesTheChannelStopped) {
    LogCapture log;
    shutdown(fds[1], SHUT_RD);
    {
        SocketOemPolicyCBServer sender(fds[0]);
        EXPECT_EQ(sender.observe(), 2);
    }
    EXPECT_FALSE(
        log.contains(ANDROID_LOG_DEBUG, "Server policy callback is still running, force stop."));
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
