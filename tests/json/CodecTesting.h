#pragma once

#include <json/json.h>

#include <memory>
#include <random>
#include <string>

namespace talvoem::test {

// A jsoncpp tree from text, for the codec functions that take one.
inline Json::Value jsonValue(const std::string& text) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
    return value;
}

// Compact text of a tree (no trailing line feed), for comparing trees.
inline std::string compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

// Random names for round trips: empty, short and duplicate-prone, with the
// characters that need escaping and multi-byte UTF-8 (valid sequences only:
// jsoncpp replaces invalid ones on writing).
inline std::string randomName(std::mt19937& rng) {
    static const char* const kPieces[] = {
        "a",
        "op",
        "fn",
        "\"quoted\"",
        "back\\slash",
        "/*not a comment*/",
        "\x01\x1f",
        "\t",
        "line\nbreak",
        "\r",
        "\x7f",
        "caf\xc3\xa9",
        "\xe6\xbc\xa2",
        "\xf0\x9f\x98\x80",
        "[{}]:,",
        " ",
    };
    constexpr size_t kCount = sizeof(kPieces) / sizeof(kPieces[0]);
    std::string name;
    for (int n = std::uniform_int_distribution<int>(0, 3)(rng); n > 0; --n) {
        name += kPieces[std::uniform_int_distribution<size_t>(0, kCount - 1)(rng)];
    }
    return name;
}

}  // namespace talvoem::test
