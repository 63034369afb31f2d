// The channel's receiver against hand-written service replies: refusals,
// unreadable replies, messages it must ignore, and its life-cycle calls.
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "ClientTesting.h"
#include "LogCapture.h"
#include "SocketOemPolicyCBClient.h"

using namespace talvoem::test;

namespace {

const std::string kRegister = "{\"api\":\"setPolicyCallback\",\"type\":1}\n";
const std::string kDispose = "{\"api\":\"setPolicyCallback\",\"type\":2}\n";
const std::string kSuccess = "{\"code\":0,\"msg\":\"success\"}\n";

struct Receiver : testing::Test {
    void SetUp() override { baselineFds = openFdCount(); }
    void TearDown() override {
        EXPECT_TRUE(waitUntil([&] { return openFdCount() == baselineFds; }))
            << openFdCount() << " descriptors open, " << baselineFds << " before";
    }
    int baselineFds = 0;
    RecordingCallback app;
};

TEST_F(Receiver, FailedRegistrationClosesItsDescriptorAndReturnsItsCode) {
    struct Case {
        const char* reply;  // null: the service closes without replying
        int result;
    };
    for (const Case& c : {Case{"{\"code\":5,\"msg\":\"refused\"}", 5}, Case{nullptr, 3},
                          Case{"not an envelope", 4}}) {
        SCOPED_TRACE(c.result);
        LogCapture log;
        std::atomic<bool> closedByClient{false};
        {
            FakeService fake([&](int fd) {
                EXPECT_EQ(recvRaw(fd).bytes, kRegister);
                if (c.reply != nullptr) {
                    sendRaw(fd, c.reply);
                    closedByClient = peerCloses(fd);
                }
            });
            SocketOemPolicyCBClient channel(&app);
            EXPECT_EQ(channel.observe(), c.result);
            EXPECT_EQ(log.count(ANDROID_LOG_WARN, "Client receive response from server is failed"),
                      c.result == 5 ? 1u : 0u);
        }
        EXPECT_TRUE(closedByClient || c.reply == nullptr) << "descriptor left open";
    }
}

TEST_F(Receiver, IgnoresUnknownMessagesDeliversNotifyAndStopsOnExit) {
    LogCapture log;
    std::atomic<bool> closedByClient{false};
    FakeService fake([&](int fd) {
        recvRaw(fd);
        sendRaw(fd, kSuccess);
        for (const char* message : {"{\"cmd\":3,\"type\":1}", "garbage", "{\"type\":2}",
                                    "{\"cmd\":1,\"data\":\"x\",\"type\":4}\n", "{\"cmd\":2}\n"}) {
            sendRaw(fd, message);
        }
        closedByClient = peerCloses(fd);  // the exit message closes the channel's end
    });
    SocketOemPolicyCBClient channel(&app);
    ASSERT_EQ(channel.observe(), 0);
    ASSERT_TRUE(log.waitFor(ANDROID_LOG_DEBUG, "Client receive exit cmd, will exit recv loop."));
    ASSERT_TRUE(app.waitForCount(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_EQ(app.deliveries().size(), 1u) << "only the notify message is delivered";
    EXPECT_EQ(app.deliveries()[0].type, 4);
    EXPECT_FALSE(channel.isSameCallback(&app)) << "the loop has ended";
    channel.dispose();  // sends nothing: the descriptor is already gone
    channel.dispose();
    EXPECT_TRUE(waitUntil([&] { return closedByClient.load(); }));
}

TEST_F(Receiver, SecondObserveIsRefusedAndCallbackIdentityHoldsOnlyWhileRunning) {
    LogCapture log;
    std::promise<std::string> afterSecondObserve;
    FakeService fake([&](int fd) {
        recvRaw(fd);
        sendRaw(fd, kSuccess);
        afterSecondObserve.set_value(recvRaw(fd).bytes);  // the dispose, nothing before it
        sendRaw(fd, "{\"cmd\":2}\n");
        peerCloses(fd);
    });
    SocketOemPolicyCBClient channel(&app);
    EXPECT_FALSE(channel.isSameCallback(nullptr));
    ASSERT_EQ(channel.observe(), 0);
    ASSERT_TRUE(waitUntil([&] { return channel.isSameCallback(&app); }));
    RecordingCallback other;
    EXPECT_FALSE(channel.isSameCallback(&other));

    EXPECT_EQ(channel.observe(), -1);
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_ERROR, "Client already has a policy callback connection."));
    EXPECT_TRUE(channel.isSameCallback(&app)) << "the open channel is untouched";
    channel.dispose();
    EXPECT_EQ(afterSecondObserve.get_future().get(), kDispose);
    EXPECT_FALSE(channel.isSameCallback(&app));
}

TEST_F(Receiver, ChannelEndedByTheServiceCanBeDestroyedWithoutDispose) {
    {
        FakeService fake([&](int fd) {
            recvRaw(fd);
            sendRaw(fd, kSuccess);
            sendRaw(fd, "{\"cmd\":2}\n");
            peerCloses(fd);
        });
        SocketOemPolicyCBClient channel(&app);
        ASSERT_EQ(channel.observe(), 0);
        ASSERT_TRUE(waitUntil([&] { return !channel.isSameCallback(&app); }));
    }  // a joinable thread destroyed here would call std::terminate
    SUCCEED();
}

TEST_F(Receiver, LostServiceIsDeliveredAsTypeHundredOnce) {
    LogCapture log;
    FakeService fake([&](int fd) {
        recvRaw(fd);
        sendRaw(fd, kSuccess);
    });  // the script returns and the connection closes
    SocketOemPolicyCBClient channel(&app);
    ASSERT_EQ(channel.observe(), 0);
    ASSERT_TRUE(app.waitForCount(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_EQ(app.deliveries().size(), 1u);
    EXPECT_EQ(app.deliveries()[0].type, 100);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "Client connection with server interrupted."));
    channel.dispose();
}

}  // namespace
