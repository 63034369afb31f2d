// Policy-callback channels on the service side: registration through the
// dispatcher (a raw client on the wire) and the sender itself over a
// socketpair.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <map>
#include <thread>

#include "LogCapture.h"
#include "ServiceHarness.h"
#include "SocketOemPolicyCBServer.h"
#include "TestService.h"
#include "Wire.h"

using namespace talvoem::test;

namespace {

const std::string kRegister = "{\"api\":\"setPolicyCallback\",\"type\":1}\n";
const std::string kDispose = "{\"api\":\"setPolicyCallback\",\"type\":2}\n";
const std::string kSuccess = "{\"code\":0,\"msg\":\"success\"}\n";
const std::string kExit = "{\"cmd\":2}\n";
const std::string kRefused = "{\"code\":-1,\"msg\":\"Server failed to set policy callback.\"}\n";

std::string notify(int type, const std::string& data) {
    return "{\"cmd\":1,\"data\":\"" + data + "\",\"type\":" + std::to_string(type) + "}\n";
}

// Opens a raw channel; -1 unless the service answered with success.
int registerRaw() {
    int fd = connectRaw();
    if (fd < 0 || !sendRaw(fd, kRegister) || recvRaw(fd).bytes != kSuccess) {
        close(fd);
        return -1;
    }
    return fd;
}

// Ends a raw channel from the client's side and waits until the service has
// closed the connection, the connection thread's last act: the service object
// must outlive that thread.
void endChannel(int fd) {
    shutdown(fd, SHUT_WR);
    while (recvRaw(fd).status == Packet::kData) {
    }
    close(fd);
}

struct ChannelFixture : testing::Test {
    EventLog& events = immortal<EventLog>();
    TestFactory& factory = immortal<TestFactory>(events);
    TestService& service = immortal<TestService>(&factory, &events);
};

TEST_F(ChannelFixture, NotificationsFromManyThreadsArriveInOrderThenExitComesLast) {
    ServiceRunner runner(service);
    int fd = registerRaw();
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(service.waitForCallback(true));

    constexpr int kThreads = 4, kEach = 50;
    std::vector<std::thread> reporters;
    for (int t = 0; t < kThreads; ++t) {
        reporters.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                service.report(static_cast<uint16_t>(t + 1), std::to_string(i));
            }
        });
    }
    std::map<int, int> nextPerThread;
    for (int n = 0; n < kThreads * kEach; ++n) {
        Packet packet = recvRaw(fd);
        ASSERT_EQ(packet.status, Packet::kData);
        int type = packet.bytes[packet.bytes.size() - 3] - '0';
        EXPECT_EQ(packet.bytes, notify(type, std::to_string(nextPerThread[type]++)));
    }
    for (std::thread& t : reporters) {
        t.join();
    }
    ASSERT_TRUE(sendRaw(fd, kDispose));
    EXPECT_EQ(recvRaw(fd).bytes, kExit);
    EXPECT_EQ(recvRaw(fd).status, Packet::kClosed);
    close(fd);
    ASSERT_TRUE(service.waitForCallback(false));
    ASSERT_TRUE(waitUntil([&] { return events.events().size() == 3; }));
    EXPECT_EQ(events.events(),
              (std::vector<std::string>{"set callback", "set null", "callback deleted"}));
}

TEST_F(ChannelFixture, SecondRegistrationIsRefusedAfterTheLockWaitAndFirstIsUndisturbed) {
    LogCapture log;
    ServiceRunner runner(service);
    int first = registerRaw();
    ASSERT_GE(first, 0);
    ASSERT_TRUE(service.waitForCallback(true));

    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(roundTrip(kRegister), kRefused);
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(400));
    EXPECT_LT(waited, std::chrono::seconds(5));
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_ERROR, "Server already established a policy callback connection"));

    service.report(9, "still here");
    EXPECT_EQ(recvRaw(first).bytes, notify(9, "still here"));
    endChannel(first);
}

TEST_F(ChannelFixture, RegistrationWaitingForALockReleasedInTimeGetsItsOwnChannel) {
    ServiceRunner runner(service);
    int first = registerRaw();
    ASSERT_GE(first, 0);
    ASSERT_TRUE(service.waitForCallback(true));
    auto second = std::async(std::launch::async, registerRaw);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // let it queue on the lock
    ASSERT_TRUE(sendRaw(first, kDispose));
    EXPECT_EQ(recvRaw(first).bytes, kExit);
    int fd = second.get();
    EXPECT_GE(fd, 0);
    endChannel(fd);
    endChannel(first);
}

