// The listener and the dispatcher through real connections: the control
// socket's hand-over, a failing listen or accept, connections that bring
// nothing, and every request answered in band while the service goes on.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "LogCapture.h"
#include "Service.h"
#include "Wire.h"

using namespace talvoem::test;

namespace {

const std::string kQuery = "{\"api\":\"queryPolicy\",\"data\":\"abc\",\"type\":3}\n";

std::string noSocketLine(int err) {
    return std::string("Server failed to connect to socket talvoem, error - ") + strerror(err);
}

// init's hand-over is trusted only for an open Unix-domain socket bound at
// /dev/socket/talvoem; a socket that is not the service's stays open.
TEST(Listener, WithoutAUsableControlSocketInitReturnsMinusOne) {
    TestService& service = immortal<TestService>(nullptr);
    const int elsewhere = bindPath(SOCK_SEQPACKET, "/dev/socket/other");
    const std::pair<std::string, int> cases[] = {
        {"", ENOENT},   {"12x", EINVAL},        {"-3", EINVAL},
        {"987", EBADF}, {"2147483648", EINVAL}, {std::to_string(elsewhere), ENOTSOCK},
    };
    LogCapture log;
    unsetenv("ANDROID_SOCKET_talvoem");
    EXPECT_EQ(service.init(), -1);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, noSocketLine(ENOENT)));
    for (const auto& [value, err] : cases) {
        SCOPED_TRACE(value);
        LogCapture log;
        setenv("ANDROID_SOCKET_talvoem", value.c_str(), 1);
        EXPECT_EQ(service.init(), -1);
        EXPECT_EQ(log.lines(), (std::vector<LogLine>{{ANDROID_LOG_ERROR, noSocketLine(err)}}));
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
    EXPECT_EQ(
        log.lines(),
        (std::vector<LogLine>{{ANDROID_LOG_ERROR, std::string("Server failed to listen to socket, "
                                                              "error - ") +
                                                      strerror(EOPNOTSUPP)}}));
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
    EXPECT_EQ(roundTrip(kQuery), service.answer);
}

// The service's answer goes back byte for byte, up to the 512 KiB a client
// can receive, whatever the default send buffer; type and data reach it.
TEST(Dispatch, QueryReachesTheServiceAndItsAnswerComesBackWhole) {
    TestService& service = immortal<TestService>(nullptr);
    ServiceRunner runner(service);
    EXPECT_EQ(roundTrip(kQuery), service.answer);
    EXPECT_EQ(service.lastType, 3);
    EXPECT_EQ(service.lastData, "abc");
    EXPECT_EQ(roundTrip("{\"api\":\"queryPolicy\",\"type\":65537}"), service.answer);
    EXPECT_EQ(service.lastType, 1);
    EXPECT_EQ(service.lastData, "");
    for (size_t size : {200 * 1024, 300 * 1024, static_cast<int>(kReceiveLimit)}) {
        service.answer = std::string(size, 'a');
        EXPECT_TRUE(roundTrip(kQuery) == service.answer) << size;
    }
}

TEST(Dispatch, EveryBadRequestGetsItsEnvelopeAndTheServiceGoesOn) {
    const std::tuple<std::string, int, std::string, std::string> cases[] = {
        {"not json", 4, "Failed to get api.", "Server failed to get api."},
        {"{}", 11, "Require not empty api.", "Server require not empty api."},
        {"{\"api\":\"\"}", 11, "Require not empty api.", "Server require not empty api."},
        {"{\"api\":\"QueryPolicy\"}", 10, "No such api method.",
         "Server not define such api method."},
        {"{\"api\":\"queryPolicy\",\"type\":\"3\"}", 4, "Failed to parse request.",
         "Server failed to parse request."},
        {"{\"api\":\"setPolicyCallback\",\"type\":[1]}", 4, "Failed to parse request.",
         "Server failed to parse request."},
    };
    TestService& service = immortal<TestService>(nullptr);
    ServiceRunner runner(service);
    for (const auto& [request, code, msg, line] : cases) {
        SCOPED_TRACE(request);
        LogCapture log;
        EXPECT_EQ(roundTrip(request), envelopeText(code, msg));
        EXPECT_EQ(log.count(ANDROID_LOG_ERROR, line), 1u);
        EXPECT_EQ(roundTrip(kQuery), service.answer);
    }
    EXPECT_EQ(service.served, 6);
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
        LogCapture log;
        service.status = status;
        service.answer = answer;
        EXPECT_EQ(roundTrip(kQuery), reply);
        EXPECT_EQ(log.count(ANDROID_LOG_ERROR, "Server failed to call api."), answer != reply);
    }
}

}  // namespace
