#include "Workload.h"

#include <time.h>

#include <vector>

#include "OemJsonUtils.h"

namespace talvoem::bench {

namespace {

using OemJsonUtils::QueryPolicy::Function;
using OemJsonUtils::QueryPolicy::Operate;
using OemJsonUtils::QueryPolicy::Subsystem;

// Three operations of three subsystems of two functions each: about 1 KiB of
// JSON, the size of a typical device policy.
std::string buildDocument() {
    std::vector<Operate> ops;
    for (const char* opName : {"camera", "location", "network"}) {
        Operate op;
        op.name = opName;
        for (const char* subsysName : {"framework", "vendor", "telephony"}) {
            Subsystem subsys;
            subsys.name = subsysName;
            subsys.funcs = {{"background_access", true}, {"foreground_only", false}};
            op.subsyss.push_back(subsys);
        }
        ops.push_back(op);
    }
    std::string text;
    OemJsonUtils::QueryPolicy::toJson(ops, text);
    return text;
}

std::string buildRequest() {
    OemJsonUtils::QueryPolicy::Req req;
    req.api = "queryPolicy";
    req.type = kQueryType;
    std::string text;
    OemJsonUtils::QueryPolicy::toJson(req, text);
    return text;
}

std::string buildAnswer() {
    OemJsonUtils::Resp resp;
    resp.msg = "success";
    resp.data = policyDocumentText();
    std::string text;
    OemJsonUtils::toJson(resp, text);
    return text;
}

}  // namespace

const std::string& policyDocumentText() {
    static const std::string text = buildDocument();
    return text;
}

const std::string& queryRequestText() {
    static const std::string text = buildRequest();
    return text;
}

const std::string& queryAnswerText() {
    static const std::string text = buildAnswer();
    return text;
}

uint64_t nowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

}  // namespace talvoem::bench
