#pragma once

#include <android/log.h>

#include <ostream>
#include <string>
#include <vector>

namespace talvoem::test {

struct LogLine {
    int priority;
    std::string text;
    bool operator==(const LogLine& o) const { return priority == o.priority && text == o.text; }
};
inline std::ostream& operator<<(std::ostream& out, const LogLine& line) {
    return out << line.priority << ":" << line.text;
}

// Reads what the library logged. The test main installs one process-wide
// logger (liblog's __android_log_set_logger) at the lowest priority; each
// LogCapture clears what came before it, so a test sees only its own lines.
class LogCapture {
public:
    LogCapture();
    std::vector<LogLine> lines() const;
    // Lines with exactly this priority and text.
    size_t count(int priority, const std::string& text) const;
    bool contains(int priority, const std::string& text) const { return count(priority, text) > 0; }
    // Waits up to 10 s until count(priority, text) >= n.
    bool waitFor(int priority, const std::string& text, size_t n = 1) const;

    static void install();
    // Prints the captured lines to stderr (for a failing test).
    static void dump();
};

}  // namespace talvoem::test
