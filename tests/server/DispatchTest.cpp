// Requests through a real connection: each reaches queryPolicy or gets its
// in-band answer, and the service keeps serving after every bad one.
#include <gtest/gtest.h>

#include <thread>

#include "LogCapture.h"
#include "ServiceHarness.h"
#include "TestService.h"
#include "Wire.h"

using namespace talvoem::test;

namespace {

const std::string kGoodQuery = "{\"api\":\"queryPolicy\",\"data\":\"abc\",\"type\":3}\n";

std::string envelope(int code, const std::string& msg) {
    return "{\"code\":" + std::to_string(code) + ",\"msg\":\"" + msg + "\"}\n";
}

std::string nested(int depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

TEST(Dispatch, QueryReachesServiceAndItsAnswerComesBackByteForByte) {
    TestService& service = immortal<TestService>(nullptr);
    ServiceRunner runner(service);
    EXPECT_EQ(roundTrip(kGoodQuery), service.answer);
    EXPECT_EQ(service.lastType, 3);
    EXPECT_EQ(service.lastData, "abc");

    EXPECT_EQ(roundTrip("{\"api\":\"queryPolicy\",\"type\":65537}"), service.answer);
    EXPECT_EQ(service.lastType, 1);
    EXPECT_EQ(roundTrip("{\"api\":\"queryPolicy\"}"), service.answer);
    EXPECT_EQ(service.lastType, 0);
    EXPECT_EQ(service.lastData, "");
}

TEST(Dispatch, EveryBadRequestGetsItsEnvelopeAndTheServiceGoesOn) {
    struct Case {
        std::string request;
        std::string reply;
        std::string logLine;
    };
    const std::string getApi = "Server failed to get api.";
    const std::string parse = "Server failed to parse request.";
    const std::string noApi = "Server require not empty api.";
    const std::string unknown = "Server not define such api method.";
    const std::vector<Case> cases = {
        {"[\"api\"]", envelope(4, "Failed to get api."), getApi},
        {"42", envelope(4, "Failed to get api."), getApi},
        {"not json", envelope(4, "Failed to get api."), getApi},
        {nested(100000), envelope(4, "Failed to get api."), getApi},
        {"{\"api\":[\"queryPolicy\"]}", envelope(4, "Failed to get api."), getApi},
        {"{\"api\":{}}", envelope(4, "Failed to get api."), getApi},
        {"{}", envelope(11, "Require not empty api."), noApi},
        {"{\"api\":null}", envelope(11, "Require not empty api."), noApi},
        {"{\"api\":\"\"}", envelope(11, "Require not empty api."), noApi},
        {"{\"api\":\"QueryPolicy\"}", envelope(10, "No such api method."), unknown},
        {"{\"api\":\"queryPolicy \"}", envelope(10, "No such api method."), unknown},
        {"{\"api\":7}", envelope(10, "No such api method."), unknown},
        {"{\"api\":\"queryPolicy\",\"type\":\"3\"}", envelope(4, "Failed to parse request."),
         parse},
        {"{\"api\":\"queryPolicy\",\"type\":5e9}", envelope(4, "Failed to parse request."), parse},
        {"{\"api\":\"queryPolicy\",\"type\":{},\"data\":[]}",
         envelope(4, "Failed to parse request."), parse},
        {"{\"api\":\"setPolicyCallback\",\"type\":[1]}", envelope(4, "Failed to parse request."),
         parse},
    };
    TestService& service = immortal<TestService>(nullptr);
    ServiceRunner runner(service);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.request.substr(0, 60));
        LogCapture log;
        EXPECT_EQ(roundTrip(c.request), c.reply);
        EXPECT_EQ(log.count(ANDROID_LOG_ERROR, c.logLine), 1u);
        EXPECT_EQ(roundTrip(kGoodQuery), service.answer);
    }
}

TEST(Dispatch, FallbackTextOnlyWhenTheServiceFailsWithoutAnswering) {
    struct Case {
        int8_t status;
        std::string answer;
        std::string reply;
        size_t fallbackLogs;
    };
    const std::vector<Case> cases = {
        {0, "{\"x\":1}", "{\"x\":1}", 0},
        {0, "", "", 0},  // nothing sent: the client sees the close
        {1, "", "{\"code\":-1,\"msg\":\"failed\"}", 1},
        {-1, "custom failure", "custom failure", 0},
    };
    TestService& service = immortal<TestService>(nullptr);
    ServiceRunner runner(service);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.reply);
        LogCapture log;
        service.status = c.status;
        service.answer = c.answer;
        std::string reply = roundTrip(kGoodQuery);
        EXPECT_EQ(reply, c.reply);
        EXPECT_EQ(log.count(ANDROID_LOG_ERROR, "Server failed to call api."), c.fallbackLogs);
    }
    EXPECT_EQ(std::string("{\"code\":-1,\"msg\":\"failed\"}").size(), 26u);
}

// A service whose queryPolicy holds each caller until a second one is inside.
class BarrierService : public TestService {
public:
    BarrierService() : TestService(nullptr) {}
    int8_t queryPolicy(uint16_t type, const std::string& data, std::string* result) override {
        std::unique_lock<std::mutex> lock(barrierMutex);
        ++inside;
        arrived.notify_all();
        bothInside |= arrived.wait_for(lock, std::chrono::seconds(10), [&] { return inside >= 2; });
        lock.unlock();
        return TestService::queryPolicy(type, data, result);
    }
    std::mutex barrierMutex;
    std::condition_variable arrived;
    int inside = 0;
    bool bothInside = false;
};

TEST(Dispatch, ConcurrentQueriesAreInsideQueryPolicyAtOnce) {
    BarrierService& service = immortal<BarrierService>();
    ServiceRunner runner(service);
    std::string first;
    std::thread other([&] { first = roundTrip(kGoodQuery); });
    std::string second = roundTrip(kGoodQuery);
    other.join();
    EXPECT_TRUE(service.bothInside);
    EXPECT_EQ(first, service.answer);
    EXPECT_EQ(second, service.answer);
}

}  // namespace
