#include "OemJsonUtils.h"
#include "json/JsonText.h"

namespace OemJsonUtils {

using namespace talvoem::json;

bool hasValue(const Json::Value& value, const std::string& key) {
    if (!value.isObject()) {
        return false;
    }
    const Json::Value* member = value.find(key.data(), key.data() + key.size());
    return member != nullptr && !member->isNull();
}

int8_t getRequestApi(const std::string& request, std::string& api) {
    // The peek logs nothing: the dispatcher answers an unreadable request.
    return readRecord(request, nullptr, api, [](const Json::Value& root, std::string& read) {
        return readString(root, "api", read);
    });
}

int8_t fromJson(const std::string& text, Resp& resp) {
    return readRecord(text, "Parse json failed", resp, [](const Json::Value& root, Resp& read) {
        return readInt32(root, "code", read.code) && readString(root, "msg", read.msg) &&
               readString(root, "data", read.data);
    });
}

int8_t toJson(const Resp& resp, std::string& text) {
    return writeRecord(text, [&](Json::Value& root) {
        root["code"] = Json::Value(static_cast<int>(resp.code));
        putString(root, "msg", resp.msg);
        putString(root, "data", resp.data);
    });
}

}  // namespace OemJsonUtils
