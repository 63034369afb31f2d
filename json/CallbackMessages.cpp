#include "OemJsonUtils.h"
#include "json/JsonText.h"

namespace OemJsonUtils::SetPolicyCallback {

using namespace talvoem::json;

namespace {
constexpr const char* kParseFailed = "Parse json failed.";
}  // namespace

int8_t fromJson(const std::string& text, Req& req) {
    return readRecord(text, kParseFailed, req, [](const Json::Value& root, Req& read) {
        return readString(root, "api", read.api) && readUInt16(root, "type", read.type);
    });
}

int8_t toJson(const Req& req, std::string& text) {
    return writeRecord(text, [&](Json::Value& root) {
        putString(root, "api", req.api);
        putUInt16(root, "type", req.type);
    });
}

int8_t fromJson(const std::string& text, Callback& cb) {
    return readRecord(text, kParseFailed, cb, [](const Json::Value& root, Callback& read) {
        return readUInt16(root, "cmd", read.cmd) && readUInt16(root, "type", read.type) &&
               readString(root, "data", read.data);
    });
}

int8_t toJson(const Callback& cb, std::string& text) {
    return writeRecord(text, [&](Json::Value& root) {
        putUInt16(root, "cmd", cb.cmd);
        putUInt16(root, "type", cb.type);
        putString(root, "data", cb.data);
    });
}

}  // namespace OemJsonUtils::SetPolicyCallback
