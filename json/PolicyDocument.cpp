#include "OemJsonUtils.h"
#include "json/JsonText.h"
#include "talvoem/Log.h"

namespace OemJsonUtils::QueryPolicy {

using namespace talvoem::json;

namespace {

constexpr const char* kParseFailed = "Parse json failed.";
constexpr const char* kSerializeFailed = "Serialize json failed.";

// Decodes the name and the list of a Subsystem or an Operate. A name that does
// not convert fails here, before the record is touched; a list member that is
// present but not an array fails without a message (the name stays set); a
// failing element has logged for itself and stops the list where it stands.
template <typename Record, typename Element>
int8_t decodeBranch(const Json::Value& value, Record& record, const char* listKey,
                    std::vector<Element>& list) {
    std::string name = record.name;
    if (!value.isObject() || !readString(value, "name", name)) {
        TALVOEM_LOGW("%s", kParseFailed);
        return -1;
    }
    record.name = std::move(name);
    if (!hasValue(value, listKey)) {
        return 0;
    }
    const Json::Value& members = value[listKey];
    if (!members.isArray()) {
        return -1;
    }
    for (Json::ArrayIndex i = 0; i < members.size(); ++i) {
        Element element;
        if (fromJsonValue(members[i], element) != 0) {
            return -1;
        }
        list.push_back(std::move(element));
    }
    return 0;
}

// Encodes the name (always) and the list of a Subsystem or an Operate.
template <typename Record, typename Element>
int8_t encodeBranch(const Record& record, const char* listKey, const std::vector<Element>& list,
                    Json::Value& value) {
    if (!value.isObject()) {
        TALVOEM_LOGW("%s", kSerializeFailed);
        return -1;
    }
    value["name"] = Json::Value(record.name);
    Json::Value& members = value[listKey] = Json::Value(Json::arrayValue);
    for (const Element& element : list) {
        Json::Value object(Json::objectValue);
        if (toJsonValue(element, object) != 0) {
            return -1;
        }
        members.append(std::move(object));
    }
    return 0;
}

}  // namespace

int8_t fromJsonValue(const Json::Value& value, Function& func) {
    return guarded(kParseFailed, [&]() -> int8_t {
        Function read = func;
        if (!value.isObject() || !readString(value, "name", read.name) ||
            !readBool(value, "enable", read.enable, true)) {
            TALVOEM_LOGW("%s", kParseFailed);
            return -1;
        }
        func = std::move(read);
        return 0;
    });
}

int8_t toJsonValue(const Function& func, Json::Value& value) {
    return guarded(nullptr, [&]() -> int8_t {
        if (!value.isObject()) {
            TALVOEM_LOGW("%s", kSerializeFailed);
            return -1;
        }
        putString(value, "name", func.name);
        value["enable"] = Json::Value(func.enable);
        return 0;
    });
}

int8_t fromJsonValue(const Json::Value& value, Subsystem& subsys) {
    return guarded(kParseFailed,
                   [&]() -> int8_t { return decodeBranch(value, subsys, "funcs", subsys.funcs); });
}

int8_t toJsonValue(const Subsystem& subsys, Json::Value& value) {
    return guarded(nullptr,
                   [&]() -> int8_t { return encodeBranch(subsys, "funcs", subsys.funcs, value); });
}

int8_t fromJsonValue(const Json::Value& value, Operate& op) {
    return guarded(kParseFailed,
                   [&]() -> int8_t { return decodeBranch(value, op, "subsyss", op.subsyss); });
}

int8_t toJsonValue(const Operate& op, Json::Value& value) {
    return guarded(nullptr,
                   [&]() -> int8_t { return encodeBranch(op, "subsyss", op.subsyss, value); });
}

int8_t fromJson(const std::string& text, std::vector<Operate>& ops) {
    return guarded(kParseFailed, [&]() -> int8_t {
        Json::Value root;
        if (!parse(text, root) || !root.isArray()) {
            TALVOEM_LOGW("%s", kParseFailed);
            return -1;
        }
        for (Json::ArrayIndex i = 0; i < root.size(); ++i) {
            Operate op;
            if (fromJsonValue(root[i], op) != 0) {
                return -1;
            }
            ops.push_back(std::move(op));
        }
        return 0;
    });
}

int8_t toJson(const std::vector<Operate>& ops, std::string& text) {
    return guarded(nullptr, [&]() -> int8_t {
        Json::Value root(Json::arrayValue);
        for (const Operate& op : ops) {
            Json::Value object(Json::objectValue);
            if (toJsonValue(op, object) != 0) {
                return -1;
            }
            root.append(std::move(object));
        }
        write(root, text);
        return 0;
    });
}

}  // namespace OemJsonUtils::QueryPolicy
