#include "LogCapture.h"

#include <algorithm>
#include <cstdio>
#include <mutex>

#include "Wire.h"

namespace talvoem::test {

namespace {

// Never destroyed: detached service threads may still log while the process
// exits, after static destructors have begun.
struct Store {
    std::mutex mutex;
    std::vector<LogLine> lines;
};
Store& store() {
    static Store* instance = new Store;
    return *instance;
}

void keep(int priority, const char* message) {
    std::lock_guard<std::mutex> lock(store().mutex);
    store().lines.push_back({priority, message != nullptr ? message : ""});
}

// The platform's liblog hands a logger one message record; the host library
// packaged by Debian predates it and passes the metadata and text apart.
#if defined(__ANDROID__)
void capture(const __android_log_message* message) {
    keep(message->priority, message->message);
}
#else
void capture(const __android_logger_data* data, const char* message) {
    keep(data->priority, message);
}
#endif

}  // namespace

LogCapture::LogCapture() {
    std::lock_guard<std::mutex> lock(store().mutex);
    store().lines.clear();
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(store().mutex);
    return store().lines;
}

size_t LogCapture::count(int priority, const std::string& text) const {
    const std::vector<LogLine> all = lines();
    return std::count(all.begin(), all.end(), LogLine{priority, text});
}

bool LogCapture::waitFor(int priority, const std::string& text, size_t n) const {
    return waitUntil([&] { return count(priority, text) >= n; });
}

void LogCapture::install() {
    __android_log_set_logger(capture);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

void LogCapture::dump() {
    std::lock_guard<std::mutex> lock(store().mutex);
    for (const LogLine& line : store().lines) {
        fprintf(stderr, "  log[%d] %s\n", line.priority, line.text.c_str());
    }
}

}  // namespace talvoem::test
