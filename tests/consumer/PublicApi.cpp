// Compiled by scripts/consumer-check against an installed tree with clang
// -Wthread-safety -Werror, and linked: every public header included, every
// public function called, as an application may. It fails to build if a
// header needs something that is not installed, if an annotation asks a
// caller for a lock it cannot hold, or if a symbol is not exported.
#include "IOemPolicyCB.h"
#include "IOemPolicyCBFactory.h"
#include "IOemQuery.h"
#include "OemJsonUtils.h"
#include "SocketOemPolicyCBClient.h"
#include "SocketOemPolicyCBServer.h"
#include "SocketOemQueryClient.h"
#include "SocketOemQueryServer.h"
#include "SocketTransport.h"
#include "TalvoemAdmission.h"
#include "TalvoemConnection.h"
#include "TalvoemPolicyQuery.h"
#include "TalvoemProtocol.h"

namespace {

class Service : public SocketOemQueryServer {
public:
    using SocketOemQueryServer::SocketOemQueryServer;
    int8_t queryPolicy(uint16_t, const std::string&, std::string*) override { return 0; }
    int8_t setPolicyCallback(IOemPolicyCB*) override { return 0; }
};

class Callback : public IOemPolicyCB {
public:
    void onPolicyChanged(uint16_t, std::string*) override {}
};

void codec() {
    using namespace OemJsonUtils;
    std::string text;
    Resp resp;
    toJson(resp, text), fromJson(text, resp), hasValue(Json::Value(), "code");
    getRequestApi(text, text);
    QueryPolicy::Req query;
    QueryPolicy::Data data;
    QueryPolicy::Function func;
    QueryPolicy::Subsystem subsys;
    QueryPolicy::Operate op;
    std::vector<QueryPolicy::Operate> ops;
    Json::Value value(Json::objectValue);
    QueryPolicy::toJson(query, text), QueryPolicy::fromJson(text, query);
    QueryPolicy::toJson(data, text), QueryPolicy::fromJson(text, data);
    QueryPolicy::toJsonValue(func, value), QueryPolicy::fromJsonValue(value, func);
    QueryPolicy::toJsonValue(subsys, value), QueryPolicy::fromJsonValue(value, subsys);
    QueryPolicy::toJsonValue(op, value), QueryPolicy::fromJsonValue(value, op);
    QueryPolicy::toJson(ops, text), QueryPolicy::fromJson(text, ops);
    SetPolicyCallback::Req channel;
    SetPolicyCallback::Callback message;
    SetPolicyCallback::toJson(channel, text), SetPolicyCallback::fromJson(text, channel);
    SetPolicyCallback::toJson(message, text), SetPolicyCallback::fromJson(text, message);
}

void transport() {
    std::string text = talvoem::protocol::kApiQueryPolicy;
    int fd = internalEstablishConnection();
    fd = establishConnection();
    sendMsg(fd, text), recvMsg(fd, text), closeConnection(fd);
}

void classes(int fd) {
    Callback app;
    SocketOemQueryClient client;
    std::string text;
    client.queryPolicy(talvoem::protocol::kTypeRegister, text, &text);
    client.setPolicyCallback(&app), client.observePolicyCallback(&app);
    client.disposePolicyCallback();

    SocketOemPolicyCBClient channel(&app);
    channel.observe(), channel.isSameCallback(&app), channel.onPolicyChanged(1, &text);
    channel.loopRecv(), channel.resetSocketFd(), channel.dispose();
    SocketOemPolicyCBClient::clientHandlerThread(&channel);
    SocketOemPolicyCBClient::notifyHandlerThread(&app, 1, nullptr);

    SocketOemPolicyCBServer end(fd);
    end.onPolicyChanged(1, &text), end.addData(text), end.observe(), end.loopRecv();
    end.loopSend(), end.internalDispose(), end.resetSocketFd();
    SocketOemPolicyCBServer::sendHandlerThread(&end);

    Service service(nullptr);
    service.init(), service.onTransact(fd, text, text), service.handlePolicyCallback(fd, 1, text);
    service.observePolicyCallback(fd, nullptr);
    talvoem::setAdmissionRule(&service,
                              {[](const talvoem::CallerCredentials&) { return true; }, 8});
    SocketOemQueryServer::svcHandlerThread(&service, fd);
}

void calls() {
    const talvoem::QueryAnswer answer = talvoem::queryService(1, "", talvoem::kDefaultQueryTimeout);
    talvoem::CallerCredentials caller;
    talvoem::describe(answer.result), talvoem::currentSendLimit(), talvoem::currentCaller(&caller);
}

}  // namespace

int main(int argc, char**) {
    // Built and linked, never run: the calls above would talk to a service.
    if (argc > 1000) {
        codec(), transport(), classes(argc), calls();
    }
    return 0;
}
