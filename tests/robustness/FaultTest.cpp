// Faults around the service: no descriptors left for accept, channel clients
// that vanish or never read while the service floods them, a service process
// killed under a live channel, and packets at and beyond every limit. After
// each, the service (or its successor) must still answer.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "DescriptorsExhausted.h"
#include "LogCapture.h"
#include "RobustnessTesting.h"
#include "SelfProcess.h"
#include "ServiceHarness.h"
#include "SocketOemQueryClient.h"

using namespace talvoem::test;

namespace {

const std::string kInterrupted = "Server policy callback connection with client interrupted.";

std::string notify(int type, const std::string& data) {
    return "{\"cmd\":1,\"data\":\"" + data + "\",\"type\":" + std::to_string(type) + "}\n";
}

struct ChannelService : testing::Test {
    EventLog& events = immortal<EventLog>();
    TestFactory& factory = immortal<TestFactory>(events);
    EchoService& service = immortal<EchoService>(&factory, &events);
    CountingCallback& app = immortal<CountingCallback>();

    // A new channel through the library's client works from end to end.
    void expectNewChannelWorks() {
        SocketOemQueryClient client;
        ASSERT_EQ(client.observePolicyCallback(&app), 0);
        ASSERT_TRUE(service.waitForCallback(true));
        const int before = app.total();
        EXPECT_TRUE(service.report(7, "fresh"));
        EXPECT_TRUE(app.waitForTotal(before + 1));
        client.disposePolicyCallback();
        EXPECT_TRUE(service.waitForCallback(false));
    }
};

// Reports `count` changes on a thread of its own, as a service would.
class Reporter {
public:
    Reporter(EchoService& service, int count)
        : thread_([this, &service, count] {
              for (int i = 0; i < count; ++i) {
                  service.report(static_cast<uint16_t>(i % 65535 + 1), "notification");
                  reported_.fetch_add(1);
              }
          }) {}
    ~Reporter() { thread_.join(); }
    int reported() const { return reported_.load(); }

private:
    std::atomic<int> reported_{0};
    std::thread thread_;
};

TEST_F(ChannelService, ClientVanishingUnderTenThousandNotificationsEndsOnlyItsChannel) {
    LogCapture log;
    ServiceRunner runner(service);
    Baseline baseline;
    int fd = registerRaw();
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(service.waitForCallback(true));
    {
        Reporter reporter(service, 10000);
        for (int i = 0; i < 100; ++i) {
            ASSERT_EQ(recvRaw(fd).status, Packet::kData);
        }
        close(fd);  // gone mid-flood, with notifications still queued
    }
    EXPECT_TRUE(log.waitFor(ANDROID_LOG_ERROR, kInterrupted));
    EXPECT_TRUE(service.waitForCallback(false));
    EXPECT_TRUE(baseline.back()) << threadCount() << " threads, " << openFdCount() << " fds";
    expectNewChannelWorks();
}

TEST_F(ChannelService, ClientThatNeverReadsHoldsUpNoQueryAndGoingAwayFreesTheService) {
    LogCapture log;
    ServiceRunner runner(service);
    Baseline baseline;
    int fd = registerRaw();
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(service.waitForCallback(true));
    {
        const int kNotifications = 100000;
        Reporter reporter(service, kNotifications);
        // The channel's socket fills and its send thread blocks; queries go on.
        for (int i = 0; i < scaled(200); ++i) {
            const std::string data = std::to_string(i);
            ASSERT_EQ(roundTrip(queryText(3, data)), echoAnswer(3, data)) << "query " << i;
        }
        EXPECT_LT(reporter.reported(), kNotifications) << "the client never read: no backlog?";
        close(fd);
    }
    EXPECT_TRUE(log.waitFor(ANDROID_LOG_ERROR, kInterrupted));
    EXPECT_TRUE(service.waitForCallback(false));
    EXPECT_TRUE(baseline.back()) << threadCount() << " threads, " << openFdCount() << " fds";
    expectNewChannelWorks();
}

bool connectSocket(int fd) {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, "/dev/socket/talvoem", sizeof(addr.sun_path) - 1);
    return connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
}

TEST(Fault, AcceptWithoutAFreeDescriptorEndsInitWithMinusOne) {
    EchoService& service = immortal<EchoService>(nullptr);
    LogCapture log;
    unsetenv("ANDROID_SOCKET_talvoem");
    ASSERT_EQ(service.init(), -1);  // no socket yet; warms the sanitizers' type checks
    int listener = bindControlSocket();
    ASSERT_GE(listener, 0);
    int8_t result = 0;
    {
        // accept takes its descriptor before it waits, so the limit must be
        // reached before init() gets there. init() runs on this thread: no
        // thread may start meanwhile, since the sanitizers' checks open pipes.
        DescriptorsExhausted exhausted;
        result = service.init();
    }
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "Server failed to accept packet over socket"));
    EXPECT_EQ(fcntl(listener, F_GETFD), -1) << "listening socket left open";
    ServiceRunner runner(service);
    EXPECT_EQ(roundTrip(queryText(1, "after")), echoAnswer(1, "after"));
}

// Runs only inside the service process that the next test starts.
TEST(RobustnessServiceProcess, DISABLED_ServeUntilKilled) {
    auto& events = immortal<EventLog>();
    auto& factory = immortal<TestFactory>(events);
    auto& service = immortal<EchoService>(&factory, &events);
    ServiceRunner runner(service);
    pause();
}

pid_t startServiceProcess() {
    return talvoem::test::startSelf("RobustnessServiceProcess.DISABLED_ServeUntilKilled");
}

