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
#include "IOemPolicyCBFactory.h"
#include "OemJsonUtils.h"
#include "SocketOemQueryServer.h"

using talvoem::fuzz::check;

namespace {

const std::string kSuccess = "{\"code\":0,\"msg\":\"success\"}\n";
const std::string kExit = "{\"cmd\":2}\n";

class ForwardingCallback : public IOemPolicyCB {
public:
    explicit ForwardingCallback(IOemPolicyCB* channel) : channel_(channel) {}
    void onPolicyChanged(uint16_t type, std::string* data) override {
        channel_->onPolicyChanged(type, data);
    }

private:
    IOemPolicyCB* channel_;
};

class Factory : public IOemPolicyCBFactory {
public:
    IOemPolicyCB* createCallback(IOemPolicyCB* channel) override {
        return new ForwardingCallback(channel);
    }
};

// The query's type picks the service's behaviour: bit 0 fails the call,
// bit 1 writes an answer echoing the data.
class Service : public SocketOemQueryServer {
public:
    using SocketOemQueryServer::SocketOemQueryServer;
    int8_t queryPolicy(uint16_t type, const std::string& data, std::string* result) override {
        if (type & 2) {
            OemJsonUtils::Resp resp;
            resp.code = type;
            resp.msg = "answer";
            resp.data = data;
            OemJsonUtils::toJson(resp, *result);
        }
        return static_cast<int8_t>(type & 1);
    }
    int8_t setPolicyCallback(IOemPolicyCB*) override { return 0; }
};

std::vector<std::string> serve(SocketOemQueryServer& service, const std::string& request) {
    int fds[2];
    check(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds) == 0, "no socketpair");
    std::vector<std::string> answers;
    if (!talvoem::fuzz::sendPacket(fds[1], request)) {
        close(fds[0]);  // larger than the socket takes: nothing to serve
        close(fds[1]);
        return answers;
    }
    // The peer sends nothing more, so a channel ends as soon as it has run.
    shutdown(fds[1], SHUT_WR);
    SocketOemQueryServer::svcHandlerThread(&service, fds[0]);  // closes fds[0]
    std::string packet;
    while (talvoem::fuzz::recvPacket(fds[1], packet, std::chrono::milliseconds(0)) ==
           talvoem::fuzz::Recv::kData) {
        answers.push_back(packet);
    }
    close(fds[1]);
    return answers;
}

void expectWellFormed(const std::vector<std::string>& answers) {
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
    static Factory factory;
    static Service withFactory(&factory);
    static Service withoutFactory(nullptr);
    const std::string request(reinterpret_cast<const char*>(data), size);
    expectWellFormed(serve(withFactory, request));
    expectWellFormed(serve(withoutFactory, request));
    return 0;
}
