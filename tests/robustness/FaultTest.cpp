// Load and faults around the service: a burst of connections all open at once,
// and channel clients that vanish or never read while the service floods
// them. No answer may be lost or wrong, the threads and descriptors come back
// to where they were, and the service goes on serving.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "LogCapture.h"
#include "Service.h"
#include "Wire.h"

using namespace talvoem::test;

namespace {

// ThreadSanitizer is about ten times slower and tracks every thread the
// service starts, one per connection.
#if defined(__SANITIZE_THREAD__)
constexpr int kScale = 10;
#else
constexpr int kScale = 1;
#endif

struct Loaded : testing::Test {
    void SetUp() override { service.echo = true; }
    ForwardingFactory& factory = immortal<ForwardingFactory>();
    TestService& service = immortal<TestService>(&factory);
};

TEST_F(Loaded, BurstOfConnectionsGetsEveryAnswerAndLeavesNothingBehind) {
    ServiceRunner runner(service);
    Baseline baseline;
    std::vector<int> burst(1000 / kScale);
    for (size_t i = 0; i < burst.size(); ++i) {
        burst[i] = connectRaw();
        ASSERT_TRUE(sendRaw(burst[i], queryText(7, std::to_string(i)))) << i;
    }
    for (size_t i = 0; i < burst.size(); ++i) {
        EXPECT_EQ(recvRaw(burst[i]).bytes, echoAnswer(7, std::to_string(i)));
        close(burst[i]);
    }
    EXPECT_TRUE(baseline.back()) << threadCount() << " threads, " << openFdCount() << " fds";
}

// A client gone with notifications queued, or one that never reads while its
// socket fills and the send thread blocks, ends only its own channel; queries
// are served meanwhile, and a new channel works afterwards.
TEST_F(Loaded, ChannelClientsThatVanishOrNeverReadEndOnlyTheirChannel) {
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
        for (int i = 0; !reads && i < 200 / kScale; ++i) {
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
    int fd = registerRaw();
    EXPECT_GE(fd, 0) << "a new channel after both";
    closeRaw(fd);
}

}  // namespace
