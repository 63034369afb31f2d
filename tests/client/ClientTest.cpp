// The callback conversation end to end: the library's client against the
// library's service in this process. A service process that dies is the
// fault tests' business.
#include <gtest/gtest.h>

#include <set>

#include "ClientTesting.h"
#include "LogCapture.h"
#include "SocketOemPolicyCBClient.h"
#include "SocketOemQueryClient.h"
#include "TestService.h"

using namespace talvoem::test;

namespace {

// Every test must leave the process with the descriptors it started with.
struct ClientFixture : testing::Test {
    void SetUp() override { baselineFds = openFdCount(); }
    void TearDown() override {
        EXPECT_TRUE(waitUntil([&] { return openFdCount() == baselineFds; }))
            << openFdCount() << " descriptors open, " << baselineFds << " before";
    }
    int baselineFds = 0;
};

struct EndToEnd : ClientFixture {
    EventLog& events = immortal<EventLog>();
    TestFactory& factory = immortal<TestFactory>(events);
    TestService& service = immortal<TestService>(&factory, &events);
    RecordingCallback& app = immortal<RecordingCallback>();
};

// An application callback that holds its first delivery until released.
class GatedCallback : public RecordingCallback {
public:
    void onPolicyChanged(uint16_t type, std::string* data) override {
        RecordingCallback::onPolicyChanged(type, data);
        std::unique_lock<std::mutex> lock(gate);
        opened.wait(lock, [&] { return open; });
    }
    std::mutex gate;
    std::condition_variable opened;
    bool open = false;
};

TEST_F(EndToEnd, EveryNotificationArrivesAsTypeWithNullDataOffTheReceiveThread) {
    auto& gated = immortal<GatedCallback>();
    ServiceRunner runner(service);
    SocketOemQueryClient client;
    ASSERT_EQ(client.observePolicyCallback(&gated), 0);
    ASSERT_TRUE(service.waitForCallback(true));

    // The first delivery blocks in the application; the next ones still come,
    // so deliveries never run on the receive thread.
    service.report(7, "non-empty data");
    ASSERT_TRUE(gated.waitForCount(1));
    constexpr int kMany = 200;
    std::multiset<uint16_t> sent = {7};
    for (int i = 1; i <= kMany; ++i) {
        service.report(static_cast<uint16_t>(i), "d");
        sent.insert(static_cast<uint16_t>(i));
    }
    ASSERT_TRUE(gated.waitForCount(kMany + 1));
    {
        std::lock_guard<std::mutex> lock(gated.gate);
        gated.open = true;
    }
    gated.opened.notify_all();

    std::multiset<uint16_t> received;
    for (const auto& d : gated.deliveries()) {
        received.insert(d.type);
        EXPECT_TRUE(d.dataWasNull);
        EXPECT_NE(d.thread, std::this_thread::get_id());
    }
    EXPECT_EQ(received, sent);

    client.disposePolicyCallback();
    client.disposePolicyCallback();  // holds none any more: nothing happens
    ASSERT_TRUE(service.waitForCallback(false));
}

TEST_F(EndToEnd, RunningChannelDestroyedWithoutDisposeWarnsDisposesAndWaits) {
    LogCapture log;
    ServiceRunner runner(service);
    {
        SocketOemPolicyCBClient channel(&app);
        ASSERT_EQ(channel.observe(), 0);
        ASSERT_TRUE(waitUntil([&] { return channel.isSameCallback(&app); }));
    }
    EXPECT_TRUE(log.contains(ANDROID_LOG_WARN,
                             "Client policy callback is still running, do you forget dispose it?"));
    EXPECT_TRUE(log.contains(ANDROID_LOG_DEBUG, "Client receive exit cmd, will exit recv loop."));
    EXPECT_TRUE(service.waitForCallback(false));
    EXPECT_TRUE(app.deliveries().empty());
}

TEST_F(ClientFixture, NoServiceListeningGivesOneAfterTheRetriesAndHoldsNoChannel) {
    LogCapture log;
    RecordingCallback app;
    SocketOemQueryClient client;
    EXPECT_EQ(client.observePolicyCallback(&app), 1);
    EXPECT_EQ(log.count(ANDROID_LOG_DEBUG, "establishConnection retry: 4, interval: 320"), 1u);
    client.disposePolicyCallback();
    EXPECT_EQ(client.observePolicyCallback(nullptr), 11);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "could not set callback, because it is null."));
}

TEST(QueryClient, AnswersAtOnceWithoutContactingTheService) {
    LogCapture log;
    SocketOemQueryClient client;
    std::string result = "previous text";
    EXPECT_EQ(client.queryPolicy(1, "", &result), 0);
    EXPECT_EQ(result, "{\"code\":0,\"data\":\"[]\",\"msg\":\"success\"}");
    EXPECT_EQ(result.size(), 38u);
    EXPECT_EQ(client.queryPolicy(1, "", nullptr), 0);
    RecordingCallback app;
    EXPECT_EQ(client.setPolicyCallback(&app), 0);
    EXPECT_TRUE(app.deliveries().empty());
    EXPECT_EQ(log.count(ANDROID_LOG_DEBUG, "Skip interaction with servcie"), 3u);
}

}  // namespace
