#include "OemJsonUtils.h"
#include "json/JsonText.h"

namespace OemJsonUtils::QueryPolicy {

using namespace talvoem::json;

namespace {
constexpr const char* kParseFailed = "Parse json failed.";
}  // namespace

int8_t fromJson(const std::string& text, Req& req) {
    return readRecord(text, kParseFailed, req, [](const Json::Value& root, Req& read) {
        return readString(root, "api", read.api) && readUInt16(root, "type", read.type) &&
               readString(root, "data", read.data);
    });
}

int8_t toJson(const Req& req, std::string& text) {
    return writeRecord(text, [&](Json::Value& root) {
        putString(root, "api", req.api);
        putUInt16(root, "type", req.type);
        putString(root, "data", req.data);
    });
}

int8_t fromJson(const std::string& text, Data& data) {
    return readRecord(text, kParseFailed, data, [](const Json::Value& root, Data& read) {
        return readString(root, "op_name", read.op_name) &&
               readString(root, "subsys_name", read.subsys_name) &&
               readString(root, "func_name", read.func_name);
    });
}

int8_t toJson(const Data& data, std::string& text) {
    return writeRecord(text, [&](Json::Value& root) {
        putString(root, "op_name", data.op_name);
        putString(root, "subsys_name", data.subsys_name);
        putString(root, "func_name", data.func_name);
    });
}

}  // namespace OemJsonUtils::QueryPolicy
