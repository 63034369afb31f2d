// The client side: the channel's receiver against hand-written service
// replies (refusals, unreadable replies, messages it must ignore, its life
// cycle), the callback conversation end to end against the library's own
// service, and the client object.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <set>

#include "LogCapture.h"
#include "Service.h"
#include "SocketOemPolicyCBClient.h"
#include "SocketOemQueryClient.h"
#include "ThreadFault.h"
#include "Wire.h"

using namespace talvoem::test;

namespace {

// The application's callback: records the type of each delivery (and
// whether it carried data), and holds every delivery while gated.
class RecordingCallback : public IOemPolicyCB {
public:
    void onPolicyChanged(uint16_t type, std::string* data) override {
        std::unique_lock<std::mutex> lock(mutex_);
        types_.push_back(data == nullptr ? type : -1);
        changed_.notify_all();
        changed_.wait(lock, [&] { return !gated_; });
    }
    bool waitForCount(size_t n) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10),
                                 [&] { return types_.size() >= n; });
    }
    std::vector<int> types() {
        std::lock_guard<std::mutex> lock(mutex_);
        return types_;
    }
    void gate(bool closed) {
        std::lock_guard<std::mutex> lock(mutex_);
        gated_ = closed;
        changed_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<int> types_;  // -1 for a delivery that carried data
    bool gated_ = false;
};

// A hand-written service at /dev/socket/talvoem that accepts one connection
// and runs `script` on it, for replies the library's service never gives.
class FakeService {
public:
    explicit FakeService(std::function<void(int fd)> script) : listener_(bindPath()) {
        listen(listener_, 4);
        thread_ = std::thread([this, script] {
            int fd = accept(listener_, nullptr, nullptr);
            if (fd >= 0) {
                script(fd);
                close(fd);
            }
        });
    }
    ~FakeService() {
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
    }

private:
    int listener_;
    std::thread thread_;
};

// Answers the registration, sends `messages`, then reports whether the client
// closed its end.
std::function<void(int)> script(std::vector<std::string> messages, std::atomic<bool>& closed) {
    return [messages, &closed](int fd) {
        EXPECT_EQ(recvRaw(fd).bytes, kRegister);
        for (const std::string& message : messages) {
            sendRaw(fd, message);
        }
        Packet p = recvRaw(fd);
        closed = p.status == Packet::kClosed;
    };
}

// Every test leaves the process with the descriptors it started with.
struct Client : testing::Test {
    void TearDown() override {
        EXPECT_TRUE(waitUntil([&] { return openFdCount() == baselineFds; }))
            << openFdCount() << " descriptors open, " << baselineFds << " before";
    }
    int baselineFds = openFdCount();
    // Deliveries run on detached threads that may outlive the test.
    RecordingCallback& app = immortal<RecordingCallback>();
    std::atomic<bool> closedByClient{false};
};

TEST_F(Client, FailedRegistrationClosesItsDescriptorAndReturnsItsCode) {
    const std::pair<const char*, int> cases[] = {
        {"{\"code\":7,\"msg\":\"refused\"}", 7}, {"", 3}, {"not an envelope", 4}};
    for (const auto& [reply, result] : cases) {
        SCOPED_TRACE(result);
        LogCapture log;
        closedByClient = false;
        FakeService fake(script({reply}, closedByClient));
        SocketOemPolicyCBClient channel(&app);
        EXPECT_EQ(channel.observe(), result);
        EXPECT_TRUE(waitUntil([&] { return closedByClient.load(); })) << "descriptor left open";
        EXPECT_EQ(log.count(ANDROID_LOG_WARN, "Client receive response from server is failed"),
                  result == 7 ? 1u : 0u);
    }
}

// A loop ended by the service, by the exit message or by a lost connection
// (delivered once, as type 100), leaves a finished thread that nobody joined:
// the destructor must join it (a joinable std::thread destroyed aborts).
TEST_F(Client, ChannelEndedByTheServiceIsJoinedByItsDestructor) {
    for (bool lost : {false, true}) {
        LogCapture log;
        {
            FakeService fake(lost ? [](int fd) { recvRaw(fd), sendRaw(fd, kSuccess); }
                                  : script({kSuccess, kExit}, closedByClient));
            SocketOemPolicyCBClient channel(&app);
            ASSERT_EQ(channel.observe(), 0);
            ASSERT_TRUE(lost ? app.waitForCount(1)
                             : waitUntil([&] { return closedByClient.load(); }));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(app.types(), lost ? std::vector<int>{kConnectionLost} : std::vector<int>{});
        EXPECT_EQ(log.count(ANDROID_LOG_ERROR, "Client connection with server interrupted."), lost);
    }
}

// A dispose request that cannot be sent closes the descriptor by force, and
// the shutdown before the close wakes the receive still blocked on it. That
// shutdown is the channel's own, not a lost service: no type 100.
TEST_F(Client, DisposeThatCannotBeSentClosesByForceAndWakesTheReceive) {
    LogCapture log;
    std::promise<void> disposed;
    FakeService fake([&](int fd) {
        recvRaw(fd);
        shutdown(fd, SHUT_RD);  // what the client sends from now on fails with EPIPE
        sendRaw(fd, kSuccess);
        disposed.get_future().wait();
    });
    const Baseline before;
    SocketOemPolicyCBClient channel(&app);
    ASSERT_EQ(channel.observe(), 0);
    ASSERT_TRUE(waitUntil([&] { return channel.isSameCallback(&app); }));
    channel.dispose();
    disposed.set_value();
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "Client force close fd"));
    EXPECT_TRUE(before.back()) << "no notify thread still running";
    EXPECT_EQ(app.types(), std::vector<int>{});
}

