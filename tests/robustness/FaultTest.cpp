// Load and faults around the service: many clients at once, bursts of
// connections, channel clients that vanish or never read while the service
// floods them, and no descriptor left for accept. Afterwards no answer may
// be lost or wrong, the threads and descriptors are back to where they were,
// and the service (or its successor) still answers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "DescriptorsExhausted.h"
#include "LogCapture.h"
#include "Service.h"
#include "SocketOemQueryClient.h"
#include "SocketTransport.h"
#include "Wire.h"

using namespace talvoem::test;

namespace {

const std::string kInterrupted = "Server policy callback connection with client interrupted.";

// Sanitizer builds run the load divided: ThreadSanitizer is about ten times
// slower and tracks every thread the service starts, one per connection.
int scaled(int count) {
#if defined(__SANITIZE_THREAD__)
    return count / 10;
#elif defined(__SANITIZE_ADDRESS__)
    return count / 2;
#else
    return count;
#endif
}

void onThreads(int threads, const std::function<void(int)>& body) {
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back(body, t);
    }
    for (std::thread& thread : pool) {
        thread.join();
    }
}

// One query through the library's own transport; true when the answer is
// exactly the echo.
bool queryOnce(uint16_t type, const std::string& data) {
    int fd = establishConnection();
    std::string request = queryText(type, data), answer;
    bool ok =
        sendMsg(fd, request) == 0 && recvMsg(fd, answer) > 0 && answer == echoAnswer(type, data);
    closeConnection(fd);
    return ok;
}

struct Loaded : testing::Test {
    void SetUp() override { service.echo = true; }
    EventLog& events = immortal<EventLog>();
    ForwardingFactory& factory = immortal<ForwardingFactory>(&events);
    TestService& service = immortal<TestService>(&factory, &events);
};

// 64 clients querying at once through the library's transport, then a burst
// of connections all open at the same time with a request in flight.
TEST_F(Loaded, ManyClientsAtOnceGetEveryAnswerAndLeaveNothingBehind) {
    LogCapture log;
    ServiceRunner runner(service);
    Baseline baseline;
    std::atomic<int> wrong{0};
    onThreads(64, [&](int client) {
        for (int i = 0; i < scaled(250); ++i) {
            wrong += !queryOnce(static_cast<uint16_t>(client + 1), std::to_string(i));
        }
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(service.served, 64 * scaled(250));
    std::vector<int> burst(scaled(1000));
    for (size_t i = 0; i < burst.size(); ++i) {
        burst[i] = connectRaw();
        ASSERT_TRUE(sendRaw(burst[i], queryText(7, std::to_string(i)))) << i;
    }
    for (size_t i = 0; i < burst.size(); ++i) {
        EXPECT_EQ(recvRaw(burst[i]).bytes, echoAnswer(7, std::to_string(i)));
        close(burst[i]);
    }
    EXPECT_TRUE(baseline.back()) << threadCount() << " threads, " << openFdCount() << " fds";
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, "Server failed to accept packet over socket"), 0u);
}

// Reports `count` changes on a thread of its own, as a service would.
class Reporter {
public:
    Reporter(TestService& service, int count)
        : thread_([this, &service, count] {
              for (int i = 0; i < count; ++i, ++reported_) {
                  service.report(static_cast<uint16_t>(i % 65535 + 1), "notification");
              }
          }) {}
    ~Reporter() { thread_.join(); }
    std::atomic<int> reported_{0};

private:
    std::thread thread_;
};

// A channel client gone with notifications queued, or one that never reads
// while its socket fills and its send thread blocks, ends only its channel;
// queries are served meanwhile, and a new channel works afterwards.
TEST_F(Loaded, ChannelClientsThatVanishOrNeverReadEndOnlyTheirChannel) {
    ServiceRunner runner(service);
    Baseline baseline;
    for (bool reads : {true, false}) {
        SCOPED_TRACE(reads ? "vanishes mid-flood" : "never reads");
        LogCapture log;
        int fd = registerRaw();
        ASSERT_GE(fd, 0);
        ASSERT_TRUE(service.waitForCallback(true));
        {
            Reporter reporter(service, reads ? 10000 : 100000);
            for (int i = 0; reads && i < 100; ++i) {
                ASSERT_EQ(recvRaw(fd).status, Packet::kData);
            }
            for (int i = 0; !reads && i < scaled(200); ++i) {
                ASSERT_TRUE(queryOnce(3, std::to_string(i))) << i;
            }
            EXPECT_TRUE(reads || reporter.reported_ < 100000) << "the client never read";
            close(fd);
        }
        EXPECT_TRUE(log.waitFor(ANDROID_LOG_ERROR, kInterrupted));
        EXPECT_TRUE(service.waitForCallback(false));
        EXPECT_TRUE(baseline.back()) << threadCount() << " threads, " << openFdCount() << " fds";
    }
    int fd = registerRaw();
    EXPECT_GE(fd, 0) << "a new channel after both";
    closeRaw(fd);
}

TEST(Fault, AcceptWithoutAFreeDescriptorEndsInitWithMinusOne) {
    TestService& service = immortal<TestService>(nullptr);
    LogCapture log;
    unsetenv("ANDROID_SOCKET_talvoem");
    ASSERT_EQ(service.init(), -1);  // no socket yet; warms the sanitizers' type checks
    const int listener = bindControlSocket();
    ASSERT_GE(listener, 0);
    int8_t result = 0;
    {
        // accept takes its descriptor before it waits, so the limit must be
        // reached before init() gets there: it runs on this thread, and no
        // thread may start meanwhile (the sanitizers' checks open pipes).
        DescriptorsExhausted exhausted;
        result = service.init();
    }
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "Server failed to accept packet over socket"));
    EXPECT_EQ(fcntl(listener, F_GETFD), -1) << "listening socket left open";
    ServiceRunner runner(service);
    EXPECT_EQ(roundTrip(queryText(1, "after")), service.answer);
}

}  // namespace