// Opens a channel to a freshly started service process; its pid, or -1.
pid_t serviceWithChannel(SocketOemQueryClient& client, CountingCallback& app) {
    pid_t pid = startServiceProcess();
    if (pid > 0 && !waitUntil([&] { return client.observePolicyCallback(&app) == 0; })) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        return -1;
    }
    return pid;
}

TEST(Fault, KilledServiceIsHeardOnceAndARestartedOneTakesANewChannel) {
    CountingCallback& app = immortal<CountingCallback>();
    SocketOemQueryClient client;
    pid_t service = serviceWithChannel(client, app);
    ASSERT_GT(service, 0);
    kill(service, SIGKILL);
    waitpid(service, nullptr, 0);
    ASSERT_TRUE(app.waitForTotal(1));
    EXPECT_FALSE(app.waitForTotal(2, std::chrono::milliseconds(500))) << "reported twice";
    EXPECT_EQ(app.count(kConnectionLost), 1);
    client.disposePolicyCallback();

    pid_t restarted = serviceWithChannel(client, app);
    ASSERT_GT(restarted, 0);
    client.disposePolicyCallback();  // ends by the exit message: nothing delivered
    EXPECT_EQ(app.total(), 1);
    kill(restarted, SIGKILL);
    waitpid(restarted, nullptr, 0);
}

// Packets at and beyond the limits of the transport and the parser.
constexpr int kNoAnswer = 1000;

struct Hostile {
    const char* name;
    std::string bytes;
    int code;  // the envelope's code, or kNoAnswer
};

std::string queryOfSize(size_t size) {
    const std::string head = "{\"api\":\"queryPolicy\",\"type\":1,\"data\":\"";
    return head + std::string(size - head.size() - 2, 'x') + "\"}";
}

std::string nestedQuery(int containers) {
    return "{\"api\":\"queryPolicy\",\"type\":5,\"n\":" + std::string(containers - 1, '[') +
           std::string(containers - 1, ']') + "}";
}

std::vector<Hostile> hostilePackets() {
    using namespace std::string_literals;
    return {
        {"exactly 512 KiB", queryOfSize(524288), 0},
        {"512 KiB and one byte, cut to no JSON", queryOfSize(524289), 4},
        {"empty packet", "", kNoAnswer},
        {"NUL inside a string", "{\"api\":\"queryPolicy\",\"type\":6,\"data\":\"a\0b\"}"s, 0},
        {"NUL after the root", "{\"api\":\"queryPolicy\",\"type\":3}\0{\"x\":"s, 0},
        {"invalid UTF-8 in data", "{\"api\":\"queryPolicy\",\"type\":4,\"data\":\"\xff\xfe\xc3\"}",
         0},
        {"invalid UTF-8 in api", "{\"api\":\"query\xc3Policy\"}", 10},
        {"999 containers deep", nestedQuery(999), 0},
        {"1,000 containers deep", nestedQuery(1000), 0},
        {"1,001 containers deep", nestedQuery(1001), 4},
        {"100,000 containers deep", nestedQuery(100000), 4},
    };
}

// A raw client whose send buffer takes a packet beyond 512 KiB.
int bigSender() {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    int size = 2 << 20;
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof(size)) != 0 ||
        !connectSocket(fd)) {
        close(fd);
        return -1;
    }
    return fd;
}

// The query the service saw in a request, or none for a request it refuses.
std::string expectedAnswer(const Hostile& packet) {
    OemJsonUtils::QueryPolicy::Req req;
    if (packet.code != 0 || OemJsonUtils::QueryPolicy::fromJson(packet.bytes, req) != 0) {
        return {};
    }
    return echoAnswer(req.type, req.data);
}

TEST(Fault, HostileRequestsAreAnsweredOrDroppedAndTheServiceGoesOn) {
    EchoService& service = immortal<EchoService>(nullptr);
    ServiceRunner runner(service);
    for (const Hostile& packet : hostilePackets()) {
        SCOPED_TRACE(packet.name);
        int fd = bigSender();
        ASSERT_GE(fd, 0);
        ASSERT_TRUE(sendRaw(fd, packet.bytes));
        Packet reply = recvRaw(fd);
        close(fd);
        if (packet.code == kNoAnswer) {
            EXPECT_EQ(reply.status, Packet::kClosed);
            continue;
        }
        OemJsonUtils::Resp resp;
        ASSERT_EQ(OemJsonUtils::fromJson(reply.bytes, resp), 0) << reply.bytes.substr(0, 200);
        EXPECT_EQ(resp.code, packet.code) << resp.msg;
        if (packet.code == 0) {
            EXPECT_EQ(reply.bytes, expectedAnswer(packet));
        }
        EXPECT_EQ(roundTrip(queryText(9, "next")), echoAnswer(9, "next"));
    }
}

TEST_F(ChannelService, HostilePacketsOnAChannelLeaveItOpenExceptAnEmptyOne) {
    ServiceRunner runner(service);
    for (const Hostile& packet : hostilePackets()) {
        SCOPED_TRACE(packet.name);
        int fd = bigSender();
        ASSERT_GE(fd, 0);
        ASSERT_TRUE(sendRaw(fd, kRegister));
        ASSERT_EQ(recvRaw(fd).bytes, kSuccess);
        ASSERT_TRUE(sendRaw(fd, packet.bytes));
        if (packet.code != kNoAnswer) {
            ASSERT_TRUE(service.waitForCallback(true));
            EXPECT_TRUE(service.report(9, "open"));
            EXPECT_EQ(recvRaw(fd).bytes, notify(9, "open"));
            ASSERT_TRUE(sendRaw(fd, kDispose));
        }
        EXPECT_EQ(recvRaw(fd).bytes, kExit);
        EXPECT_EQ(recvRaw(fd).status, Packet::kClosed);
        close(fd);
    }
}

}  // namespace