// Several threads dispose of one channel at once: one request reaches the
// service, every caller returns, and nothing is delivered.
TEST_F(Client, ConcurrentDisposersSendOneRequestAndAllReturn) {
    std::atomic<int> requests{0};
    FakeService fake([&](int fd) {
        recvRaw(fd);
        sendRaw(fd, kSuccess);
        // The exit message waits until no request has come for a while, so
        // that every disposer has had its chance to send one.
        for (Packet p = recvRaw(fd); p.status != Packet::kClosed;
             p = recvRaw(fd, std::chrono::milliseconds(300))) {
            requests += p.bytes == kDispose;
            if (p.status == Packet::kTimeout) {
                sendRaw(fd, kExit);
            }
        }
    });
    const Baseline before;
    SocketOemPolicyCBClient channel(&app);
    ASSERT_EQ(channel.observe(), 0);
    ASSERT_TRUE(waitUntil([&] { return channel.isSameCallback(&app); }));
    std::atomic<int> ready{0};
    std::vector<std::thread> disposers;
    for (int i = 0; i < 4; ++i) {
        disposers.emplace_back([&] {
            for (++ready; ready < 4;) {
                std::this_thread::yield();
            }
            channel.dispose();
        });
    }
    for (std::thread& disposer : disposers) {
        disposer.join();
    }
    EXPECT_TRUE(before.back()) << "the service read to the end";
    EXPECT_EQ(requests, 1);
    EXPECT_EQ(app.types(), std::vector<int>{});
}

// A system out of threads never takes the application down. No thread for a
// delivery: that one is dropped with a line, the loop goes on and the next one
// arrives. No receive thread: observe() gives 5, after ending the registration
// the service accepted and waiting for its exit message (past a notification
// already on its way), so the service has let go of its one channel by then.
TEST_F(Client, ThreadsThatCannotStartCostADeliveryOrTheObserve) {
    if (!ThreadFault::available()) {
        GTEST_SKIP() << "no thread fault under a sanitizer";
    }
    LogCapture log;
    {
        std::promise<void> go;
        FakeService fake([&](int fd) {
            recvRaw(fd), sendRaw(fd, kSuccess), go.get_future().wait();
            sendRaw(fd, notifyText(1, "")), sendRaw(fd, notifyText(2, ""));
            recvRaw(fd), sendRaw(fd, kExit), recvRaw(fd);
        });
        SocketOemPolicyCBClient channel(&app);
        ASSERT_EQ(channel.observe(), 0);
        ASSERT_TRUE(waitUntil([&] { return channel.isSameCallback(&app); }));
        ThreadFault fault(1);
        go.set_value();
        ASSERT_TRUE(app.waitForCount(1));
        EXPECT_EQ(fault.refused(), 1);
        EXPECT_EQ(app.types(), std::vector<int>{2});
        channel.dispose();
    }
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_ERROR,
                     "Client failed to start notify thread: Resource temporarily unavailable"));
    std::atomic<bool> exitSent{false};
    FakeService fake([&](int fd) {
        recvRaw(fd), sendRaw(fd, kSuccess);
        EXPECT_EQ(recvRaw(fd).bytes, kDispose);
        sendRaw(fd, notifyText(3, ""));
        exitSent = true;
        sendRaw(fd, kExit);
        closedByClient = recvRaw(fd).status == Packet::kClosed;
    });
    SocketOemQueryClient client;
    ThreadFault fault(1);
    EXPECT_EQ(client.observePolicyCallback(&app),
              SocketOemPolicyCBClient::kReceiveThreadNotStarted);
    EXPECT_TRUE(exitSent) << "observe() returned before the service ended the channel";
    EXPECT_TRUE(waitUntil([&] { return closedByClient.load(); }));
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_ERROR,
                     "Client failed to start receive thread: Resource temporarily unavailable"));
    EXPECT_EQ(app.types(), std::vector<int>{2});
}

struct EndToEnd : Client {
    ForwardingFactory& factory = immortal<ForwardingFactory>();
    TestService& service = immortal<TestService>(&factory);
};

