#pragma once

#include <json/json.h>

#include <cstdint>
#include <exception>
#include <string>

// Internal helpers shared by the message codecs. They keep every input away
// from jsoncpp's throwing paths (which abort on Android, where jsoncpp is built
// without exceptions): nesting is checked before parsing and each member's kind
// before converting it.
namespace talvoem::json {

// jsoncpp's Reader throws once a value has this many enclosing containers.
constexpr int kMaxEnclosingContainers = 1000;

// True when some value of `text` sits inside kMaxEnclosingContainers or more
// arrays/objects. Strings and comments are skipped; malformed text is judged
// by the brackets it has, which only refuses what the parser would refuse too.
bool exceedsNestingLimit(const std::string& text);

// Parses `text` (comments allowed, any root) into `root`. False when the text
// is not JSON or nests too deep.
bool parse(const std::string& text, Json::Value& root);

// Compact text of `root`, ending in one line feed, replacing `text`.
void write(const Json::Value& root, std::string& text);

// Member readers. A member that is absent or null leaves the field alone and
// succeeds; one whose kind does not convert fails and leaves the field alone.
bool readString(const Json::Value& object, const char* key, std::string& field);
bool readInt32(const Json::Value& object, const char* key, int32_t& field);
// Keeps the low 16 bits of the 32-bit conversion: 65537 reads as 1, -1 as 65535.
bool readUInt16(const Json::Value& object, const char* key, uint16_t& field);
// Absent or null stores `whenAbsent`.
bool readBool(const Json::Value& object, const char* key, bool& field, bool whenAbsent);

// Logs a reader's failure message at warn priority (nothing for null).
void logFailure(const char* failureLog);

// Called when an exception reached a codec boundary. The codec's own checks
// should make this unreachable; a build with TALVOEM_CODEC_ABORT_ON_EXCEPTION
// aborts here so fuzzing and tests prove it. Otherwise logs `failureLog` (if
// any) at warn priority.
void onCodecException(const char* failureLog, const std::exception& e);

// Runs a codec body; an exception becomes the failure status -1.
template <typename Body>
int8_t guarded(const char* failureLog, Body&& body) noexcept {
    try {
        return body();
    } catch (const std::exception& e) {
        onCodecException(failureLog, e);
        return -1;
    }
}

// Reads a message record: parses `text`, requires an object root, and lets
// `readMembers(root, copy)` fill a copy of `record`, which replaces the record
// only when every member converted. Otherwise logs `failureLog` at warn
// priority and returns -1 with the record unchanged.
template <typename Record, typename ReadMembers>
int8_t readRecord(const std::string& text, const char* failureLog, Record& record,
                  ReadMembers&& readMembers) noexcept {
    return guarded(failureLog, [&]() -> int8_t {
        Json::Value root;
        Record read = record;
        if (!parse(text, root) || !root.isObject() || !readMembers(root, read)) {
            logFailure(failureLog);
            return -1;
        }
        record = std::move(read);
        return 0;
    });
}

// Writes a message record: `writeMembers(object)` fills an empty object whose
// compact text replaces `text`. Writers cannot fail short of memory.
template <typename WriteMembers>
int8_t writeRecord(std::string& text, WriteMembers&& writeMembers) noexcept {
    return guarded(nullptr, [&]() -> int8_t {
        Json::Value root(Json::objectValue);
        writeMembers(root);
        write(root, text);
        return 0;
    });
}

// Presence rules of the message writers: strings when not empty, 16-bit
// integers when not zero.
void putString(Json::Value& object, const char* key, const std::string& value);
void putUInt16(Json::Value& object, const char* key, uint16_t value);

}  // namespace talvoem::json
