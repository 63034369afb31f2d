// The message records on the wire: exact text out, exact records in, and the
// refusal of everything that is not a readable message.
#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <string>
#include <vector>

#include "CodecTesting.h"
#include "LogCapture.h"
#include "OemJsonUtils.h"
#include "ThrowCounter.h"

using namespace talvoem::test;
namespace QP = OemJsonUtils::QueryPolicy;
namespace SPC = OemJsonUtils::SetPolicyCallback;

namespace {

TEST(MessageWriters, WriteCompactTextInKeyOrderWithOneLineFeed) {
    using OemJsonUtils::Resp;
    const std::pair<std::function<int8_t(std::string&)>, std::string> cases[] = {
        {[](auto& t) {
             return toJson(Resp{0, "success", "[]"}, t);
         },
         R"({"code":0,"data":"[]","msg":"success"})"},
        {[](auto& t) {
             return toJson(Resp{-1, "failed", ""}, t);
         },
         R"({"code":-1,"msg":"failed"})"},
        {[](auto& t) {
             return toJson(Resp{0, "", ""}, t);
         },
         R"({"code":0})"},
        {[](auto& t) {
             return toJson(Resp{INT32_MIN, "q\"b\\", ""}, t);
         },
         R"({"code":-2147483648,"msg":"q\"b\\"})"},
        {[](auto& t) {
             return toJson(Resp{0, "", "[{\"name\":\"a\"}]\n"}, t);
         },
         R"({"code":0,"data":"[{\"name\":\"a\"}]\n"})"},
        {[](auto& t) {
             return QP::toJson(QP::Req{"queryPolicy", 3, "abc"}, t);
         },
         R"({"api":"queryPolicy","data":"abc","type":3})"},
        {[](auto& t) {
             return QP::toJson(QP::Req{"queryPolicy", 0, ""}, t);
         },
         R"({"api":"queryPolicy"})"},
        {[](auto& t) {
             return QP::toJson(QP::Req{"", 65535, ""}, t);
         },
         R"({"type":65535})"},
        {[](auto& t) { return QP::toJson(QP::Req{}, t); }, "{}"},
        {[](auto& t) {
             return QP::toJson(QP::Data{"o", "s", "f"}, t);
         },
         R"({"func_name":"f","op_name":"o","subsys_name":"s"})"},
        {[](auto& t) {
             return QP::toJson(QP::Data{"o", "", ""}, t);
         },
         R"({"op_name":"o"})"},
        {[](auto& t) {
             return SPC::toJson(SPC::Req{"setPolicyCallback", 1}, t);
         },
         R"({"api":"setPolicyCallback","type":1})"},
        {[](auto& t) {
             return SPC::toJson(SPC::Req{"setPolicyCallback", 2}, t);
         },
         R"({"api":"setPolicyCallback","type":2})"},
        {[](auto& t) {
             return SPC::toJson(SPC::Callback{1, 7, "x"}, t);
         },
         R"({"cmd":1,"data":"x","type":7})"},
        {[](auto& t) {
             return SPC::toJson(SPC::Callback{1, 0, ""}, t);
         },
         R"({"cmd":1})"},
        {[](auto& t) {
             return SPC::toJson(SPC::Callback{2, 0, ""}, t);
         },
         R"({"cmd":2})"},
        {[](auto& t) {
             return SPC::toJson(SPC::Callback{0, 5, "d"}, t);
         },
         R"({"data":"d","type":5})"},
    };
    LogCapture log;
    for (const auto& [write, expected] : cases) {
        SCOPED_TRACE(expected);
        std::string text = "text already in the string";
        EXPECT_EQ(write(text), 0);
        EXPECT_EQ(text, expected + "\n");
    }
    EXPECT_TRUE(log.lines().empty()) << "writers log nothing";
}

TEST(MessageReaders, ReadPresentMembersAndLeaveTheRestAlone) {
    struct Case {
        ReaderId reader;
        std::string text;
        std::string after;
    };
    const Case cases[] = {
        {kResp, R"({"code":0,"data":"[]","msg":"success"})", "code=0 msg=success data=[]"},
        {kResp, "{\"code\":0,\"data\":\"[]\",\"msg\":\"success\"}\n", "code=0 msg=success data=[]"},
        {kResp, R"({"msg":"x"})", "code=7 msg=x data=d0"},
        {kResp, R"({"code":null,"msg":null,"data":null})", "code=7 msg=m0 data=d0"},
        {kResp, R"({"code":1,"extra":true})", "code=1 msg=m0 data=d0"},
        {kResp, R"({"code":-2147483648,"msg":12,"data":true})",
         "code=-2147483648 msg=12 data=true"},
        {kResp, R"({"code":2.9,"msg":""})", "code=2 msg= data=d0"},
        {kResp, "/* lead */ {\"code\":3} // tail\n \t\r\n", "code=3 msg=m0 data=d0"},
        {kResp, R"({"data":"[{\"name\":\"a\"}]\n"})", "code=7 msg=m0 data=[{\"name\":\"a\"}]\n"},
        {kQueryReq, R"({"type":3,"data":"abc","api":"queryPolicy"})",
         "api=queryPolicy type=3 data=abc"},
        {kQueryReq, R"({"api":"setPolicyCallback","type":2})",
         "api=setPolicyCallback type=2 data=d0"},
        {kQueryReq, R"({"type":65537})", "api=a0 type=1 data=d0"},
        {kQueryReq, R"({"type":65536})", "api=a0 type=0 data=d0"},
        {kQueryReq, R"({"type":-1})", "api=a0 type=65535 data=d0"},
        {kQueryReq, R"({"type":2147483647})", "api=a0 type=65535 data=d0"},
        {kQueryReq, R"({"type":true})", "api=a0 type=1 data=d0"},
        {kQueryReq, R"({"type":null})", "api=a0 type=9 data=d0"},
        {kQueryData, R"({"op_name":"o","extra":1})", "op=o subsys=s0 func=f0"},
        {kQueryData, R"({"func_name":"f","op_name":"o","subsys_name":"s"})",
         "op=o subsys=s func=f"},
        {kChannelReq, R"({"api":"setPolicyCallback","type":1})", "api=setPolicyCallback type=1"},
        {kChannelReq, R"({"type":65538,"data":"ignored"})", "api=a0 type=2"},
        {kChannelMsg, R"({"type":7,"data":"x","cmd":1})", "cmd=1 type=7 data=x"},
        {kChannelMsg, R"({"cmd":2})", "cmd=2 type=9 data=d0"},
        {kChannelMsg, R"({"cmd":65536,"type":-2})", "cmd=0 type=65534 data=d0"},
        {kApiPeek, R"({"api":"queryPolicy","type":1})", "api=queryPolicy"},
        {kApiPeek, R"({"type":1})", "api=a0"},
        {kApiPeek, R"({"api":null})", "api=a0"},
        {kApiPeek, R"({"api":5})", "api=5"},
    };
    for (const Case& c : cases) {
        const TextReader& reader = messageReaders()[c.reader];
        SCOPED_TRACE(std::string(reader.name) + " <- " + c.text);
        LogCapture log;
        std::string after;
        EXPECT_EQ(reader.read(c.text, after), 0);
        EXPECT_EQ(after, c.after);
        EXPECT_TRUE(log.lines().empty());
    }
}

TEST(MessageReaders, RefuseTextThatIsNotAJsonObject) {
    const char* const texts[] = {"",         " \n",     "{",     "}",          "[]",
                                 "[{}]",     "42",      "\"s\"", "null",       "true",
                                 "{\"a\":1", "{'a':1}", "/**/",  "{\"a\":tru}"};
    for (const TextReader& reader : messageReaders()) {
        for (const char* text : texts) {
            expectRefused(reader, text);
        }
    }
}

// A member of a kind that does not convert to its field refuses the whole
// message, also when the members read before it did convert.
TEST(MessageReaders, RefuseMembersOfKindsThatDoNotConvert) {
    const std::vector<std::string> notStrings = {"[]", "{}", "[\"x\"]", "{\"a\":\"b\"}"};
    const std::vector<std::string> notIntegers = {
        "\"1\"", "\"\"", "[]", "{}", "[1]", "5e9", "-5e9", "2147483648", "-2147483649", "1e300"};
    for (const TextReader& reader : messageReaders()) {
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

TEST(MessageCodec, HasValueWantsAnObjectWithANonNullMember) {
    const std::pair<const char*, bool> cases[] = {
        {R"({"a":null})", false}, {R"({"b":1})", false},    {R"({"a":0})", true},
        {R"({"a":""})", true},    {R"({"a":false})", true}, {R"({"a":{}})", true},
        {R"(["a"])", false},      {R"("a")", false},        {"1", false},
        {"null", false},
    };
    const int thrownBefore = exceptionsThrown();
    for (const auto& [json, expected] : cases) {
        SCOPED_TRACE(json);
        const Json::Value value = jsonValue(json);
        EXPECT_EQ(OemJsonUtils::hasValue(value, "a"), expected);
        EXPECT_EQ(compact(value), compact(jsonValue(json))) << "nothing inserted";
    }
    EXPECT_EQ(exceptionsThrown(), thrownBefore);
}

}  // namespace
