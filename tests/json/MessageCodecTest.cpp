// The message records on the wire: exact text out, exact records in, and the
// refusal of everything that is not a readable message, deep nesting included
// (jsoncpp's Reader throws once a value sits inside 1,000 containers, and on
// Android it aborts there; jsoncpp itself is the oracle for the limit).
#include <gtest/gtest.h>

#include <functional>

#include "CodecTesting.h"
#include "LogCapture.h"
#include "OemJsonUtils.h"

using namespace talvoem::test;
using OemJsonUtils::Resp;
namespace QP = OemJsonUtils::QueryPolicy;
namespace SPC = OemJsonUtils::SetPolicyCallback;

namespace {

// A record as its own writer puts it, without the line feed.
template <typename Record>
std::string describe(const Record& record) {
    std::string text;
    toJson(record, text);
    return text.substr(0, text.size() - 1);
}
std::string describe(const std::string& api) {
    return api;
}

// A reader of whole message texts. It reads into a record preset to
// recognisable values, so "left unchanged" is a comparison with `preset`.
struct TextReader {
    const char* failureLog;                             // nullptr: logs nothing
    std::vector<std::pair<const char*, bool>> members;  // key, true for a string field
    std::function<int8_t(const std::string&, std::string&)> read;
    std::string preset;
};

template <typename Record>
TextReader makeReader(const char* failureLog, std::vector<std::pair<const char*, bool>> members,
                      Record preset, int8_t (*fromJson)(const std::string&, Record&)) {
    auto read = [preset, fromJson](const std::string& text, std::string& after) {
        Record record = preset;
        const int8_t status = fromJson(text, record);
        after = describe(record);
        return status;
    };
    return {failureLog, std::move(members), read, describe(preset)};
}

enum ReaderId { kResp, kQueryReq, kQueryData, kChannelReq, kChannelMsg, kApiPeek, kDocument };
const std::vector<TextReader>& readers() {
    constexpr bool S = true, I = false;
    static const std::vector<TextReader> all = {
        makeReader("Parse json failed", {{"code", I}, {"msg", S}, {"data", S}}, Resp{7, "m0", "d0"},
                   &OemJsonUtils::fromJson),
        makeReader("Parse json failed.", {{"api", S}, {"type", I}, {"data", S}},
                   QP::Req{"a0", 9, "d0"}, &QP::fromJson),
        makeReader("Parse json failed.", {{"op_name", S}, {"subsys_name", S}, {"func_name", S}},
                   QP::Data{"o0", "s0", "f0"}, &QP::fromJson),
        makeReader("Parse json failed.", {{"api", S}, {"type", I}}, SPC::Req{"a0", 9},
                   &SPC::fromJson),
        makeReader("Parse json failed.", {{"cmd", I}, {"type", I}, {"data", S}},
                   SPC::Callback{9, 9, "d0"}, &SPC::fromJson),
        makeReader(nullptr, {{"api", S}}, std::string("a0"), &OemJsonUtils::getRequestApi),
        makeReader("Parse json failed.", {}, std::vector<QP::Operate>{{"pre", {}}}, &QP::fromJson),
    };
    return all;
}

// Expects a refusal: -1, the record as preset, the failure line at warn, no exception.
void expectRefused(const TextReader& reader, const std::string& text) {
    SCOPED_TRACE(reader.preset + " <- " + text.substr(0, 100));
    LogCapture log;
    const int thrownBefore = exceptionsThrown();
    std::string after;
    EXPECT_EQ(reader.read(text, after), -1);
    EXPECT_EQ(exceptionsThrown(), thrownBefore) << "jsoncpp threw inside the codec";
    EXPECT_EQ(after, reader.preset);
    std::vector<LogLine> expected;
    if (reader.failureLog != nullptr) {
        expected.push_back({ANDROID_LOG_WARN, reader.failureLog});
    }
    EXPECT_EQ(log.lines(), expected);
}

template <typename Record>
std::string written(const Record& record) {
    std::string text = "text already in the string";
    EXPECT_EQ(toJson(record, text), 0);
    return text;
}

TEST(MessageWriters, WriteCompactTextInKeyOrderWithOneLineFeed) {
    const std::pair<std::string, std::string> cases[] = {
        {written(Resp{0, "success", "[]"}), R"({"code":0,"data":"[]","msg":"success"})"},
        {written(Resp{-1, "failed", ""}), R"({"code":-1,"msg":"failed"})"},
        {written(Resp{0, "", ""}), R"({"code":0})"},
        {written(Resp{0, "", "[{\"name\":\"a\"}]\n"}),
         R"({"code":0,"data":"[{\"name\":\"a\"}]\n"})"},
        {written(QP::Req{"queryPolicy", 3, "abc"}),
         R"({"api":"queryPolicy","data":"abc","type":3})"},
        {written(QP::Req{"queryPolicy", 0, ""}), R"({"api":"queryPolicy"})"},
        {written(QP::Req{"", 65535, ""}), R"({"type":65535})"},
        {written(QP::Data{"o", "s", "f"}), R"({"func_name":"f","op_name":"o","subsys_name":"s"})"},
        {written(QP::Data{"o", "", ""}), R"({"op_name":"o"})"},
        {written(SPC::Req{"setPolicyCallback", 1}), R"({"api":"setPolicyCallback","type":1})"},
        {written(SPC::Req{"", 0}), R"({})"},
        {written(SPC::Callback{1, 7, "x"}), R"({"cmd":1,"data":"x","type":7})"},
        {written(SPC::Callback{1, 0, ""}), R"({"cmd":1})"},
        {written(SPC::Callback{0, 5, "d"}), R"({"data":"d","type":5})"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(text, expected + "\n");
    }
}

TEST(MessageReaders, ReadPresentMembersAndLeaveTheRestAlone) {
    const std::tuple<ReaderId, std::string, std::string> cases[] = {
        {kResp, "/* c */ {\"msg\":\"x\"} // tail\n \t\r\n", R"({"code":7,"data":"d0","msg":"x"})"},
        {kResp, R"({"code":null,"msg":null,"data":null})", R"({"code":7,"data":"d0","msg":"m0"})"},
        {kResp, R"({"code":-2147483648,"msg":12,"data":true,"x":1})",
         R"({"code":-2147483648,"data":"true","msg":"12"})"},
        {kQueryReq, R"({"type":3,"data":"abc","api":"queryPolicy"})",
         R"({"api":"queryPolicy","data":"abc","type":3})"},
        {kQueryReq, R"({"type":65537})", R"({"api":"a0","data":"d0","type":1})"},
        {kQueryReq, R"({"type":-1})", R"({"api":"a0","data":"d0","type":65535})"},
        {kQueryReq, R"({"type":null})", R"({"api":"a0","data":"d0","type":9})"},
        {kQueryData, R"({"op_name":"o","extra":1})",
         R"({"func_name":"f0","op_name":"o","subsys_name":"s0"})"},
        {kQueryData, R"({"func_name":"f","subsys_name":"s"})",
         R"({"func_name":"f","op_name":"o0","subsys_name":"s"})"},
        {kChannelReq, R"({"api":"setPolicyCallback","type":1})",
         R"({"api":"setPolicyCallback","type":1})"},
        {kChannelReq, R"({"type":65538,"data":"ignored"})", R"({"api":"a0","type":2})"},
        {kChannelMsg, R"({"type":7,"data":"x","cmd":1})", R"({"cmd":1,"data":"x","type":7})"},
        {kChannelMsg, R"({"cmd":65536,"type":-2})", R"({"data":"d0","type":65534})"},
        {kApiPeek, R"({"api":"queryPolicy","type":1})", "queryPolicy"},
        {kApiPeek, R"({"api":null})", "a0"},
    };
    for (const auto& [id, text, after] : cases) {
        const TextReader& reader = readers()[id];
        SCOPED_TRACE(std::string(reader.preset) + " <- " + text);
        LogCapture log;
        std::string read;
        EXPECT_EQ(reader.read(text, read), 0);
        EXPECT_EQ(read, after);
        EXPECT_TRUE(log.lines().empty());
    }
}

// A member of a kind that does not convert to its field refuses the whole
// message, also when the members read before it did convert.
TEST(MessageReaders, RefuseMembersOfKindsThatDoNotConvert) {
    const std::vector<std::string> notStrings = {"[]", "{}", "[\"x\"]", "{\"a\":\"b\"}"};
    const std::vector<std::string> notIntegers = {
        "\"1\"", "\"\"", "[]", "{}", "[1]", "5e9", "-5e9", "2147483648", "-2147483649", "1e300"};
    for (const TextReader& reader : readers()) {
        for (const auto& [key, isString] : reader.members) {
            for (const std::string& bad : isString ? notStrings : notIntegers) {
                std::string text;
                for (const auto& [other, otherIsString] : reader.members) {
                    text += std::string(text.empty() ? "{" : ",") + "\"" + other + "\":";
                    text += other == key ? bad : (otherIsString ? "\"v\"" : "5");
                }
                expectRefused(reader, text + "}");
            }
        }
    }
}

// Holds every reader to jsoncpp's verdict on the same text: 0 and no line
// where jsoncpp parses it into a root of the reader's kind, the refusal
// otherwise, and never an exception.
void expectJsoncppsVerdict(const std::string& text) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Json::Reader jsoncpp;
#pragma GCC diagnostic pop
    Json::Value root;
    bool parsed = false;
    try {
        parsed = jsoncpp.parse(text, root, true);
    } catch (const std::exception&) {
    }
    for (const TextReader& reader : readers()) {
        const bool isDocument = &reader == &readers()[kDocument];
        if (!parsed || !(isDocument ? root.isArray() : root.isObject())) {
            expectRefused(reader, text);
            continue;
        }
        // A document fails at its first operation that is not an object.
        bool objects = true;
        for (Json::ArrayIndex i = 0; isDocument && i < root.size(); ++i) {
            objects = objects && root[i].isObject();
        }
        const int thrownBefore = exceptionsThrown();
        std::string after;
        EXPECT_EQ(reader.read(text, after), objects ? 0 : -1)
            << reader.preset << " <- " << text.substr(0, 60);
        EXPECT_EQ(exceptionsThrown(), thrownBefore);
    }
}

std::string repeat(const std::string& piece, int n) {
    std::string text;
    for (int i = 0; i < n; ++i) {
        text += piece;
    }
    return text;
}

// Around the limit, every shape of nesting with whatever may stand just
// inside the innermost container: values, whitespace, comments, separators.
TEST(NestingLimit, EveryReaderAgreesWithJsoncppAroundTheLimit) {
    const std::string inners[] = {"",  "1", " \t\r\n", "/**/",      "// c\n",
                                  ",", ":", "/",       "[]",        "{}",
                                  "]", "}", "x",       "\"s\"],[1", "1/*/[*/"};
    const std::pair<std::string, std::string> shapes[] = {{"[", "]"}, {"{\"k\":", "}"}};
    // What stands before the deep value: closed containers, a string holding
    // an escaped quote and brackets, an empty line comment and a block comment
    // must all be skipped exactly.
    const std::string prefixes[] = {
        "{\"x\":", "[{\"x\":", "{\"a\":[],\"b\":\"\\\"[{\",\"c\"://\n/**/"};
    for (int depth : {997, 998, 999, 1000, 1001}) {
        for (const std::string& inner : inners) {
            for (const auto& [open, close] : shapes) {
                for (const std::string& prefix : prefixes) {
                    expectJsoncppsVerdict(prefix + repeat(open, depth) + inner +
                                          repeat(close, depth) + (prefix[0] == '[' ? "}]" : "}"));
                }
            }
            expectJsoncppsVerdict(repeat("[{\"k\":", depth / 2) + inner + repeat("}]", depth / 2));
        }
    }
    expectJsoncppsVerdict("{\"x\":" + repeat("[", 100000) + repeat("]", 100000) + "}");
    expectJsoncppsVerdict("{}" + repeat("[", 1001));  // nothing after the root is read
    expectJsoncppsVerdict(repeat("[", 1000));         // the shortest text that reaches the limit
}

}  // namespace
