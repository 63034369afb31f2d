#pragma once

#include <cstdint>
#include <string>

#include "OemJsonUtils.h"

namespace talvoem::server {

// Replaces `response` with the envelope {code, msg} (no data) that the service
// side answers a request with.
inline void writeEnvelope(std::string& response, int32_t code, const char* msg) {
    OemJsonUtils::Resp resp;
    resp.code = code;
    resp.msg = msg;
    OemJsonUtils::toJson(resp, response);
}

}  // namespace talvoem::server
