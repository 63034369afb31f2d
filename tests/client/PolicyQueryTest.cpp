// talvoem::queryService: each of its results against a hand-written service,
// a stopped service whose backlog is full, and many queries at once against
// the library's own service.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "Service.h"
#include "TalvoemPolicyQuery.h"
#include "Wire.h"

using namespace talvoem::test;
using talvoem::QueryAnswer;
using talvoem::QueryResult;
using talvoem::queryService;

namespace {

using std::chrono::milliseconds;

// An envelope exactly `size` bytes long, padded in its data.
std::string envelopeOfSize(size_t size) {
    const std::string frame = "{\"code\":0,\"data\":\"\"}\n";
    return "{\"code\":0,\"data\":\"" + std::string(size - frame.size(), 'd') + "\"}\n";
}

// Lets a raw peer send a packet longer than the kernel's usual cap.
void raiseSendBufferByForce(int fd) {
    const int size = 4 * static_cast<int>(kReceiveLimit);
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof(size)), 0) << "needs root";
}

struct Case {
    const char* name;
    // Runs on the accepted connection; none: nothing listens at the path.
    std::function<void(int fd)> serve;
    QueryResult result;
    std::string text;  // what the answer's text must be
    std::string data = "sel";
    milliseconds timeout = std::chrono::seconds(10);
};

// A service that accepts one connection and runs the case's script on it,
// while the query runs on a thread of its own.
QueryAnswer runAgainstFake(const Case& c) {
    const int listener = c.serve ? bindPath() : -1;
    if (listener >= 0) {
        listen(listener, 4);
    }
    auto pending =
        std::async(std::launch::async, [&] { return queryService(7, c.data, c.timeout); });
    if (listener >= 0) {
        const int fd = accept(listener, nullptr, nullptr);
        c.serve(fd);
        close(fd);
        close(listener);
        unlink(kServicePath);
    }
    return pending.get();
}

TEST(PolicyQuery, EachWayAQueryEndsHasItsOwnResult) {
    const std::string answer = "{\"code\":3,\"data\":\"d\",\"msg\":\"m\"}\n";
    const std::string exact = envelopeOfSize(kReceiveLimit);
    const std::string tooLong(kReceiveLimit + 1, 'x');
    auto replyWith = [](std::string reply) {
        return [reply](int fd) {
            EXPECT_EQ(recvRaw(fd).bytes, queryText(7, "sel")) << "the codec's request";
            raiseSendBufferByForce(fd);
            EXPECT_TRUE(sendRaw(fd, reply));
        };
    };
    const Case cases[] = {
        {"answered", replyWith(answer), QueryResult::kAnswered, answer},
        {"answer of exactly the limit", replyWith(exact), QueryResult::kAnswered, exact},
        {"answer cut at the limit", replyWith(tooLong), QueryResult::kAnswerCut,
         tooLong.substr(0, kReceiveLimit)},
        {"not JSON", replyWith("[1]\n"), QueryResult::kNotEnvelope, "[1]\n"},
        {"an object without a code", replyWith("{\"msg\":\"m\"}\n"), QueryResult::kNotEnvelope,
         "{\"msg\":\"m\"}\n"},
        {"closed without answering", [](int fd) { recvRaw(fd); }, QueryResult::kClosedWithoutAnswer,
         ""},
        // Holds the connection open until the query gives up and closes it.
        {"silent", [](int fd) { recvRaw(fd), recvRaw(fd); }, QueryResult::kTimedOut, "", "sel",
         milliseconds(300)},
        {"no service", nullptr, QueryResult::kNoService, ""},
        {"request over the receive limit", nullptr, QueryResult::kLocalFailure, "",
         std::string(kReceiveLimit, 'r')},
    };
    const int baselineFds = openFdCount();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const QueryAnswer got = runAgainstFake(c);
        EXPECT_EQ(got.result, c.result) << talvoem::describe(got.result);
        EXPECT_EQ(got.text.size(), c.text.size());
        EXPECT_TRUE(got.text == c.text);
        EXPECT_EQ(openFdCount(), baselineFds) << "the query's socket is closed";
    }
    const QueryAnswer answered = runAgainstFake(cases[0]);
    EXPECT_EQ(answered.envelope.code, 3);
    EXPECT_EQ(answered.envelope.msg, "m");
    EXPECT_EQ(answered.envelope.data, "d");
}

// A stopped service's listener takes no connection: once its backlog is full a
// connect blocks until a slot frees. The query still ends at its deadline.
TEST(PolicyQuery, StoppedServiceWithAFullBacklogTimesOutAtTheDeadline) {
    const int listener = bindPath();
    ASSERT_EQ(listen(listener, 0), 0);
    const int queued = connectRaw();  // backlog 0 still queues one
    ASSERT_GE(queued, 0);
    const auto start = std::chrono::steady_clock::now();
    const QueryAnswer got = queryService(1, "", milliseconds(500));
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(got.result, QueryResult::kTimedOut);
    EXPECT_GE(took, milliseconds(450)) << "it waited for the service, not gave up at once";
    EXPECT_LT(took, std::chrono::seconds(5)) << "bounded by its deadline";
    close(queued);
    close(listener);
}

TEST(PolicyQuery, ConcurrentQueriesEachGetTheirOwnAnswer) {
    auto& factory = immortal<ForwardingFactory>();
    auto& service = immortal<TestService>(&factory);
    service.echo = true;
    ServiceRunner runner(service);
    std::vector<std::future<int>> wrong;
    for (uint16_t thread = 1; thread <= 8; ++thread) {
        wrong.push_back(std::async(std::launch::async, [thread] {
            int mismatches = 0;
            for (int i = 0; i < 25; ++i) {
                const std::string data = "t" + std::to_string(thread) + "q" + std::to_string(i);
                const QueryAnswer got = queryService(thread, data);
                mismatches += got.result != QueryResult::kAnswered ||
                              got.text != echoAnswer(thread, data) ||
                              got.envelope.data != std::to_string(thread) + ":" + data;
            }
            return mismatches;
        }));
    }
    for (auto& result : wrong) {
        EXPECT_EQ(result.get(), 0);
    }
}

}  // namespace
