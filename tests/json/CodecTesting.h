#pragma once

#include <json/json.h>

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

// Shared by the codec tests: tree helpers, random names, and every reader of
// a whole message text behind one interface.
namespace talvoem::test {

// A jsoncpp tree from text, and the compact text of a tree (no line feed).
Json::Value jsonValue(const std::string& text);
std::string compact(const Json::Value& value);

// Empty, short and duplicate-prone names with the characters that need
// escaping and multi-byte UTF-8 (valid sequences only: jsoncpp replaces
// invalid ones when writing).
std::string randomName(std::mt19937& rng);

// A reader of message texts. It reads into a record preset to recognisable
// values and describes the record afterwards, so "left unchanged" is a
// comparison with `preset`.
struct TextReader {
    const char* name;
    const char* failureLog;                             // nullptr: logs nothing
    std::vector<std::pair<const char*, bool>> members;  // key, true for a string field
    std::function<int8_t(const std::string&, std::string&)> read;
    std::string preset;
};
enum ReaderId { kResp, kQueryReq, kQueryData, kChannelReq, kChannelMsg, kApiPeek };
const std::vector<TextReader>& messageReaders();

// Reads `text` and expects a refusal: -1, the record as preset, exactly the
// reader's failure line at warn priority, and no exception on the way.
void expectRefused(const TextReader& reader, const std::string& text);

}  // namespace talvoem::test
