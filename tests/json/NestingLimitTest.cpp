// Deeply nested text. jsoncpp's Reader throws once a value sits inside 1,000
// containers (and aborts there on Android). Every codec reader must accept
// exactly what jsoncpp parses without throwing and refuse the rest before the
// parser gets to throw; jsoncpp itself is the oracle.
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "OemJsonUtils.h"
#include "ThrowCounter.h"

using namespace talvoem::test;

namespace {

enum class Outcome { kParsed, kRejected, kThrew };

Outcome jsoncppOutcome(const std::string& text) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Json::Reader reader;
#pragma GCC diagnostic pop
    Json::Value root;
    try {
        return reader.parse(text, root, true) ? Outcome::kParsed : Outcome::kRejected;
    } catch (const std::exception&) {
        return Outcome::kThrew;
    }
}

// A reader and how it wraps a nested value into a text it accepts when the
// value parses: an unknown member of an object root, or of the one operation
// of a policy document.
struct Reader {
    const char* name;
    const char* failureLog;
    std::function<int8_t(const std::string&)> read;
    std::string open;
    std::string close;
};

const std::vector<Reader>& readers() {
    namespace QP = OemJsonUtils::QueryPolicy;
    namespace SPC = OemJsonUtils::SetPolicyCallback;
    static const std::vector<Reader> all = {
        {"Resp", "Parse json failed",
         [](const std::string& t) {
             OemJsonUtils::Resp r;
             return OemJsonUtils::fromJson(t, r);
         },
         "{\"x\":", "}"},
        {"QueryPolicy::Req", "Parse json failed.",
         [](const std::string& t) {
             QP::Req r;
             return QP::fromJson(t, r);
         },
         "{\"x\":", "}"},
        {"QueryPolicy::Data", "Parse json failed.",
         [](const std::string& t) {
             QP::Data r;
             return QP::fromJson(t, r);
         },
         "{\"x\":", "}"},
        {"SetPolicyCallback::Req", "Parse json failed.",
         [](const std::string& t) {
             SPC::Req r;
             return SPC::fromJson(t, r);
         },
         "{\"x\":", "}"},
        {"SetPolicyCallback::Callback", "Parse json failed.",
         [](const std::string& t) {
             SPC::Callback r;
             return SPC::fromJson(t, r);
         },
         "{\"x\":", "}"},
        {"getRequestApi", nullptr,
         [](const std::string& t) {
             std::string api;
             return OemJsonUtils::getRequestApi(t, api);
         },
         "{\"x\":", "}"},
        {"policy document", "Parse json failed.",
         [](const std::string& t) {
             std::vector<QP::Operate> ops;
             return QP::fromJson(t, ops);
         },
         "[{\"x\":", "}]"},
    };
    return all;
}

// Reads `text` with every reader and holds each to jsoncpp's verdict on the
// same text: 0 where it parses, -1 with one failure line otherwise, and never
// an exception inside the codec.
void expectSameVerdictAsJsoncpp(const std::string& value, const std::string& what,
                                bool wrap = true) {
    for (const Reader& reader : readers()) {
        const std::string text = wrap ? reader.open + value + reader.close : value;
        const Outcome oracle = jsoncppOutcome(text);
        SCOPED_TRACE(std::string(reader.name) + ": " + what +
                     (oracle == Outcome::kParsed  ? " (jsoncpp parses)"
                      : oracle == Outcome::kThrew ? " (jsoncpp throws)"
                                                  : " (jsoncpp rejects)"));
        LogCapture log;
        const int thrownBefore = exceptionsThrown();
        const int8_t status = reader.read(text);
        ASSERT_EQ(exceptionsThrown(), thrownBefore) << "the codec let jsoncpp throw";
        if (oracle == Outcome::kParsed) {
            EXPECT_EQ(status, 0);
            EXPECT_TRUE(log.lines().empty());
        } else {
            EXPECT_EQ(status, -1);
            EXPECT_EQ(log.lines().size(), reader.failureLog != nullptr ? 1u : 0u);
            if (reader.failureLog != nullptr) {
                EXPECT_EQ(log.count(ANDROID_LOG_WARN, reader.failureLog), 1u);
            }
        }
    }
}

std::string repeat(const std::string& piece, int n) {
    std::string text;
    text.reserve(piece.size() * static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        text += piece;
    }
    return text;
}

// `depth` containers around `inner`: arrays, objects or alternating.
std::string nested(int depth, const std::string& inner, int shape) {
    const std::string arrays = repeat("[", depth) + inner + repeat("]", depth);
    const std::string objects = repeat("{\"k\":", depth) + inner + repeat("}", depth);
    if (shape == 0) {
        return arrays;
    }
    if (shape == 1) {
        return objects;
    }
    return repeat("[{\"k\":", depth / 2) + inner + repeat("}]", depth / 2);
}