// Every delivery blocks in the application, and the next ones still come: so
// deliveries never run on the receive thread. None carries data.
TEST_F(EndToEnd, EveryNotificationArrivesAsTypeWithNullDataOffTheReceiveThread) {
    ServiceRunner runner(service);
    SocketOemQueryClient client;
    ASSERT_EQ(client.observePolicyCallback(&app), 0);
    ASSERT_TRUE(service.waitForCallback(true));
    app.gate(true);
    std::multiset<int> sent;
    for (int i = 1; i <= 200; ++i) {
        service.report(static_cast<uint16_t>(i), "data");
        sent.insert(i);
    }
    ASSERT_TRUE(app.waitForCount(200));
    app.gate(false);
    const std::vector<int> types = app.types();
    EXPECT_EQ(std::multiset<int>(types.begin(), types.end()), sent);
    client.disposePolicyCallback();
    client.disposePolicyCallback();  // holds none any more: nothing happens
    EXPECT_TRUE(service.waitForCallback(false));
}

TEST_F(EndToEnd, RunningChannelDestroyedWithoutDisposeWarnsDisposesAndWaits) {
    LogCapture log;
    ServiceRunner runner(service);
    {
        SocketOemPolicyCBClient channel(&app);
        ASSERT_EQ(channel.observe(), 0);
    }
    EXPECT_TRUE(log.contains(ANDROID_LOG_WARN,
                             "Client policy callback is still running, do you forget dispose it?"));
    EXPECT_TRUE(log.contains(ANDROID_LOG_DEBUG, "Client receive exit cmd, will exit recv loop."));
    EXPECT_TRUE(service.waitForCallback(false));
    EXPECT_TRUE(app.types().empty());
}

// A forked child that disposes of (and deletes) its copy of an open channel
// sends nothing and does not wait for a receive thread that exists only in
// the parent; the parent's channel goes on delivering.
TEST_F(EndToEnd, ForkedChildReleasesItsCopyAndTheParentsChannelGoesOn) {
    ServiceRunner runner(service);
    auto* channel = new SocketOemPolicyCBClient(&app);
    ASSERT_EQ(channel->observe(), 0);
    ASSERT_TRUE(waitUntil([&] { return channel->isSameCallback(&app); }));
    const pid_t child = fork();
    if (child == 0) {
        channel->dispose();
        delete channel;
        _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_TRUE(service.report(7, "after the child"));
    EXPECT_TRUE(app.waitForCount(1));
    EXPECT_EQ(app.types(), std::vector<int>{7});
    channel->dispose();
    delete channel;
}

TEST_F(EndToEnd, SecondObserveIsRefusedAndCallbackIdentityHoldsOnlyWhileRunning) {
    LogCapture log;
    ServiceRunner runner(service);
    SocketOemPolicyCBClient channel(&app);
    EXPECT_FALSE(channel.isSameCallback(nullptr));
    EXPECT_FALSE(channel.isSameCallback(&app)) << "not before the loop runs";
    ASSERT_EQ(channel.observe(), 0);
    ASSERT_TRUE(waitUntil([&] { return channel.isSameCallback(&app); }));
    EXPECT_FALSE(channel.isSameCallback(&immortal<RecordingCallback>()));
    EXPECT_EQ(channel.observe(), -1);
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_ERROR, "Client already has a policy callback connection."));
    EXPECT_TRUE(channel.isSameCallback(&app)) << "the open channel is untouched";
    channel.dispose();
    EXPECT_TRUE(service.waitForCallback(false)) << "the dispose request reached the service";
    EXPECT_FALSE(channel.isSameCallback(&app));
}

// A failed observe leaves the client holding no channel, also when one was
// held before: that one is replaced, not disposed of, and a later dispose
// sends nothing on it.
TEST(ClientObject, FailedObserveLeavesNoChannelHeld) {
    auto& factory = immortal<ForwardingFactory>();
    auto& service = immortal<TestService>(&factory);
    auto& app = immortal<RecordingCallback>();
    ServiceRunner runner(service);
    SocketOemQueryClient client;
    ASSERT_EQ(client.observePolicyCallback(&app), 0);
    ASSERT_TRUE(service.waitForCallback(true));
    EXPECT_EQ(client.observePolicyCallback(&app), -1) << "the service holds one channel at most";
    client.disposePolicyCallback();
    EXPECT_TRUE(service.report(5, "still open"));
    EXPECT_TRUE(app.waitForCount(1));
    EXPECT_EQ(app.types(), std::vector<int>{5});
}

TEST_F(Client, ClientObjectAnswersAtOnceAndObservesOnlyWithAServiceAndACallback) {
    LogCapture log;
    SocketOemQueryClient client;
    std::string result = "previous text";
    EXPECT_EQ(client.queryPolicy(1, "", &result), 0);
    EXPECT_EQ(result, "{\"code\":0,\"data\":\"[]\",\"msg\":\"success\"}");
    EXPECT_EQ(client.queryPolicy(1, "", nullptr), 0);
    EXPECT_EQ(client.setPolicyCallback(&app), 0);
    EXPECT_EQ(log.count(ANDROID_LOG_DEBUG, "Skip interaction with servcie"), 3u);
    EXPECT_EQ(client.observePolicyCallback(&app), 1);
    EXPECT_EQ(log.count(ANDROID_LOG_DEBUG, "establishConnection retry: 4, interval: 320"), 1u);
    client.disposePolicyCallback();
    EXPECT_EQ(client.observePolicyCallback(nullptr), 11);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "could not set callback, because it is null."));
    EXPECT_TRUE(app.types().empty());
}

}  // namespace
