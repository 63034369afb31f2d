// The one-shot query conversation end to end: a raw client against a service
// derived from SocketOemQueryServer, run by the init-playing harness.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

#include "LogCapture.h"
#include "ServiceHarness.h"
#include "SocketOemQueryServer.h"
#include "Wire.h"

using namespace talvoem::test;

namespace {

class EchoService : public SocketOemQueryServer {
public:
    EchoService() : SocketOemQueryServer(nullptr) {}
    int8_t queryPolicy(uint16_t type, const std::string& data, std::string* result) override {
        std::lock_guard<std::mutex> lock(mutex_);
        lastType = type;
        lastData = data;
        *result = answer;
        return status;
    }
    int8_t setPolicyCallback(IOemPolicyCB*) override { return 0; }

    std::mutex mutex_;
    uint16_t lastType = 0;
    std::string lastData;
    std::string answer = "{\"code\":0,\"data\":\"[]\",\"msg\":\"success\"}\n";
    int8_t status = 0;
};

TEST(QueryConversation, QueryReachesServiceAndAnswerComesBackByteForByte) {
    EchoService service;
    ServiceRunner runner(service);
    std::string reply = roundTrip("{\"api\":\"queryPolicy\",\"data\":\"abc\",\"type\":3}\n");
    EXPECT_EQ(reply, service.answer);
    EXPECT_EQ(service.lastType, 3);
    EXPECT_EQ(service.lastData, "abc");
}

TEST(QueryConversation, StopMakesInitReturnMinusOne) {
    EchoService service;
    LogCapture log;
    ServiceRunner runner(service);
    ASSERT_TRUE(log.waitFor(ANDROID_LOG_INFO, "Server waiting for client"));
    EXPECT_EQ(runner.stop(), -1);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "Server failed to accept packet over socket"));
}

}  // namespace