TEST_F(ChannelFixture, RefusedRegistrationsLeaveNoChannel) {
    struct Case {
        std::string request;
        std::string reply;
        int priority;
        std::string logLine;
    };
    const std::string dispose = "Dispose should send with an established callback connection";
    const std::string noType = "Server not define such policy callback type.";
    const std::vector<Case> cases = {
        {kDispose, "{\"code\":11,\"msg\":\"" + dispose + "\"}\n", ANDROID_LOG_WARN, dispose},
        {"{\"api\":\"setPolicyCallback\",\"type\":3}", "{\"code\":-1,\"msg\":\"No such type\"}\n",
         ANDROID_LOG_DEBUG, noType},
        {"{\"api\":\"setPolicyCallback\"}", "{\"code\":-1,\"msg\":\"No such type\"}\n",
         ANDROID_LOG_DEBUG, noType},
    };
    ServiceRunner runner(service);
    for (const Case& c : cases) {
        LogCapture log;
        EXPECT_EQ(roundTrip(c.request), c.reply);
        EXPECT_TRUE(log.contains(c.priority, c.logLine)) << c.logLine;
    }
    {
        LogCapture log;
        factory.makeNothing = true;
        EXPECT_EQ(roundTrip(kRegister), kRefused);
        EXPECT_TRUE(
            log.contains(ANDROID_LOG_ERROR, "Server failed to create callback from factory"));
        EXPECT_TRUE(events.events().empty());
        factory.makeNothing = false;
    }
    {
        LogCapture log;
        service.refuseCallback = true;
        EXPECT_EQ(roundTrip(kRegister), kRefused);
        EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "Server failed to set policy callback"));
        EXPECT_EQ(events.events(), (std::vector<std::string>{"set callback", "callback deleted"}));
        service.refuseCallback = false;
    }
    int fd = registerRaw();  // and the lock is free again
    EXPECT_GE(fd, 0);
    endChannel(fd);
}

TEST(Registration, WithoutAFactoryEveryTypeIsAnsweredWithCodeSix) {
    TestService& service = immortal<TestService>(nullptr);
    ServiceRunner runner(service);
    for (int type : {0, 1, 2, 3}) {
        LogCapture log;
        EXPECT_EQ(
            roundTrip("{\"api\":\"setPolicyCallback\",\"type\":" + std::to_string(type) + "}"),
            "{\"code\":6,\"msg\":\"No callback factory\"}\n");
        EXPECT_TRUE(log.contains(ANDROID_LOG_WARN, "Server has no callback factory"));
    }
}

// The sender alone, with the test as its client over a socketpair.
struct SenderFixture : testing::Test {
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

TEST_F(SenderFixture, DropsBeforeRunningAndAfterEndAndSendsExitOnce) {
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

TEST_F(SenderFixture, PacketsThatAreNotADisposeKeepTheChannelOpen) {
    LogCapture log;
    SocketOemPolicyCBServer sender(fds[0]);
    auto result = observe(sender);
    ASSERT_EQ(recvRaw(fds[1]).bytes, kSuccess);
    for (const char* packet : {"not json", "[2]", "{\"api\":\"setPolicyCallback\"}", "{\"type\":7}",
                               "{\"type\":\"2\"}"}) {
        ASSERT_TRUE(sendRaw(fds[1], packet));
    }
    ASSERT_TRUE(log.waitFor(ANDROID_LOG_WARN, "Server policy callback recv unknow request", 3));
    ASSERT_TRUE(log.waitFor(ANDROID_LOG_WARN, "Server policy callback recv unexpected type 0"));
    ASSERT_TRUE(log.waitFor(ANDROID_LOG_WARN, "Server policy callback recv unexpected type 7"));
    std::string data = "{\"quoted\":\"json\"}";
    sender.onPolicyChanged(3, &data);
    EXPECT_EQ(recvRaw(fds[1]).bytes,
              "{\"cmd\":1,\"data\":\"{\\\"quoted\\\":\\\"json\\\"}\",\"type\":3}\n");
    ASSERT_TRUE(sendRaw(fds[1], kDispose));
    EXPECT_EQ(result.get(), 0);
}

TEST_F(SenderFixture, DisposeWithAQueueStillFullSendsExitLastAndOnlyOnce) {
    int small = 4096;
    setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    SocketOemPolicyCBServer sender(fds[0]);
    auto result = observe(sender);
    ASSERT_EQ(recvRaw(fds[1]).bytes, kSuccess);
    constexpr int kReported = 2000;
    std::thread reporter([&] {
        for (int i = 0; i < kReported; ++i) {
            sender.onPolicyChanged(1, nullptr);
        }
    });
    // The client does not read yet: the send thread stalls and the queue fills.
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

TEST(Sender, ObserveWithAnInvalidDescriptorReturnsOne) {
    LogCapture log;
    SocketOemPolicyCBServer sender(-1);
    EXPECT_EQ(sender.observe(), 1);
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_ERROR, "Server can not observe callback with invalid fd."));
}

}  // namespace
