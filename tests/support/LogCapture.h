#pragma once

#include <android/log.h>

#include <chrono>
#include <string>
#include <vector>

namespace talvoem::test {

struct LogLine {
    int priority;
    std::string text;
};

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
    // Waits until `count(priority, text) >= n`; false on timeout.
    bool waitFor(int priority, const std::string& text, size_t n = 1,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    void clear();

    // Installs the capturing logger; called once by the test main.
    static void install();
    // Prints the captured lines to stderr (for a failing test).
    static void dump();
};

}  // namespace talvoem::test
