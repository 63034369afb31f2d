// Connecting to the service socket: the retry schedule and its log lines,
// the result codes of a failed attempt, and a service that appears while the
// client is still retrying.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "SocketTransport.h"
#include "Wire.h"

using namespace talvoem::test;

namespace {

const std::string kRetryPrefix = "establishConnection retry: ";
const std::string kConnectFailed =
    "Failed to connect to TALVO OEM Query Service (connection failed ";

std::vector<std::string> linesStartingWith(const LogCapture& log, int priority,
                                           const std::string& prefix) {
    std::vector<std::string> found;
    for (const LogLine& line : log.lines()) {
        if (line.priority == priority && line.text.rfind(prefix, 0) == 0) {
            found.push_back(line.text);
        }
    }
    return found;
}

// A SOCK_SEQPACKET socket bound at the service path; listening only on request.
int bindServicePath() {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, "/dev/socket/talvoem", sizeof(addr.sun_path) - 1);
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Lowers the descriptor limit to the highest descriptor open now and fills
// the gaps below it, so socket() fails with EMFILE; undoes both on destruction.
class DescriptorsExhausted {
public:
    DescriptorsExhausted() {
        getrlimit(RLIMIT_NOFILE, &saved_);
        rlimit low = saved_;
        low.rlim_cur = 1;
        for (int fd = 0; fd < 4096; ++fd) {
            if (fcntl(fd, F_GETFD) != -1) {
                low.rlim_cur = static_cast<rlim_t>(fd) + 1;
            }
        }
        setrlimit(RLIMIT_NOFILE, &low);
        for (int fd = open("/dev/null", O_RDONLY); fd >= 0; fd = open("/dev/null", O_RDONLY)) {
            fillers_.push_back(fd);
        }
    }
    ~DescriptorsExhausted() {
        for (int fd : fillers_) {
            close(fd);
        }
        setrlimit(RLIMIT_NOFILE, &saved_);
    }

private:
    rlimit saved_ = {};
    std::vector<int> fillers_;
};

TEST(Connection, SingleAttemptReportsWhyConnectFailed) {
    struct Case {
        const char* what;
        bool bindFirst;
        const char* reason;
    };
    const Case cases[] = {
        {"no socket file", false, "No such file or directory"},
        {"bound but not listening", true, "Connection refused"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        int bound = c.bindFirst ? bindServicePath() : -1;
        ASSERT_EQ(bound >= 0, c.bindFirst);
        const int fdsBefore = openFdCount();
        LogCapture log;
        EXPECT_EQ(internalEstablishConnection(), -2);
        EXPECT_EQ(openFdCount(), fdsBefore) << "the failed socket must be closed";
        ASSERT_EQ(log.lines().size(), 1u);
        EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kConnectFailed + c.reason + ")"));
        if (bound >= 0) {
            close(bound);
            unlink("/dev/socket/talvoem");
        }
    }
}

TEST(Connection, SocketCreationFailureIsMinusOne) {
    LogCapture log;
    int fd;
    {
        DescriptorsExhausted exhausted;
        fd = internalEstablishConnection();
    }
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(log.count(ANDROID_LOG_ERROR,
                        "Failed to connect to TALVO OEM Query Service (socket creation failed "
                        "Too many open files)"),
              1u);
}

// With no service, six attempts and five debug lines with the doubling
// interval; the sixth attempt's own result is returned unchanged.
TEST(Connection, RetriesFiveTimesThenReturnsTheLastResult) {
    const std::vector<std::string> schedule = {
        kRetryPrefix + "0, interval: 20",  kRetryPrefix + "1, interval: 40",
        kRetryPrefix + "2, interval: 80",  kRetryPrefix + "3, interval: 160",
        kRetryPrefix + "4, interval: 320",
    };
    {
        LogCapture log;
        EXPECT_EQ(establishConnection(), -2);
        EXPECT_EQ(linesStartingWith(log, ANDROID_LOG_DEBUG, kRetryPrefix), schedule);
        EXPECT_EQ(linesStartingWith(log, ANDROID_LOG_ERROR, kConnectFailed).size(), 6u);
        EXPECT_EQ(log.lines().size(), 11u);
    }
    {
        LogCapture log;
        int fd;
        {
            DescriptorsExhausted exhausted;
            fd = establishConnection();
        }
        EXPECT_EQ(fd, -1);
        EXPECT_EQ(linesStartingWith(log, ANDROID_LOG_DEBUG, kRetryPrefix), schedule);
    }
}

// The listener appears once the first attempt has failed; the descriptor of
// the first attempt that finds it comes back, and the retry lines stop there.
TEST(Connection, ServiceAppearingBetweenAttemptsIsUsed) {
    LogCapture log;
    int listener = -1;
    std::thread service([&] {
        log.waitFor(ANDROID_LOG_ERROR, kConnectFailed + "No such file or directory)");
        listener = bindServicePath();
        listen(listener, 1);
    });
    int fd = establishConnection();
    service.join();
    ASSERT_GE(listener, 0);
    ASSERT_GE(fd, 0) << "the service was listening within the retry schedule";

    const size_t failed = linesStartingWith(log, ANDROID_LOG_ERROR, kConnectFailed).size();
    const auto retries = linesStartingWith(log, ANDROID_LOG_DEBUG, kRetryPrefix);
    EXPECT_GE(failed, 1u);
    EXPECT_EQ(retries.size(), failed) << "one retry line per failed attempt, none after success";

    int peer = accept(listener, nullptr, nullptr);
    ASSERT_GE(peer, 0);
    std::string request = "{\"api\":\"queryPolicy\"}\n";
    EXPECT_EQ(sendMsg(fd, request), 0);
    Packet packet = recvRaw(peer);
    EXPECT_EQ(packet.status, Packet::kData);
    EXPECT_EQ(packet.bytes, request);
    EXPECT_EQ(closeConnection(fd), 0);
    EXPECT_EQ(recvRaw(peer).status, Packet::kClosed);
    close(peer);
    close(listener);
}

}  // namespace
