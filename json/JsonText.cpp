#include "json/JsonText.h"

#include <cstdlib>
#include <cstring>

#include "talvoem/Log.h"

namespace talvoem::json {

namespace {

// Skips a string literal starting at text[i] == quote; returns the index after
// its closing quote (or the end of text).
size_t skipString(const std::string& text, size_t i) {
    for (++i; i < text.size(); ++i) {
        if (text[i] == '\\') {
            ++i;
        } else if (text[i] == '"') {
            return i + 1;
        }
    }
    return text.size();
}

// Skips a comment starting at text[i] == '/'; returns the index after it.
size_t skipComment(const std::string& text, size_t i) {
    if (i + 1 >= text.size()) {
        return i + 1;
    }
    if (text[i + 1] == '/') {
        size_t end = text.find_first_of("\r\n", i + 2);
        return end == std::string::npos ? text.size() : end;
    }
    if (text[i + 1] == '*') {
        size_t end = text.find("*/", i + 2);
        return end == std::string::npos ? text.size() : end + 2;
    }
    return i + 1;
}

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool isSeparator(char c) {
    return isSpace(c) || c == ',' || c == ':' || c == ']' || c == '}';
}

}  // namespace

bool exceedsNestingLimit(const std::string& text) {
    // Reaching the limit takes 1000 opening brackets.
    if (text.size() < static_cast<size_t>(kMaxEnclosingContainers)) {
        return false;
    }
    int depth = 0;
    bool innermostIsArray = false;
    size_t i = 0;
    while (i < text.size()) {
        const char c = text[i];
        // jsoncpp starts reading an array's first element as soon as anything
        // but whitespace or ']' follows '[' (a comment or a stray separator
        // too), so an array at the limit may hold nothing else.
        if (depth >= kMaxEnclosingContainers && innermostIsArray && !isSpace(c) && c != ']') {
            return true;
        }
        if (c == '/') {
            i = skipComment(text, i);
            continue;
        }
        if (c == ']' || c == '}') {
            // The root value ends here (or the text is malformed): jsoncpp
            // reads nothing after it.
            if (depth <= 1) {
                return false;
            }
            --depth;
            ++i;
            continue;
        }
        if (isSeparator(c)) {
            ++i;
            continue;
        }
        // Anything else starts a value (or an object key, which sits at the
        // same depth as the member value that must follow it).
        if (depth >= kMaxEnclosingContainers) {
            return true;
        }
        if (c == '[' || c == '{') {
            ++depth;
            innermostIsArray = c == '[';
            ++i;
        } else if (depth == 0) {
            return false;  // a scalar root: nothing after it is read
        } else if (c == '"') {
            i = skipString(text, i);
        } else {
            ++i;
        }
    }
    // An array still open at the limit when the text ends: jsoncpp reads for
    // its first element all the same.
    return depth >= kMaxEnclosingContainers && innermostIsArray;
}

// Json::Reader and Json::FastWriter are deprecated upstream but are the
// parser and writer the wire format is defined by.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

bool parse(const std::string& text, Json::Value& root) {
    if (exceedsNestingLimit(text)) {
        return false;
    }
    Json::Reader reader;
    return reader.parse(text, root, true);
}

void write(const Json::Value& root, std::string& text) {
    Json::FastWriter writer;
    text = writer.write(root);
}

#pragma GCC diagnostic pop

namespace {

// The member under `key` when it is present and not null, else nullptr.
const Json::Value* member(const Json::Value& object, const char* key) {
    if (!object.isObject()) {
        return nullptr;
    }
    const Json::Value* value = object.find(key, key + strlen(key));
    return value != nullptr && !value->isNull() ? value : nullptr;
}

}  // namespace

bool readString(const Json::Value& object, const char* key, std::string& field) {
    const Json::Value* value = member(object, key);
    if (value == nullptr) {
        return true;
    }
    if (!value->isConvertibleTo(Json::stringValue)) {
        return false;
    }
    field = value->asString();
    return true;
}

bool readInt32(const Json::Value& object, const char* key, int32_t& field) {
    const Json::Value* value = member(object, key);
    if (value == nullptr) {
        return true;
    }
    if (!value->isConvertibleTo(Json::intValue)) {
        return false;
    }
    field = value->asInt();
    return true;
}

bool readUInt16(const Json::Value& object, const char* key, uint16_t& field) {
    if (member(object, key) == nullptr) {
        return true;
    }
    int32_t wide = 0;
    if (!readInt32(object, key, wide)) {
        return false;
    }
    field = static_cast<uint16_t>(static_cast<uint32_t>(wide) & 0xFFFFu);
    return true;
}

bool readBool(const Json::Value& object, const char* key, bool& field, bool whenAbsent) {
    const Json::Value* value = member(object, key);
    if (value == nullptr) {
        field = whenAbsent;
        return true;
    }
    if (!value->isConvertibleTo(Json::booleanValue)) {
        return false;
    }
    field = value->asBool();
    return true;
}

void putString(Json::Value& object, const char* key, const std::string& value) {
    if (!value.empty()) {
        object[key] = Json::Value(value);
    }
}

void putUInt16(Json::Value& object, const char* key, uint16_t value) {
    if (value != 0) {
        object[key] = Json::Value(static_cast<int>(value));
    }
}

void logFailure(const char* failureLog) {
    if (failureLog != nullptr) {
        TALVOEM_LOGW("%s", failureLog);
    }
}

void onCodecException(const char* failureLog, const std::exception& e) {
#if defined(TALVOEM_CODEC_ABORT_ON_EXCEPTION)
    (void)failureLog;
    TALVOEM_LOGE("codec reached jsoncpp's throwing path: %s", e.what());
    abort();
#else
    (void)e;
    logFailure(failureLog);
#endif
}

}  // namespace talvoem::json
