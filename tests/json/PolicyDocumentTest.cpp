// The policy document: its exact text and a round trip, the reading rules (absent/null members,
// appending, convertible odd kinds) and every failure: status, what the target holds afterwards,
// and exactly which lines were logged.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "CodecTesting.h"
#include "LogCapture.h"
#include "OemJsonUtils.h"

using namespace talvoem::test;
using namespace OemJsonUtils::QueryPolicy;

namespace {

// Short form for expectations: name, then children in brackets; a function is
// its name and + (enabled) or - (disabled).
std::string describe(const Subsystem& s);
std::string describe(const Operate& o);
std::string describe(const Function& f) {
    return f.name + (f.enable ? "+" : "-");
}
template <typename T>
std::string describe(const std::vector<T>& list) {
    std::string text;
    for (const T& item : list) {
        text += (text.empty() ? "" : ",") + describe(item);
    }
    return text;
}
std::string describe(const Subsystem& s) {
    return s.name + "[" + describe(s.funcs) + "]";
}
std::string describe(const Operate& o) {
    return o.name + "[" + describe(o.subsyss) + "]";
}

// `n` copies of one warning.
std::vector<LogLine> warnings(size_t n, const char* text) {
    return std::vector<LogLine>(n, LogLine{ANDROID_LOG_WARN, text});
}

// A document with names that need escaping and multi-byte UTF-8 is written
// exactly and reads back the same; duplicates and empty names stay.
TEST(PolicyDocument, WritesTheDocumentExactlyAndReadsItBack) {
    const std::pair<std::vector<Operate>, std::string> cases[] = {
        {{{"op1", {{"sub1", {{"fn1", true}, {"", false}}}}}},
         R"([{"name":"op1","subsyss":[{"funcs":[{"enable":true,"name":"fn1"},{"enable":false}],"name":"sub1"}]}])"},
        {{}, "[]"},
        {{{"", {}}, {"", {{"", {}}}}},
         R"([{"name":"","subsyss":[]},{"name":"","subsyss":[{"funcs":[],"name":""}]}])"},
        {{{"\"q\"", {{"b\\s\t", {{"caf\xc3\xa9\x01", true}}}}}, {"\"q\"", {}}},
         R"([{"name":"\"q\"","subsyss":[{"funcs":[{"enable":true,"name":"caf\u00e9\u0001"}],"name":"b\\s\t"}]},{"name":"\"q\"","subsyss":[]}])"},
    };
    LogCapture log;
    for (const auto& [ops, expected] : cases) {
        std::string text = "previous";
        EXPECT_EQ(toJson(ops, text), 0);
        EXPECT_EQ(text, expected + "\n");
        std::vector<Operate> back;
        EXPECT_EQ(fromJson(text, back), 0);
        EXPECT_EQ(describe(back), describe(ops));
    }
    EXPECT_TRUE(log.lines().empty());
}

// Decoding into a list that already holds "pre[]": status, the list
// afterwards, and how many "Parse json failed." lines (and nothing else).
TEST(PolicyDocument, DecodesAndFailsAsAWhole) {
    struct Case {
        const char* what;
        std::string text;
        int8_t status;
        std::string after;
        size_t failureLines;
    };
    const Case cases[] = {
        {"empty operation", "[{}]", 0, "pre[],[]", 0},
        {"null members", R"([{"name":"a","subsyss":null},{"name":null}])", 0, "pre[],a[],[]", 0},
        {"flags absent, null, false, true",
         R"([{"name":"a","subsyss":[{"name":"s","funcs":[{},{"enable":null},{"enable":false,"name":"f"},{"enable":true}]}]}])",
         0, "pre[],a[s[+,+,f-,+]]", 0},
        {"kinds that convert",
         R"([{"name":5,"subsyss":[{"name":true,"funcs":[{"name":1.5,"enable":0},{"enable":2},{"name":false}]}]}])",
         0, "pre[],5[true[1.5-,+,false+]]", 0},
        {"unknown members ignored",
         R"([{"name":"a","x":[{}],"subsyss":[{"y":1,"funcs":[{"z":{}}]}]}])", 0, "pre[],a[[+]]", 0},
        {"second operation a number", R"([{"name":"a"},2])", -1, "pre[],a[]", 1},
        {"subsystem not an object", R"([{"name":"a"},{"name":"b","subsyss":[{"name":"s"},[]]}])",
         -1, "pre[],a[]", 1},
        {"function not an object",
         R"([{"name":"a"},{"name":"b","subsyss":[{"name":"s","funcs":[{"name":"f"},"x"]}]},{"name":"c"}])",
         -1, "pre[],a[]", 1},
        {"subsyss an object", R"([{"name":"a"},{"name":"b","subsyss":{}}])", -1, "pre[],a[]", 0},
        {"funcs a string", R"([{"subsyss":[{"funcs":"x"}]}])", -1, "pre[]", 0},
        {"operation name an array", R"([{"name":"a"},{"name":["x"]}])", -1, "pre[],a[]", 1},
        {"function name an array", R"([{"subsyss":[{"funcs":[{"name":[1]}]}]}])", -1, "pre[]", 1},
        {"enable a string", R"([{"subsyss":[{"funcs":[{"enable":"true"}]}]}])", -1, "pre[]", 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.what) + ": " + c.text);
        LogCapture log;
        const int thrownBefore = exceptionsThrown();
        std::vector<Operate> ops = {{"pre", {}}};
        EXPECT_EQ(fromJson(c.text, ops), c.status);
        EXPECT_EQ(exceptionsThrown(), thrownBefore);
        EXPECT_EQ(describe(ops), c.after);
        EXPECT_EQ(log.lines(), warnings(c.failureLines, "Parse json failed."));
    }
}

template <typename Record>
std::function<int8_t(std::string&)> encodeInto(Record record, Json::Value target) {
    return [record, target](std::string& after) mutable {
        int8_t status = toJsonValue(record, target);
        after = compact(target);
        return status;
    };
}

// Encoders write the members they own into an existing object and leave the
// rest; a target that is not an object is refused untouched.
TEST(PolicyDocument, RecordEncodersWriteTheirMembersOnly) {
    struct Case {
        std::function<int8_t(std::string&)> encode;  // describes the target afterwards
        int8_t status;
        std::string after;
    };
    const Case cases[] = {
        {encodeInto(Function{"", true}, jsonValue(R"({"name":"old","x":1})")), 0,
         R"({"enable":true,"name":"old","x":1})"},
        {encodeInto(Subsystem{"", {}}, jsonValue(R"({"funcs":[1,2],"x":1})")), 0,
         R"({"funcs":[],"name":"","x":1})"},
        {encodeInto(Function{"n", true}, Json::Value()), -1, "null"},
        {encodeInto(Subsystem{"n", {{"f", true}}}, Json::Value(Json::arrayValue)), -1, "[]"},
        {encodeInto(Operate{"n", {}}, Json::Value("s")), -1, "\"s\""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.after);
        LogCapture log;
        std::string after;
        EXPECT_EQ(c.encode(after), c.status);
        EXPECT_EQ(after, c.after);
        EXPECT_EQ(log.lines(), warnings(c.status == 0 ? 0 : 1, "Serialize json failed."));
    }
}

}  // namespace
