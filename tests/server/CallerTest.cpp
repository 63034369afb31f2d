// Who is calling: the caller's credentials as the service sees them on its
// own connection and nowhere else, and the admission rule the listener
// applies before a connection gets a thread. Callers of other uids are
// children that switch uid and connect (Wire.h connectAs).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "LogCapture.h"
#include "Service.h"
#include "TalvoemAdmission.h"
#include "TalvoemConnection.h"
#include "ThreadFault.h"
#include "Wire.h"

using namespace talvoem::test;

namespace {

constexpr uid_t kApp = 2000;
constexpr uid_t kOtherApp = 10001;

std::string describe(pid_t pid, uid_t uid, const std::string& context) {
    return std::to_string(pid) + ":" + std::to_string(uid) + ":" + std::to_string(uid) + ":" +
           context;
}

// What the calling thread's connection says of its caller; "none" without one.
std::string seenCaller() {
    talvoem::CallerCredentials caller;
    if (!talvoem::currentCaller(&caller)) {
        return "none";
    }
    return std::to_string(caller.pid) + ":" + std::to_string(caller.uid) + ":" +
           std::to_string(caller.gid) + ":" + caller.securityContext;
}

// This process's own SELinux context as a peer sees it: what the service
// must see of a child forked from here (empty where the kernel keeps none).
std::string ownContext() {
    int fds[2];
    char context[256] = {};
    socklen_t len = sizeof(context) - 1;
    const bool read =
        seqpacketPair(fds) && getsockopt(fds[0], SOL_SOCKET, SO_PEERSEC, context, &len) == 0;
    close(fds[0]);
    close(fds[1]);
    return read ? std::string(context, strnlen(context, len)) : "";
}

// Answers each query with the caller it sees, once `together` queries are
// inside queryPolicy at once; records the caller of every setPolicyCallback.
struct CallerService : TestService {
    using TestService::TestService;
    int8_t queryPolicy(uint16_t, const std::string&, std::string* result) override {
        ++inside;
        waitUntil([this] { return inside >= together; });
        *result = seenCaller();
        return 0;
    }
    int8_t setPolicyCallback(IOemPolicyCB* cb) override {
        callers.add((cb != nullptr ? "set " : "null ") + seenCaller());
        return TestService::setPolicyCallback(cb);
    }
    std::atomic<int> inside{0};
    std::atomic<int> together{1};
    EventLog callers;
};

// A service on a socket open to every uid, as an .rc's 0666 makes it.
struct Caller : testing::Test {
    void serve(const talvoem::AdmissionRule& rule = {}) {
        talvoem::setAdmissionRule(&service, rule);
        runner.emplace(service);
        ASSERT_EQ(chmod(kServicePath, 0666), 0);
    }
    // A query on `fd`, which the service answers with the caller it saw.
    std::string ask(int fd) {
        std::string answer = sendRaw(fd, kQuery) ? recvRaw(fd).bytes : "";
        close(fd);
        return answer;
    }
    const std::string kQuery = queryText(1, "");
    ForwardingFactory& factory = immortal<ForwardingFactory>();
    CallerService& service = immortal<CallerService>(&factory);
    std::optional<ServiceRunner> runner;
};

// Three queries of three uids are inside queryPolicy at once, each seeing
// its own caller; a channel's caller is known when it is set and when it is
// withdrawn. A call the listener did not start for an accepted connection
// sees none, whichever connections came before on any thread.
TEST_F(Caller, EachConnectionCarriesItsOwnCaller) {
    serve();
    const std::string context = ownContext();
    service.together = 3;
    pid_t app = 0, otherApp = 0;
    const int fds[] = {connectAs(kApp, &app), connectAs(kOtherApp, &otherApp), connectRaw()};
    for (int fd : fds) {
        ASSERT_TRUE(sendRaw(fd, kQuery));
    }
    EXPECT_EQ(recvRaw(fds[0]).bytes, describe(app, kApp, context));
    EXPECT_EQ(recvRaw(fds[1]).bytes, describe(otherApp, kOtherApp, context));
    EXPECT_EQ(recvRaw(fds[2]).bytes, describe(getpid(), 0, context));
    std::for_each(std::begin(fds), std::end(fds), close);
    service.together = 1;

    pid_t watcher = 0;
    const int channel = connectAs(kOtherApp, &watcher);
    ASSERT_TRUE(sendRaw(channel, kRegister));
    ASSERT_EQ(recvRaw(channel).bytes, kSuccess);
    ASSERT_TRUE(sendRaw(channel, kDispose));
    EXPECT_EQ(recvRaw(channel).bytes, kExit);
    closeRaw(channel);
    ASSERT_TRUE(service.waitForCallback(false));
    const std::string seen = describe(watcher, kOtherApp, context);
    EXPECT_EQ(service.callers.events(), (std::vector<std::string>{"set " + seen, "null " + seen}));

    int pair[2];
    ASSERT_TRUE(seqpacketPair(pair));
    ASSERT_TRUE(sendRaw(pair[1], kQuery));
    SocketOemQueryServer::svcHandlerThread(&service, pair[0]);
    EXPECT_EQ(recvRaw(pair[1]).bytes, "none");
    close(pair[1]);
    EXPECT_FALSE(talvoem::currentCaller(nullptr));
}

// Refused callers are closed by the listener itself, no thread tried for
// them, without a line each: one episode for the refusals, a rule that
// throws refusing too, ended by the next caller admitted.
TEST_F(Caller, ARefusedCallerGetsNoThreadAndRefusalsAreLoggedByEpisode) {
    serve({[](const talvoem::CallerCredentials& caller) {
               if (caller.uid == kOtherApp) {
                   throw std::runtime_error("unreadable list");
               }
               return caller.uid != kApp;
           },
           0});
    LogCapture log;
    {
        std::optional<ThreadFault> fault;  // where it can be set: no thread may be tried
        if (ThreadFault::available()) {
            fault.emplace();
        }
        for (uid_t uid : {kApp, kApp, kOtherApp}) {
            int fd = connectAs(uid);
            EXPECT_EQ(recvRaw(fd).status, Packet::kClosed) << uid;
            close(fd);
        }
        EXPECT_EQ(fault ? fault->refused() : 0, 0);
    }
    EXPECT_EQ(ask(connectRaw()), describe(getpid(), 0, ownContext()));
    ASSERT_TRUE(log.waitFor(ANDROID_LOG_INFO, "Server waiting for client"));
    EXPECT_EQ(log.count(ANDROID_LOG_WARN,
                        "Server refuses connections: uid 2000 is not admitted; closing refused "
                        "connections"),
              1u);
    EXPECT_EQ(
        log.count(ANDROID_LOG_INFO, "Server admits connections again after refusing 3 connections"),
        1u);
    EXPECT_EQ(log.count(ANDROID_LOG_INFO, "Server Connected to Client"), 1u);
    EXPECT_LE(log.count(ANDROID_LOG_INFO, "Server waiting for client"), 2u)
        << "a line for a refused connection";
}

// At the cap, a uid's next connection is refused while another uid is
// served; a channel counts as a connection, and a connection that ends
// gives its place back.
TEST_F(Caller, TheCapPerUidHoldsWhileOthersAreServedAndFreesAsConnectionsEnd) {
    serve({nullptr, 2});
    LogCapture log;
    const int channel = connectAs(kApp);
    ASSERT_TRUE(sendRaw(channel, kRegister));
    ASSERT_EQ(recvRaw(channel).bytes, kSuccess);
    const int waiting = connectAs(kApp);
    const int third = connectAs(kApp);
    EXPECT_EQ(recvRaw(third).status, Packet::kClosed);
    close(third);
    EXPECT_TRUE(log.contains(ANDROID_LOG_WARN,
                             "Server refuses connections: uid 2000 already holds 2 connections; "
                             "closing refused connections"));
    pid_t other = 0;
    const std::string answer = ask(connectAs(kOtherApp, &other));
    EXPECT_EQ(answer, describe(other, kOtherApp, ownContext()));
    EXPECT_NE(ask(waiting), "");
    EXPECT_TRUE(waitUntil([&] { return ask(connectAs(kApp)) != ""; }))
        << "the finished query's place was not given back";
    closeRaw(channel);
}

}  // namespace
