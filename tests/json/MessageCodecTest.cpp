// The message records on the wire: exact text out, exact records in, and the
// refusal of everything that is not a readable message (status -1, exactly one
// failure line, record untouched, no exception thrown inside the codec).
#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "CodecTesting.h"
#include "LogCapture.h"
#include "OemJsonUtils.h"
#include "ThrowCounter.h"

using namespace talvoem::test;
namespace QP = OemJsonUtils::QueryPolicy;
namespace SPC = OemJsonUtils::SetPolicyCallback;

namespace {

std::string describe(const OemJsonUtils::Resp& r) {
    return "code=" + std::to_string(r.code) + " msg=" + r.msg + " data=" + r.data;
}
std::string describe(const QP::Req& r) {
    return "api=" + r.api + " type=" + std::to_string(r.type) + " data=" + r.data;
}
std::string describe(const QP::Data& r) {
    return "op=" + r.op_name + " subsys=" + r.subsys_name + " func=" + r.func_name;
}
std::string describe(const SPC::Req& r) {
    return "api=" + r.api + " type=" + std::to_string(r.type);
}
std::string describe(const SPC::Callback& r) {
    return "cmd=" + std::to_string(r.cmd) + " type=" + std::to_string(r.type) + " data=" + r.data;
}
std::string describe(const std::string& api) {
    return "api=" + api;
}

enum class Kind { kString, kInteger };

// One reader under test. It reads into a record preset to recognisable values,
// so "left unchanged" is a comparison with `preset`.
struct Reader {
    const char* name;
    const char* failureLog;  // nullptr: the reader logs nothing
    std::vector<std::pair<const char*, Kind>> members;
    std::function<int8_t(const std::string&, std::string&)> read;
    std::string preset;
};

template <typename Record>
Reader makeReader(const char* name, const char* failureLog,
                  std::vector<std::pair<const char*, Kind>> members, Record preset,
                  int8_t (*fromJson)(const std::string&, Record&)) {
    auto read = [preset, fromJson](const std::string& text, std::string& after) {
        Record record = preset;
        int8_t status = fromJson(text, record);
        after = describe(record);
        return status;
    };
    return {name, failureLog, std::move(members), read, describe(preset)};
}

enum ReaderId { kResp, kQueryReq, kQueryData, kChannelReq, kChannelMsg, kApiPeek };

const std::vector<Reader>& readers() {
    constexpr Kind S = Kind::kString;
    constexpr Kind I = Kind::kInteger;
    static const std::vector<Reader> all = {
        makeReader("Resp", "Parse json failed", {{"code", I}, {"msg", S}, {"data", S}},
                   OemJsonUtils::Resp{7, "m0", "d0"}, &OemJsonUtils::fromJson),
        makeReader("QueryPolicy::Req", "Parse json failed.", {{"api", S}, {"type", I}, {"data", S}},
                   QP::Req{"a0", 9, "d0"}, &QP::fromJson),
        makeReader("QueryPolicy::Data", "Parse json failed.",
                   {{"op_name", S}, {"subsys_name", S}, {"func_name", S}},
                   QP::Data{"o0", "s0", "f0"}, &QP::fromJson),
        makeReader("SetPolicyCallback::Req", "Parse json failed.", {{"api", S}, {"type", I}},
                   SPC::Req{"a0", 9}, &SPC::fromJson),
        makeReader("SetPolicyCallback::Callback", "Parse json failed.",
                   {{"cmd", I}, {"type", I}, {"data", S}}, SPC::Callback{9, 9, "d0"},
                   &SPC::fromJson),
        makeReader("getRequestApi", nullptr, {{"api", S}}, std::string("a0"),
                   &OemJsonUtils::getRequestApi),
    };
    return all;
}

// Reads `text` and checks a refusal: -1, the record as preset, exactly the
// reader's one failure line at warn priority, and no exception on the way.
void expectRefused(const Reader& reader, const std::string& text) {
    SCOPED_TRACE(std::string(reader.name) + " <- " + text);
    LogCapture log;
    const int thrownBefore = exceptionsThrown();
    std::string after;
    EXPECT_EQ(reader.read(text, after), -1);
    EXPECT_EQ(exceptionsThrown(), thrownBefore) << "jsoncpp threw inside the codec";
    EXPECT_EQ(after, reader.preset);
    if (reader.failureLog == nullptr) {
        EXPECT_TRUE(log.lines().empty());
    } else {
        EXPECT_EQ(log.lines().size(), 1u);
        EXPECT_EQ(log.count(ANDROID_LOG_WARN, reader.failureLog), 1u);
    }
}

struct WireCase {
    const char* what;
    std::function<int8_t(std::string&)> write;
    std::string text;
};

TEST(MessageWriters, WriteCompactTextInKeyOrderWithOneLineFeed) {
    const WireCase cases[] = {
        {"envelope",
         [](std::string& t) {
             return OemJsonUtils::toJson({0, "success", "[]"}, t);
         },
         R"({"code":0,"data":"[]","msg":"success"})"},
        {"envelope without data",
         [](std::string& t) {
             return OemJsonUtils::toJson({-1, "failed", ""}, t);
         },
         R"({"code":-1,"msg":"failed"})"},
        {"envelope code 0 always written",
         [](std::string& t) {
             return OemJsonUtils::toJson({0, "", ""}, t);
         },
         R"({"code":0})"},
        {"envelope code limits",
         [](std::string& t) {
             return OemJsonUtils::toJson({INT32_MIN, "", ""}, t);
         },
         R"({"code":-2147483648})"},
        {"envelope carrying a document",
         [](std::string& t) {
             return OemJsonUtils::toJson({0, "", "[{\"name\":\"a\"}]\n"}, t);
         },
         R"({"code":0,"data":"[{\"name\":\"a\"}]\n"})"},
        {"escapes",
         [](std::string& t) {
             return OemJsonUtils::toJson({1, "q\"b\\", ""}, t);
         },
         R"({"code":1,"msg":"q\"b\\"})"},
        {"query",
         [](std::string& t) {
             return QP::toJson(QP::Req{"queryPolicy", 3, "abc"}, t);
         },
         R"({"api":"queryPolicy","data":"abc","type":3})"},
        {"query type 0 and empty data left out",
         [](std::string& t) {
             return QP::toJson(QP::Req{"queryPolicy", 0, ""}, t);
         },
         R"({"api":"queryPolicy"})"},
        {"query highest type",
         [](std::string& t) {
             return QP::toJson(QP::Req{"", 65535, ""}, t);
         },
         R"({"type":65535})"},
        {"empty query", [](std::string& t) { return QP::toJson(QP::Req{}, t); }, "{}"},
        {"selector",
         [](std::string& t) {
             return QP::toJson(QP::Data{"o", "s", "f"}, t);
         },
         R"({"func_name":"f","op_name":"o","subsys_name":"s"})"},
        {"selector, one name",
         [](std::string& t) {
             return QP::toJson(QP::Data{"o", "", ""}, t);
         },
         R"({"op_name":"o"})"},
        {"query carrying a selector",
         [](std::string& t) {
             std::string selector;
             QP::toJson(QP::Data{"o", "", ""}, selector);
             return QP::toJson(QP::Req{"queryPolicy", 1, selector}, t);
         },
         R"({"api":"queryPolicy","data":"{\"op_name\":\"o\"}\n","type":1})"},
        {"register",
         [](std::string& t) {
             return SPC::toJson(SPC::Req{"setPolicyCallback", 1}, t);
         },
         R"({"api":"setPolicyCallback","type":1})"},
        {"dispose",
         [](std::string& t) {
             return SPC::toJson(SPC::Req{"setPolicyCallback", 2}, t);
         },
         R"({"api":"setPolicyCallback","type":2})"},
        {"notify",
         [](std::string& t) {
             return SPC::toJson(SPC::Callback{1, 7, "x"}, t);
         },
         R"({"cmd":1,"data":"x","type":7})"},
        {"notify without type or data",
         [](std::string& t) {
             return SPC::toJson(SPC::Callback{1, 0, ""}, t);
         },
         R"({"cmd":1})"},
        {"exit",
         [](std::string& t) {
             return SPC::toJson(SPC::Callback{2, 0, ""}, t);
         },
         R"({"cmd":2})"},
        {"cmd 0 left out",
         [](std::string& t) {
             return SPC::toJson(SPC::Callback{0, 5, "d"}, t);
         },
         R"({"data":"d","type":5})"},
    };
    LogCapture log;
    for (const WireCase& c : cases) {
        SCOPED_TRACE(c.what);
        std::string text = "text already in the string";
        EXPECT_EQ(c.write(text), 0);
        EXPECT_EQ(text, c.text + "\n");
    }
    EXPECT_TRUE(log.lines().empty()) << "writers log nothing";
}

struct ReadCase {
    ReaderId reader;
    std::string text;
    std::string after;
};

TEST(MessageReaders, ReadPresentMembersAndLeaveTheRestAlone) {
    const ReadCase cases[] = {
        {kResp, R"({"code":0,"data":"[]","msg":"success"})", "code=0 msg=success data=[]"},
        {kResp, "{\"code\":0,\"data\":\"[]\",\"msg\":\"success\"}\n", "code=0 msg=success data=[]"},
        {kResp, R"({"msg":"x"})", "code=7 msg=x data=d0"},
        {kResp, R"({"code":null,"msg":null,"data":null})", "code=7 msg=m0 data=d0"},
        {kResp, R"({"code":1,"extra":true})", "code=1 msg=m0 data=d0"},
        {kResp, R"({"code":-2147483648,"msg":12,"data":true})",
         "code=-2147483648 msg=12 data=true"},
        {kResp, R"({"code":2147483647,"msg":""})", "code=2147483647 msg= data=d0"},
        {kResp, R"({"code":2.9})", "code=2 msg=m0 data=d0"},
        {kResp, R"({"code":false})", "code=0 msg=m0 data=d0"},
        {kResp, "/* lead */ {\"code\":3} // tail\n \t\r\n", "code=3 msg=m0 data=d0"},
        {kResp, R"({"data":"[{\"name\":\"a\"}]\n"})", "code=7 msg=m0 data=[{\"name\":\"a\"}]\n"},
        {kQueryReq, R"({"api":"queryPolicy","data":"abc","type":3})",
         "api=queryPolicy type=3 data=abc"},
        {kQueryReq, R"({"type":3,"data":"abc","api":"queryPolicy"})",
         "api=queryPolicy type=3 data=abc"},
        {kQueryReq, R"({"api":"setPolicyCallback","type":2})",
         "api=setPolicyCallback type=2 data=d0"},
        {kQueryReq, R"({"type":65537})", "api=a0 type=1 data=d0"},
        {kQueryReq, R"({"type":65538})", "api=a0 type=2 data=d0"},
        {kQueryReq, R"({"type":65536})", "api=a0 type=0 data=d0"},
        {kQueryReq, R"({"type":-1})", "api=a0 type=65535 data=d0"},
        {kQueryReq, R"({"type":2147483647})", "api=a0 type=65535 data=d0"},
        {kQueryReq, R"({"type":-2147483648})", "api=a0 type=0 data=d0"},
        {kQueryReq, R"({"type":true})", "api=a0 type=1 data=d0"},
        {kQueryReq, R"({"type":null})", "api=a0 type=9 data=d0"},
        {kQueryReq, "{}", "api=a0 type=9 data=d0"},
        {kQueryData, R"({"op_name":"o","extra":1})", "op=o subsys=s0 func=f0"},
        {kQueryData, R"({"func_name":"f","op_name":"o","subsys_name":"s"})",
         "op=o subsys=s func=f"},
        {kChannelReq, R"({"api":"setPolicyCallback","type":1})", "api=setPolicyCallback type=1"},
        {kChannelReq, R"({"api":"setPolicyCallback"})", "api=setPolicyCallback type=9"},
        {kChannelReq, R"({"type":65537,"data":"ignored"})", "api=a0 type=1"},
        {kChannelMsg, R"({"cmd":1,"data":"x","type":7})", "cmd=1 type=7 data=x"},
        {kChannelMsg, R"({"type":7,"data":"x","cmd":1})", "cmd=1 type=7 data=x"},
        {kChannelMsg, R"({"cmd":2})", "cmd=2 type=9 data=d0"},
        {kChannelMsg, R"({"type":3,"data":"x"})", "cmd=9 type=3 data=x"},
        {kChannelMsg, R"({"cmd":65536,"type":-2})", "cmd=0 type=65534 data=d0"},
        {kApiPeek, R"({"api":"queryPolicy","type":1})", "api=queryPolicy"},
        {kApiPeek, R"({"type":1})", "api=a0"},
        {kApiPeek, R"({"api":null})", "api=a0"},
        {kApiPeek, R"({"api":""})", "api="},
        {kApiPeek, R"({"api":5})", "api=5"},
    };
    for (const ReadCase& c : cases) {
        const Reader& reader = readers()[c.reader];
        SCOPED_TRACE(std::string(reader.name) + " <- " + c.text);
        LogCapture log;
        std::string after;
        EXPECT_EQ(reader.read(c.text, after), 0);
        EXPECT_EQ(after, c.after);
        EXPECT_TRUE(log.lines().empty());
    }
}

TEST(MessageReaders, RefuseTextThatIsNotAJsonObject) {
    const char* const texts[] = {
        "",
        " \n",
        "{",
        "}",
        "[]",
        "[{\"api\":\"queryPolicy\"}]",
        "42",
        "\"text\"",
        "null",
        "true",
        "{\"a\":1",
        "{\"a\" 1}",
        "{'a':1}",
        "/* only a comment */",
        "{\"a\":tru}",
        "{\"a\":\"\\x\"}",
    };
    for (const Reader& reader : readers()) {
        for (const char* text : texts) {
            expectRefused(reader, text);
        }
    }
}

// A member whose kind does not convert to its field refuses the whole
// message, also when members read before it did convert.
TEST(MessageReaders, RefuseMembersOfKindsThatDoNotConvert) {
    const std::vector<std::string> notStrings = {"[]", "{}", "[\"x\"]", "{\"a\":\"b\"}"};
    const std::vector<std::string> notIntegers = {"\"1\"",       "\"\"",       "[]",   "{}",
                                                  "[1]",         "5e9",        "-5e9", "2147483648",
                                                  "-2147483649", "4294967297", "1e300"};
    for (const Reader& reader : readers()) {
        for (const auto& [key, kind] : reader.members) {
            for (const std::string& bad : kind == Kind::kString ? notStrings : notIntegers) {
                std::string text = "{";
                for (const auto& [other, otherKind] : reader.members) {
                    text += std::string(text.size() > 1 ? "," : "") + "\"" + other + "\":";
                    text += other == std::string(key)
                                ? bad
                                : (otherKind == Kind::kString ? "\"v\"" : "5");
                }
                expectRefused(reader, text + "}");
            }
        }
    }
}

TEST(MessageCodec, RecordsSurviveARoundTrip) {
    std::mt19937 rng(20240611);
    std::uniform_int_distribution<int> anyInt(INT32_MIN, INT32_MAX);
    std::uniform_int_distribution<int> any16(0, 65535);
    LogCapture log;
    for (int i = 0; i < 200; ++i) {
        std::string text;
        OemJsonUtils::Resp resp{anyInt(rng), randomName(rng), randomName(rng)};
        OemJsonUtils::Resp respBack;
        ASSERT_EQ(OemJsonUtils::toJson(resp, text), 0);
        ASSERT_EQ(OemJsonUtils::fromJson(text, respBack), 0) << text;
        EXPECT_EQ(describe(respBack), describe(resp));

        QP::Req req{randomName(rng), static_cast<uint16_t>(any16(rng)), randomName(rng)};
        QP::Req reqBack;
        ASSERT_EQ(QP::toJson(req, text), 0);
        ASSERT_EQ(QP::fromJson(text, reqBack), 0) << text;
        EXPECT_EQ(describe(reqBack), describe(req));

        QP::Data data{randomName(rng), randomName(rng), randomName(rng)};
        QP::Data dataBack;
        ASSERT_EQ(QP::toJson(data, text), 0);
        ASSERT_EQ(QP::fromJson(text, dataBack), 0) << text;
        EXPECT_EQ(describe(dataBack), describe(data));

        SPC::Callback cb{static_cast<uint16_t>(any16(rng)), static_cast<uint16_t>(any16(rng)),
                         randomName(rng)};
        SPC::Callback cbBack;
        ASSERT_EQ(SPC::toJson(cb, text), 0);
        ASSERT_EQ(SPC::fromJson(text, cbBack), 0) << text;
        EXPECT_EQ(describe(cbBack), describe(cb));
        EXPECT_EQ(text.find('\n'), text.size() - 1) << "one line, one final line feed";
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST(MessageCodec, HasValueWantsAnObjectWithANonNullMember) {
    struct Case {
        std::string json;
        std::string key;
        bool expected;
    };
    const Case cases[] = {
        {R"({"a":null})", "a", false},
        {R"({"a":null})", "b", false},
        {R"({"a":0})", "a", true},
        {R"({"a":""})", "a", true},
        {R"({"a":false})", "a", true},
        {R"({"a":[]})", "a", true},
        {R"({"a":{}})", "a", true},
        {R"({"ab":1})", "a", false},
        {R"(["a"])", "a", false},
        {R"("a")", "a", false},
        {"1", "a", false},
        {"null", "a", false},
        {"true", "a", false},
    };
    const int thrownBefore = exceptionsThrown();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.json + " has " + c.key);
        const Json::Value value = jsonValue(c.json);
        EXPECT_EQ(OemJsonUtils::hasValue(value, c.key), c.expected);
        EXPECT_EQ(compact(value), compact(jsonValue(c.json))) << "nothing inserted";
    }
    EXPECT_EQ(exceptionsThrown(), thrownBefore);

    Json::Value withNul(Json::objectValue);
    withNul[std::string("a\0b", 3)] = 1;
    EXPECT_TRUE(OemJsonUtils::hasValue(withNul, std::string("a\0b", 3)));
    EXPECT_FALSE(OemJsonUtils::hasValue(withNul, "a"));
}

}  // namespace
