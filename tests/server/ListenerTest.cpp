// The listener's contract: a missing or unusable control socket, a failing
// accept, and connections that bring nothing.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "LogCapture.h"
#include "ServiceHarness.h"
#include "TestService.h"
#include "Wire.h"

using namespace talvoem::test;

namespace {

const std::string kQuery = "{\"api\":\"queryPolicy\",\"data\":\"d\",\"type\":1}\n";

int boundSocket(int type, const char* path) {
    int fd = socket(AF_UNIX, type, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path, sizeof(addr.sun_path) - 1);
    unlink(path);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    return fd;
}

void handOver(int fd) {
    setenv("ANDROID_SOCKET_talvoem", std::to_string(fd).c_str(), 1);
}

std::string noSocketLine(int err) {
    return std::string("Server failed to connect to socket talvoem, error - ") + strerror(err);
}

TEST(Listener, WithoutAUsableControlSocketInitReturnsMinusOne) {
    TestService& service = immortal<TestService>(nullptr);
    LogCapture log;
    unsetenv("ANDROID_SOCKET_talvoem");
    EXPECT_EQ(service.init(), -1);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, noSocketLine(ENOENT)));

    handOver(987);  // not an open descriptor
    EXPECT_EQ(service.init(), -1);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, noSocketLine(EBADF)));

    int elsewhere = boundSocket(SOCK_SEQPACKET, "/dev/socket/other");
    handOver(elsewhere);
    EXPECT_EQ(service.init(), -1);
    EXPECT_EQ(fcntl(elsewhere, F_GETFD), 0) << "a socket that is not ours stays open";
    close(elsewhere);
    EXPECT_EQ(log.count(ANDROID_LOG_INFO, "Server waiting for client"), 0u);
}

TEST(Listener, ListenFailureClosesTheControlSocket) {
    TestService& service = immortal<TestService>(nullptr);
    LogCapture log;
    int fd = boundSocket(SOCK_DGRAM, "/dev/socket/talvoem");  // cannot listen
    handOver(fd);
    EXPECT_EQ(service.init(), -1);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, std::string("Server failed to listen to socket, "
                                                            "error - ") +
                                                    strerror(EOPNOTSUPP)));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "control socket left open";
}

TEST(Listener, FailedAcceptEndsInitButAcceptedConnectionsAreServed) {
    TestService& service = immortal<TestService>(nullptr);
    LogCapture log;
    ServiceRunner runner(service);
    int early = connectRaw();
    ASSERT_GE(early, 0);
    ASSERT_TRUE(log.waitFor(ANDROID_LOG_INFO, "Server Connected to Client"));

    EXPECT_EQ(runner.stop(), -1);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "Server failed to accept packet over socket"));
    EXPECT_EQ(fcntl(runner.listenFd(), F_GETFD), -1) << "listening socket left open";
    EXPECT_LT(connectRaw(), 0);

    ASSERT_TRUE(sendRaw(early, kQuery));
    Packet reply = recvRaw(early);
    EXPECT_EQ(reply.bytes, service.answer);
    EXPECT_EQ(recvRaw(early).status, Packet::kClosed);
    close(early);
}

TEST(Listener, ConnectionsThatBringNothingAreClosedWithoutAnswer) {
    TestService& service = immortal<TestService>(nullptr);
    LogCapture log;
    SocketOemQueryServer::svcHandlerThread(&service, -1);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "Invalid socket fd."));

    ServiceRunner runner(service);
    int silent = connectRaw();
    ASSERT_GE(silent, 0);
    shutdown(silent, SHUT_WR);
    EXPECT_EQ(recvRaw(silent).status, Packet::kClosed);
    close(silent);

    int empty = connectRaw();
    ASSERT_TRUE(sendRaw(empty, ""));
    EXPECT_EQ(recvRaw(empty).status, Packet::kClosed);
    close(empty);
    EXPECT_EQ(roundTrip(kQuery), service.answer);
}

}  // namespace
