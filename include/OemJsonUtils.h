#pragma once

#include <json/json.h>

#include <cstdint>
#include <string>
#include <vector>

// The message codec: plain records and their JSON text, both directions.
//
// Every fromJson/toJson/fromJsonValue/toJsonValue and getRequestApi returns 0
// for success and -1 for failure. Writers produce compact text with members in
// ascending key order and one trailing line feed. Readers leave a field alone
// when its member is absent or null, so read into a fresh record.
//
// Malformed input never throws and never aborts. A reader refuses, with its
// failure message at warn priority and -1, a text that is not JSON, whose root
// has the wrong kind, that nests 1,000 or more containers deep, or whose
// member has a kind that does not convert to its field (a string field given
// an array or object; an integer field given a string, array, object or a
// number outside the signed 32-bit range; a flag given a string, array or
// object). A refused message leaves the record unchanged.
namespace OemJsonUtils {

// Response envelope. Written with "code" always, "msg" and "data" when not
// empty; read with the failure message "Parse json failed".
struct Resp {
    int32_t code = 0;
    std::string msg;
    std::string data;
};

// True when `value` is an object with a member `key` that is not null.
bool hasValue(const Json::Value& value, const std::string& key);

// Reads the "api" member of a request. -1 (nothing logged) when the text is not
// a JSON object or "api" is not a string-convertible value; 0 otherwise, with
// `api` left unchanged when the member is absent or null.
int8_t getRequestApi(const std::string& request, std::string& api);

int8_t fromJson(const std::string& text, Resp& resp);
int8_t toJson(const Resp& resp, std::string& text);

namespace QueryPolicy {

// Query request: "api", "type" (low 16 bits of the integer), "data".
struct Req {
    std::string api;
    uint16_t type = 0;
    std::string data;
};

// Query selector carried in a query's data: one operation, subsystem, function.
struct Data {
    std::string op_name;
    std::string subsys_name;
    std::string func_name;
};

// Policy document: operations hold subsystems ("subsyss"), which hold
// functions ("funcs") with an on/off flag ("enable", true when absent/null).
struct Function {
    std::string name;
    bool enable = false;
};
struct Subsystem {
    std::string name;
    std::vector<Function> funcs;
};
struct Operate {
    std::string name;
    std::vector<Subsystem> subsyss;
};

// Both records log "Parse json failed." when a text cannot be read.
int8_t fromJson(const std::string& text, Req& req);
int8_t toJson(const Req& req, std::string& text);
int8_t fromJson(const std::string& text, Data& data);
int8_t toJson(const Data& data, std::string& text);

// Policy document codec. Decoders update in place and only append to lists;
// the first element that fails fails the whole document, keeping the elements
// decoded before it, with exactly one "Parse json failed." from the innermost
// decoder that refused (none when a list member is present but not an array).
// A "name" that is an array or object, or an "enable" that is a string, array
// or object, is refused the same way: that element's decoder logs "Parse json
// failed." and returns -1 without touching its record. Encoders need a target
// that is already a JSON object and log "Serialize json failed." otherwise.
int8_t fromJsonValue(const Json::Value& value, Function& func);
int8_t toJsonValue(const Function& func, Json::Value& value);
int8_t fromJsonValue(const Json::Value& value, Subsystem& subsys);
int8_t toJsonValue(const Subsystem& subsys, Json::Value& value);
int8_t fromJsonValue(const Json::Value& value, Operate& op);
int8_t toJsonValue(const Operate& op, Json::Value& value);
int8_t fromJson(const std::string& text, std::vector<Operate>& ops);
int8_t toJson(const std::vector<Operate>& ops, std::string& text);

}  // namespace QueryPolicy

namespace SetPolicyCallback {

// Channel request: type 1 registers a channel, type 2 disposes of it.
struct Req {
    std::string api;
    uint16_t type = 0;
};

// Channel message: cmd 1 notifies (type, data), cmd 2 ends the channel.
struct Callback {
    uint16_t cmd = 0;
    uint16_t type = 0;
    std::string data;
};

// Both records log "Parse json failed." when a text cannot be read.
int8_t fromJson(const std::string& text, Req& req);
int8_t toJson(const Req& req, std::string& text);
int8_t fromJson(const std::string& text, Callback& cb);
int8_t toJson(const Callback& cb, std::string& text);

}  // namespace SetPolicyCallback
}  // namespace OemJsonUtils
