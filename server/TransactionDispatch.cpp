#include "OemJsonUtils.h"
#include "SocketOemQueryServer.h"
#include "TalvoemProtocol.h"
#include "server/ConnectionScope.h"
#include "server/Envelope.h"
#include "talvoem/Log.h"

using talvoem::server::writeEnvelope;
namespace protocol = talvoem::protocol;

namespace {

// Written without the codec, hence no trailing line feed.
constexpr const char* kQueryFailedText = "{\"code\":-1,\"msg\":\"failed\"}";

}  // namespace

int8_t SocketOemQueryServer::onTransact(int fd, std::string& request, std::string& response) {
    talvoem::server::ConnectionScope serving(fd);
    std::string api;
    if (OemJsonUtils::getRequestApi(request, api) < 0) {
        TALVOEM_LOGE("Server failed to get api.");
        writeEnvelope(response, protocol::kCodeUnreadableRequest, "Failed to get api.");
        return 0;
    }
    if (api.empty()) {
        TALVOEM_LOGE("Server require not empty api.");
        writeEnvelope(response, protocol::kCodeEmptyApi, "Require not empty api.");
        return 0;
    }
    if (api == protocol::kApiQueryPolicy) {
        OemJsonUtils::QueryPolicy::Req req;
        if (OemJsonUtils::QueryPolicy::fromJson(request, req) != 0) {
            TALVOEM_LOGE("Server failed to parse request.");
            writeEnvelope(response, protocol::kCodeUnreadableRequest, "Failed to parse request.");
            return 0;
        }
        int8_t status = queryPolicy(req.type, req.data, &response);
        if (status != 0 && response.empty()) {
            TALVOEM_LOGE("Server failed to call api.");
            response = kQueryFailedText;
        }
        return status;
    }
    if (api == protocol::kApiSetPolicyCallback) {
        OemJsonUtils::SetPolicyCallback::Req req;
        if (OemJsonUtils::SetPolicyCallback::fromJson(request, req) != 0) {
            TALVOEM_LOGE("Server failed to parse request.");
            writeEnvelope(response, protocol::kCodeUnreadableRequest, "Failed to parse request.");
            return 0;
        }
        handlePolicyCallback(fd, req.type, response);
        return 0;
    }
    TALVOEM_LOGE("Server not define such api method.");
    writeEnvelope(response, protocol::kCodeUnknownApi, "No such api method.");
    return 0;
}