// The boundary itself, spelled out for the envelope reader (the wrapping
// object is one of the containers counted here).
TEST(NestingLimit, BoundaryIsJsoncppsOwn) {
    struct Case {
        const char* what;
        std::string text;
        int8_t status;
    };
    const Case cases[] = {
        {"value inside 999 containers", "{\"code\":1,\"x\":" + nested(998, "1", 0) + "}", 0},
        {"value inside 1000 containers", "{\"code\":1,\"x\":" + nested(999, "1", 0) + "}", -1},
        {"empty array inside 999 containers", "{\"code\":1,\"x\":" + nested(999, "", 0) + "}", 0},
        {"empty array inside 1000 containers", "{\"code\":1,\"x\":" + nested(1000, "", 0) + "}",
         -1},
        {"empty object inside 999 containers", "{\"code\":1,\"x\":" + nested(998, "{}", 1) + "}",
         0},
        {"100,000 levels", "{\"code\":1,\"x\":" + nested(100000, "1", 0) + "}", -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const int thrownBefore = exceptionsThrown();
        OemJsonUtils::Resp resp;
        EXPECT_EQ(OemJsonUtils::fromJson(c.text, resp), c.status);
        EXPECT_EQ(exceptionsThrown(), thrownBefore);
        EXPECT_EQ(resp.code, c.status == 0 ? 1 : 0);
        EXPECT_EQ(jsoncppOutcome(c.text), c.status == 0 ? Outcome::kParsed : Outcome::kThrew);
    }
    EXPECT_GT(exceptionsThrown(), 0) << "the exception counter sees jsoncpp's throws";
}

// Around the limit with every shape and with what may stand just inside the
// innermost container: values, whitespace, comments, stray separators.
TEST(NestingLimit, EveryReaderAgreesWithJsoncppAroundTheLimit) {
    const std::string inners[] = {"",  "1",      " \t\r\n", "/**/", "// c\n", ",", ":",
                                  "/", "\"[[\"", "[]",      "{}",   "]",      "}", "x"};
    for (int depth : {996, 997, 998, 999, 1000, 1001, 100000}) {
        for (int shape = 0; shape < 3; ++shape) {
            for (const std::string& inner : inners) {
                expectSameVerdictAsJsoncpp(nested(depth, inner, shape),
                                           "depth " + std::to_string(depth) + " shape " +
                                               std::to_string(shape) + " inner '" + inner + "'");
            }
        }
    }
}

// Brackets that are not structure (inside strings and comments, and after
// the root value, which jsoncpp does not read) must not count.
TEST(NestingLimit, BracketsOutsideTheStructureDoNotCount) {
    const std::string deep = repeat("[", 1500);
    const std::string cases[] = {
        "\"" + deep + "\"",
        "1 /*" + deep + "*/",
        "1 // " + deep + "\n",
        "\"\\\"" + deep + "\"",
        "[" + nested(997, "1", 0) + "] " + deep,
    };
    for (const std::string& value : cases) {
        expectSameVerdictAsJsoncpp(value, value.substr(0, 12) + "...");
    }
    OemJsonUtils::Resp resp;
    EXPECT_EQ(OemJsonUtils::fromJson("{\"code\":4}" + deep, resp), 0)
        << "jsoncpp stops reading after the root";
    EXPECT_EQ(resp.code, 4);
}

// Text that ends inside the structure: an array left open at the limit still
// makes jsoncpp read for an element.
TEST(NestingLimit, TextEndingInsideTheStructureAgreesWithJsoncpp) {
    for (int depth : {998, 999, 1000, 1001}) {
        for (const char* tail : {"", " \n", "1", "{", "{\"k\":", "/**/"}) {
            const std::string what = std::to_string(depth) + " open arrays then '" + tail + "'";
            expectSameVerdictAsJsoncpp(repeat("[", depth) + tail, what, false);
            expectSameVerdictAsJsoncpp(repeat("{\"k\":", depth - 1) + "[" + tail, what, false);
        }
    }
}

// Random texts built from structural pieces near the limit, well-formed or
// not, closed or cut short, each held to jsoncpp's verdict.
TEST(NestingLimit, RandomTextsNearTheLimitAgreeWithJsoncpp) {
    const std::string openers[] = {"[", "{\"k\":", "[1,", "{\"a\":1,\"k\":", "[ /*c*/ "};
    const std::string fillers[] = {"",  " ",  "1",  "/**/",  "//c\n", ",",       ":", "]",
                                   "}", "[]", "{}", "\"s\"", "/",     "{\"k\":", "["};
    const std::string closers[] = {"]", "}", " ]", "},", "],", ""};
    std::mt19937 rng(7);
    auto pick = [&rng](const auto& pieces) -> const std::string& {
        const size_t count = std::size(pieces);
        return pieces[std::uniform_int_distribution<size_t>(0, count - 1)(rng)];
    };
    for (int i = 0; i < 300; ++i) {
        const int depth = std::uniform_int_distribution<int>(995, 1001)(rng);
        std::string text;
        for (int d = 0; d < depth; ++d) {
            text += pick(openers);
        }
        for (int f = std::uniform_int_distribution<int>(0, 3)(rng); f > 0; --f) {
            text += pick(fillers);
        }
        const int closed = i % 5 == 0 ? 0 : std::uniform_int_distribution<int>(0, depth)(rng);
        for (int d = 0; d < closed; ++d) {
            text += pick(closers);
        }
        expectSameVerdictAsJsoncpp(text, "random text " + std::to_string(i));
    }
}

}  // namespace
