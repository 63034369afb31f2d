#include "CodecTesting.h"

#include <gtest/gtest.h>

#include <memory>

#include "LogCapture.h"
#include "OemJsonUtils.h"
#include "ThrowCounter.h"

namespace talvoem::test {

namespace {

namespace QP = OemJsonUtils::QueryPolicy;
namespace SPC = OemJsonUtils::SetPolicyCallback;

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

template <typename Record>
TextReader makeReader(const char* name, const char* failureLog,
                      std::vector<std::pair<const char*, bool>> members, Record preset,
                      int8_t (*fromJson)(const std::string&, Record&)) {
    auto read = [preset, fromJson](const std::string& text, std::string& after) {
        Record record = preset;
        int8_t status = fromJson(text, record);
        after = describe(record);
        return status;
    };
    return {name, failureLog, std::move(members), read, describe(preset)};
}

}  // namespace

Json::Value jsonValue(const std::string& text) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
    return value;
}

std::string compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::string randomName(std::mt19937& rng) {
    static const char* const kPieces[] = {
        "a",    "op",          "\"quoted\"",   "back\\slash",      "/*x*/",  "\x01\x1f", "\t\n\r",
        "\x7f", "caf\xc3\xa9", "\xe6\xbc\xa2", "\xf0\x9f\x98\x80", "[{}]:,", " ",
    };
    std::uniform_int_distribution<size_t> piece(0, std::size(kPieces) - 1);
    std::string name;
    for (int n = std::uniform_int_distribution<int>(0, 3)(rng); n > 0; --n) {
        name += kPieces[piece(rng)];
    }
    return name;
}

const std::vector<TextReader>& messageReaders() {
    constexpr bool S = true;
    constexpr bool I = false;
    static const std::vector<TextReader> all = {
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

void expectRefused(const TextReader& reader, const std::string& text) {
    SCOPED_TRACE(std::string(reader.name) + " <- " + text.substr(0, 100));
    LogCapture log;
    const int thrownBefore = exceptionsThrown();
    std::string after;
    EXPECT_EQ(reader.read(text, after), -1);
    EXPECT_EQ(exceptionsThrown(), thrownBefore) << "jsoncpp threw inside the codec";
    EXPECT_EQ(after, reader.preset);
    EXPECT_EQ(log.lines().size(), reader.failureLog != nullptr ? 1u : 0u);
    if (reader.failureLog != nullptr) {
        EXPECT_EQ(log.count(ANDROID_LOG_WARN, reader.failureLog), 1u);
    }
}

}  // namespace talvoem::test
