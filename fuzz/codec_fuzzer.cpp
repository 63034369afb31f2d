// Every reader of the codec on the same bytes: the request peek, the
// envelope, both request records, the selector, the channel message, the
// policy document, and the tree decoders on whatever jsoncpp parses. Besides
// not crashing (and, in the abort-on-exception build, never reaching the
// codec's last-line catch), each reader must leave its record untouched when
// it refuses, and whatever it reads must write a text that reads back the same.
#include <json/json.h>

#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "OemJsonUtils.h"

using talvoem::fuzz::check;

namespace {

using namespace OemJsonUtils;

// One text fills every record's fields with values no test input is likely
// to give: readers ignore members they do not know.
const std::string kSentinelText =
    "{\"api\":\"sentinel\",\"type\":77,\"data\":\"sentinel\",\"code\":55,\"msg\":\"sentinel\","
    "\"cmd\":99,\"op_name\":\"sentinel\",\"subsys_name\":\"sentinel\","
    "\"func_name\":\"sentinel\"}";

template <typename Record>
std::string textOf(const Record& record) {
    std::string text;
    check(toJson(record, text) == 0, "a record writer failed");
    return text;
}

// The readers and writers are found by argument-dependent lookup, so one
// template covers the records of every namespace.
template <typename Record>
void readRecord(const std::string& text) {
    Record record;
    check(fromJson(kSentinelText, record) == 0, "the sentinel text does not read");
    const std::string before = textOf(record);
    if (fromJson(text, record) != 0) {
        check(textOf(record) == before, "a refusing reader changed its record");
        return;
    }
    const std::string written = textOf(record);
    Record again;
    check(fromJson(written, again) == 0, "a written record does not read back");
    check(textOf(again) == written, "a written record reads back different");
}

void peekApi(const std::string& text) {
    std::string api = "unchanged";
    const int8_t status = getRequestApi(text, api);
    check(status == 0 || (status == -1 && api == "unchanged"), "a refused peek changed api");
    QueryPolicy::Req req;
    if (QueryPolicy::fromJson(text, req) == 0) {
        // The dispatcher picks the request reader by the peeked api.
        std::string peeked;
        check(getRequestApi(text, peeked) == 0 && peeked == req.api,
              "the peek and the request reader disagree on api");
    }
}

void readDocument(const std::string& text) {
    std::vector<QueryPolicy::Operate> ops(1);
    ops[0].name = "sentinel";
    if (QueryPolicy::fromJson(text, ops) != 0) {
        check(!ops.empty() && ops[0].name == "sentinel" && ops[0].subsyss.empty(),
              "a refused document touched what the list held");
        return;
    }
    ops.erase(ops.begin());
    std::string written;
    check(QueryPolicy::toJson(ops, written) == 0, "the document writer failed");
    std::vector<QueryPolicy::Operate> again;
    check(QueryPolicy::fromJson(written, again) == 0, "a written document does not read back");
    std::string rewritten;
    QueryPolicy::toJson(again, rewritten);
    check(rewritten == written, "a written document reads back different");
}

template <typename Record>
void decodeTree(const Json::Value& value) {
    Record record;
    if (QueryPolicy::fromJsonValue(value, record) != 0) {
        return;
    }
    Json::Value written(Json::objectValue);
    check(QueryPolicy::toJsonValue(record, written) == 0, "a tree encoder failed");
    Record again;
    check(QueryPolicy::fromJsonValue(written, again) == 0, "an encoded tree does not decode");
    Json::Value rewritten(Json::objectValue);
    QueryPolicy::toJsonValue(again, rewritten);
    check(rewritten == written, "an encoded tree decodes different");
    Json::Value notAnObject;
    check(QueryPolicy::toJsonValue(record, notAnObject) == -1, "an encoder took a null target");
}

// The tree decoders on the root and on every value up to two levels below.
void decodeTrees(const Json::Value& value, int levels) {
    decodeTree<QueryPolicy::Function>(value);
    decodeTree<QueryPolicy::Subsystem>(value);
    decodeTree<QueryPolicy::Operate>(value);
    if (levels == 0 || !(value.isArray() || value.isObject())) {
        return;
    }
    for (const Json::Value& child : value) {
        decodeTrees(child, levels - 1);
    }
}

// jsoncpp's own parse, for the tree decoders' input. This is the harness's
// parse, not the codec's: it may throw (deep nesting), and then there is no
// tree to decode.
bool parseTree(const std::string& text, Json::Value& root) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Json::Reader reader;
#pragma GCC diagnostic pop
    try {
        return reader.parse(text, root, true);
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    talvoem::fuzz::quietProcess();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    peekApi(text);
    readRecord<Resp>(text);
    readRecord<QueryPolicy::Req>(text);
    readRecord<QueryPolicy::Data>(text);
    readRecord<SetPolicyCallback::Req>(text);
    readRecord<SetPolicyCallback::Callback>(text);
    readDocument(text);
    Json::Value root;
    if (parseTree(text, root)) {
        decodeTrees(root, 2);
    }
    return 0;
}
