// Deeply nested text. jsoncpp's Reader throws once a value sits inside 1,000
// containers (on Android it aborts there). Every reader must accept exactly
// what jsoncpp parses without throwing and refuse the rest before the parser
// gets to throw; jsoncpp itself is the oracle.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "CodecTesting.h"
#include "LogCapture.h"
#include "OemJsonUtils.h"
#include "ThrowCounter.h"

using namespace talvoem::test;

namespace {

enum class Outcome { kParsed, kRejected, kThrew };

Outcome jsoncppOutcome(const std::string& text, Json::Value& root) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Json::Reader reader;
#pragma GCC diagnostic pop
    try {
        return reader.parse(text, root, true) ? Outcome::kParsed : Outcome::kRejected;
    } catch (const std::exception&) {
        return Outcome::kThrew;
    }
}

Outcome jsoncppOutcome(const std::string& text) {
    Json::Value root;
    return jsoncppOutcome(text, root);
}

// Whether a reader takes what jsoncpp parsed: message readers want an object
// root; the document an array of objects (the texts here carry no member that
// a reader reads).
bool acceptable(const Json::Value& root, bool isDocument) {
    if (!isDocument) {
        return root.isObject();
    }
    bool objects = root.isArray();
    for (Json::ArrayIndex i = 0; objects && i < root.size(); ++i) {
        objects = root[i].isObject();
    }
    return objects;
}

std::string repeat(const std::string& piece, int n) {
    std::string text;
    for (int i = 0; i < n; ++i) {
        text += piece;
    }
    return text;
}

// `depth` containers around `inner`: arrays, objects, or both alternating.
std::string nested(int depth, const std::string& inner, int shape) {
    if (shape == 0) {
        return repeat("[", depth) + inner + repeat("]", depth);
    }
    if (shape == 1) {
        return repeat("{\"k\":", depth) + inner + repeat("}", depth);
    }
    return repeat("[{\"k\":", depth / 2) + inner + repeat("}]", depth / 2);
}

// Holds every reader to jsoncpp's verdict on the same text: 0 and no line
// where it parses (into a root of the reader's kind), the refusal otherwise,
// and never an exception. `value` goes in as an unknown member (of the root
// object, or of the document's one operation) unless `raw`.
void expectJsoncppsVerdict(const std::string& value, const std::string& what, bool raw = false) {
    TextReader document = {"policy document", "Parse json failed.", {}, nullptr, ""};
    document.read = [](const std::string& text, std::string&) {
        std::vector<OemJsonUtils::QueryPolicy::Operate> ops;
        return OemJsonUtils::QueryPolicy::fromJson(text, ops);
    };
    std::vector<TextReader> readers = messageReaders();
    readers.push_back(document);
    for (const TextReader& reader : readers) {
        const bool isDocument = &reader == &readers.back();
        const std::string text = raw          ? value
                                 : isDocument ? "[{\"x\":" + value + "}]"
                                              : "{\"x\":" + value + "}";
        SCOPED_TRACE(what);
        Json::Value root;
        if (jsoncppOutcome(text, root) != Outcome::kParsed || !acceptable(root, isDocument)) {
            expectRefused(reader, text);
            continue;
        }
        SCOPED_TRACE(std::string(reader.name) + " (jsoncpp parses)");
        LogCapture log;
        std::string after;
        EXPECT_EQ(reader.read(text, after), 0);
        EXPECT_TRUE(log.lines().empty());
    }
}

// The boundary spelled out for the envelope reader; its root object is one of
// the containers counted.
TEST(NestingLimit, BoundaryIsJsoncppsOwn) {
    const std::pair<std::string, int8_t> cases[] = {
        {nested(998, "1", 0), 0},   // a value inside 999 containers
        {nested(999, "1", 0), -1},  // ... inside 1000
        {nested(999, "", 0), 0},    // an empty array inside 999
        {nested(1000, "", 0), -1},  // ... inside 1000
        {nested(998, "{}", 1), 0}, {nested(100000, "1", 0), -1},
    };
    for (const auto& [value, status] : cases) {
        const std::string text = "{\"code\":1,\"x\":" + value + "}";
        SCOPED_TRACE(text.substr(0, 30) + "... " + std::to_string(text.size()) + " bytes");
        const int thrownBefore = exceptionsThrown();
        OemJsonUtils::Resp resp;
        EXPECT_EQ(OemJsonUtils::fromJson(text, resp), status);
        EXPECT_EQ(exceptionsThrown(), thrownBefore);
        EXPECT_EQ(resp.code, status == 0 ? 1 : 0);
        EXPECT_EQ(jsoncppOutcome(text), status == 0 ? Outcome::kParsed : Outcome::kThrew);
    }
    EXPECT_GT(exceptionsThrown(), 0) << "the counter sees jsoncpp's own throws";
}

// Around the limit, every shape with whatever may stand just inside the
// innermost container: values, whitespace, comments, stray separators.
TEST(NestingLimit, EveryReaderAgreesWithJsoncppAroundTheLimit) {
    const std::string inners[] = {"",  "1",  " \t\r\n", "/**/", "// c\n", ",", ":",
                                  "/", "[]", "{}",      "]",    "}",      "x"};
    for (int depth : {997, 998, 999, 1000, 1001, 100000}) {
        for (int shape = 0; shape < 3; ++shape) {
            for (const std::string& inner : inners) {
                expectJsoncppsVerdict(nested(depth, inner, shape),
                                      std::to_string(depth) + " deep, shape " +
                                          std::to_string(shape) + ", inner '" + inner + "'");
            }
        }
    }
}

// Brackets that are not structure (in strings, in comments, after the root,
// which jsoncpp never reads) do not count; text that ends inside an array at
// the limit does, since jsoncpp reads on for an element.
TEST(NestingLimit, OnlyStructureThatJsoncppReadsCounts) {
    const std::string deep = repeat("[", 1500);
    for (const std::string& value : {"\"" + deep + "\"", "\"\\\"" + deep + "\"",
                                     "1 /*" + deep + "*/", "1 // " + deep + "\n"}) {
        expectJsoncppsVerdict(value, value.substr(0, 8));
    }
    for (const std::string& text : {"{\"code\":4}" + deep, "1 " + deep, "[]" + deep}) {
        expectJsoncppsVerdict(text, text.substr(0, 12), true);
    }
    for (int depth : {999, 1000, 1001}) {
        for (const char* tail : {"", " \n", "1", "{", "/**/"}) {
            expectJsoncppsVerdict(repeat("[", depth) + tail, "open " + std::to_string(depth), true);
            expectJsoncppsVerdict(repeat("{\"k\":", depth - 1) + "[" + tail, "open objects", true);
        }
    }
}

// Random texts from structural pieces near the limit, well-formed or not,
// closed or cut short.
TEST(NestingLimit, RandomTextsNearTheLimitAgreeWithJsoncpp) {
    const std::vector<std::string> openers = {"[", "{\"k\":", "[1,", "{\"a\":1,\"k\":", "[ /*c*/ "};
    const std::vector<std::string> fillers = {"",  " ", "1",  "/**/",  "//c\n", ",",       ":",
                                              "]", "}", "[]", "\"s\"", "/",     "{\"k\":", "["};
    const std::vector<std::string> closers = {"]", "}", " ]", "},", "],"};
    std::mt19937 rng(7);
    auto pick = [&rng](const std::vector<std::string>& pieces) -> const std::string& {
        return pieces[std::uniform_int_distribution<size_t>(0, pieces.size() - 1)(rng)];
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
        expectJsoncppsVerdict(text, "random text " + std::to_string(i), true);
    }
}

}  // namespace
