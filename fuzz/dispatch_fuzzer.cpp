// One request packet, any bytes, through a connection thread's whole path:
// receive, dispatch (a test service's queryPolicy, or a callback channel that
// runs until the peer's end closes), answer, close. Run against a service
// with a callback factory and one without. The peer must get at most one
// answer, or, for a channel, the success reply then the exit message; every
// packet the service sends is a JSON object.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "OemJsonUtils.h"
#include "Service.h"
#include "Wire.h"

using talvoem::fuzz::check;
using namespace talvoem::test;
using namespace std::chrono_literals;

namespace {

// The query's type picks the service's behaviour: bit 0 fails the call, bit 1
// writes an answer echoing the type and data.
class Service : public TestService {
public:
    using TestService::TestService;
    int8_t queryPolicy(uint16_t type, const std::string& data, std::string* result) override {
        if (type & 2) {
            *result = echoAnswer(type, data);
        }
        return static_cast<int8_t>(type & 1);
    }
};

void expectWellFormedAnswer(SocketOemQueryServer& service, const std::string& request) {
    int fds[2];
    check(seqpacketPair(fds), "no socketpair");
    std::vector<std::string> answers;
    // A request larger than the socket takes leaves nothing to serve.
    if (sendRaw(fds[1], request)) {
        // The peer sends nothing more, so a channel ends as soon as it has run.
        shutdown(fds[1], SHUT_WR);
        SocketOemQueryServer::svcHandlerThread(&service, fds[0]);  // closes fds[0]
        for (Packet p = recvRaw(fds[1], 0ms); p.status == Packet::kData; p = recvRaw(fds[1], 0ms)) {
            answers.push_back(p.bytes);
        }
    } else {
        close(fds[0]);
    }
    close(fds[1]);
    check(answers.size() <= 2, "more than two packets for one request");
    if (answers.size() == 2) {
        check(answers[0] == kSuccess && answers[1] == kExit, "a channel's packets out of place");
    }
    for (const std::string& answer : answers) {
        OemJsonUtils::Resp resp;
        check(OemJsonUtils::fromJson(answer, resp) == 0, "the service sent a non-object");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    talvoem::fuzz::quietProcess();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    talvoem::fuzz::restartCallsAfterTimerSignals();
    static ForwardingFactory factory;
    static Service withFactory(&factory);
    static Service withoutFactory(nullptr);
    const std::string request(reinterpret_cast<const char*>(data), size);
    expectWellFormedAnswer(withFactory, request);
    expectWellFormedAnswer(withoutFactory, request);
    return 0;
}
