#include "PolicyFile.h"

#include <cctype>
#include <fstream>
#include <set>

using OemJsonUtils::QueryPolicy::Operate;
using OemJsonUtils::QueryPolicy::Subsystem;

namespace {

// A document nests six containers deep. jsoncpp's reader gives up on deep
// nesting by throwing (aborting where it is built without exceptions), so a
// text nested deeper than this is refused before it is parsed.
constexpr int kMaxDepth = 64;

// The index just after a comment that starts at `at`, or `at` when none does.
size_t skipComment(const std::string& text, size_t at) {
    size_t end = at;
    if (text.compare(at, 2, "//") == 0) {
        end = text.find('\n', at);
    } else if (text.compare(at, 2, "/*") == 0) {
        end = text.find("*/", at + 2);
        end = end == std::string::npos ? end : end + 1;
    } else {
        return at;
    }
    return end == std::string::npos ? text.size() : end + 1;
}

// The index just after the string whose opening quote is at `at`.
size_t skipString(const std::string& text, size_t at) {
    for (size_t i = at + 1; i < text.size(); ++i) {
        if (text[i] == '\\') {
            ++i;
        } else if (text[i] == '"') {
            return i + 1;
        }
    }
    return text.size();
}

// The first index from `at` that is neither whitespace nor in a comment.
size_t skipBlank(const std::string& text, size_t at) {
    while (at < text.size()) {
        if (isspace(static_cast<unsigned char>(text[at]))) {
            ++at;
        } else if (size_t after = skipComment(text, at); after != at) {
            at = after;
        } else {
            break;
        }
    }
    return at;
}

// Where the document's outermost container ends, found as jsoncpp reads it
// (strings and comments skipped). `tooDeep` when a container opens deeper
// than kMaxDepth, `end` then being its index. A root that is not a container
// ends where it starts: the codec refuses it anyway.
struct Extent {
    size_t end;
    bool tooDeep;
};

Extent outermostContainer(const std::string& text) {
    size_t at = skipBlank(text, 0);
    if (at == text.size() || (text[at] != '[' && text[at] != '{')) {
        return {at, false};
    }
    int depth = 0;
    do {
        const char c = text[at];
        if (c == '"') {
            at = skipString(text, at);
        } else if (size_t after = skipComment(text, at); after != at) {
            at = after;
        } else {
            depth += (c == '[' || c == '{') ? 1 : (c == ']' || c == '}') ? -1 : 0;
            if (depth > kMaxDepth) {
                return {at, true};
            }
            ++at;
        }
    } while (depth > 0 && at < text.size());
    return {at, false};
}

std::string at(const std::string& text, size_t offset, const std::string& what) {
    size_t line = 1, lineStart = 0;
    for (size_t i = 0; i < offset && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++line;
            lineStart = i + 1;
        }
    }
    return "line " + std::to_string(line) + ", column " + std::to_string(offset - lineStart + 1) +
           ": " + what;
}

// Json::Reader is deprecated upstream, but it is the reader the codec is built
// on and the one that tells where an error is.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

// "" when `text` reads as JSON, else where and why it does not.
std::string syntaxError(const std::string& text) {
    Json::Reader reader;
    Json::Value root;
    if (reader.parse(text.data(), text.data() + text.size(), root, false)) {
        return "";
    }
    const auto errors = reader.getStructuredErrors();
    return errors.empty()
               ? "not JSON"
               : at(text, static_cast<size_t>(errors.front().offset_start), errors.front().message);
}

#pragma GCC diagnostic pop

// "" when `name` is new in `seen`, else what is named twice.
std::string twice(std::set<std::string>& seen, const char* kind, const std::string& name,
                  const std::string& where) {
    return seen.insert(name).second ? ""
                                    : std::string(kind) + " \"" + name + "\" appears twice" + where;
}

std::string duplicateName(const Policy& policy) {
    std::set<std::string> ops;
    for (const Operate& op : policy) {
        std::string error = twice(ops, "operation", op.name, "");
        std::set<std::string> subsyss;
        for (size_t s = 0; error.empty() && s < op.subsyss.size(); ++s) {
            const Subsystem& subsys = op.subsyss[s];
            error = twice(subsyss, "subsystem", subsys.name, " in operation \"" + op.name + "\"");
            std::set<std::string> funcs;
            for (size_t f = 0; error.empty() && f < subsys.funcs.size(); ++f) {
                error = twice(funcs, "function", subsys.funcs[f].name,
                              " in " + op.name + "/" + subsys.name);
            }
        }
        if (!error.empty()) {
            return error;
        }
    }
    return "";
}

// The document's text, or why it cannot be read.
std::string decode(const std::string& text, Policy& policy) {
    const Extent extent = outermostContainer(text);
    if (extent.tooDeep) {
        return at(text, extent.end, "nested deeper than " + std::to_string(kMaxDepth) + " levels");
    }
    std::string error = syntaxError(text);
    if (!error.empty()) {
        return error;
    }
    if (size_t after = skipBlank(text, extent.end); after != text.size()) {
        return at(text, after, "bytes after the document");
    }
    if (OemJsonUtils::QueryPolicy::fromJson(text, policy) != 0) {
        return "not a policy document";
    }
    return duplicateName(policy);
}

}  // namespace

std::string readPolicyFile(const std::string& path, Policy& policy) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return "cannot open the file";
    }
    // Read in chunks, so a small file costs little and an endless one stops
    // one chunk past the cap.
    std::string text;
    char chunk[16384];
    while (file.read(chunk, sizeof(chunk)) || file.gcount() > 0) {
        text.append(chunk, static_cast<size_t>(file.gcount()));
        if (text.size() > kMaxPolicyFileBytes) {
            return "the file is larger than the " + std::to_string(kMaxPolicyFileBytes) +
                   "-byte limit";
        }
    }
    return decode(text, policy);
}
