// Load on the listener: many clients at once, connection storms and bursts.
// Each test checks that no request is lost or answered wrongly, and that the
// per-connection threads and descriptors are all gone again afterwards.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "RobustnessTesting.h"
#include "ServiceHarness.h"
#include "SocketTransport.h"

using namespace talvoem::test;

namespace {

// One query through the library's own transport, as a client of the service
// would send it; true when the answer is exactly the echo.
bool queryOnce(uint16_t type, const std::string& data) {
    int fd = establishConnection();
    if (fd < 0) {
        return false;
    }
    std::string request = queryText(type, data);
    std::string answer;
    bool ok =
        sendMsg(fd, request) == 0 && recvMsg(fd, answer) > 0 && answer == echoAnswer(type, data);
    closeConnection(fd);
    return ok;
}

void runOnThreads(int threads, const std::function<void(int)>& body) {
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back(body, t);
    }
    for (std::thread& thread : pool) {
        thread.join();
    }
}

TEST(Load, SixtyFourClientsEachGetEveryAnswerRight) {
    EchoService& service = immortal<EchoService>(nullptr);
    ServiceRunner runner(service);
    Baseline baseline;
    const int kClients = 64;
    const int kQueries = scaled(1000);
    std::atomic<int> wrong{0};
    runOnThreads(kClients, [&](int client) {
        for (int i = 0; i < kQueries; ++i) {
            const std::string data =
                "client " + std::to_string(client) + " query " + std::to_string(i);
            if (!queryOnce(static_cast<uint16_t>(client + 1), data)) {
                wrong.fetch_add(1);
            }
        }
    });
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(service.served.load(), kClients * kQueries);
    EXPECT_TRUE(baseline.back()) << threadCount() << " threads, " << openFdCount() << " fds";
    EXPECT_TRUE(queryOnce(1, "after"));
}

TEST(Load, ConnectionStormAndBurstLeaveNoThreadOrDescriptorBehind) {
    EchoService& service = immortal<EchoService>(nullptr);
    LogCapture log;
    ServiceRunner runner(service);
    Baseline baseline;

    const int kCycles = scaled(10000);
    std::atomic<int> refused{0};
    runOnThreads(8, [&](int t) {
        for (int i = t; i < kCycles; i += 8) {
            int fd = connectRaw();
            refused.fetch_add(fd < 0 ? 1 : 0);
            close(fd);
        }
    });
    EXPECT_EQ(refused.load(), 0);
    EXPECT_TRUE(baseline.back()) << threadCount() << " threads, " << openFdCount() << " fds";

    // A burst: every connection open at the same time, each with a request
    // in flight, then every answer collected.
    const int kBurst = scaled(1000);
    std::vector<int> burst;
    for (int i = 0; i < kBurst; ++i) {
        burst.push_back(connectRaw());
        ASSERT_GE(burst.back(), 0) << "connection " << i;
    }
    for (int i = 0; i < kBurst; ++i) {
        ASSERT_TRUE(sendRaw(burst[i], queryText(7, std::to_string(i))));
    }
    int right = 0;
    for (int i = 0; i < kBurst; ++i) {
        right += recvRaw(burst[i]).bytes == echoAnswer(7, std::to_string(i)) ? 1 : 0;
        close(burst[i]);
    }
    EXPECT_EQ(right, kBurst);
    EXPECT_TRUE(baseline.back()) << threadCount() << " threads, " << openFdCount() << " fds";
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR, "Server failed to accept packet over socket"), 0u);
    EXPECT_TRUE(queryOnce(1, "after"));
}

}  // namespace
