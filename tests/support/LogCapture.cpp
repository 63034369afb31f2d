#include "LogCapture.h"

#include <condition_variable>
#include <cstdio>
#include <mutex>

namespace talvoem::test {

namespace {

std::mutex gMutex;
std::condition_variable gChanged;
std::vector<LogLine> gLines;

void capture(const __android_logger_data* data, const char* message) {
    {
        std::lock_guard<std::mutex> lock(gMutex);
        gLines.push_back({data->priority, message != nullptr ? message : ""});
    }
    gChanged.notify_all();
}

size_t countLocked(int priority, const std::string& text) {
    size_t n = 0;
    for (const LogLine& line : gLines) {
        n += (line.priority == priority && line.text == text) ? 1 : 0;
    }
    return n;
}

}  // namespace

LogCapture::LogCapture() {
    clear();
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(gMutex);
    return gLines;
}

size_t LogCapture::count(int priority, const std::string& text) const {
    std::lock_guard<std::mutex> lock(gMutex);
    return countLocked(priority, text);
}

bool LogCapture::waitFor(int priority, const std::string& text, size_t n,
                         std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(gMutex);
    return gChanged.wait_for(lock, timeout, [&] { return countLocked(priority, text) >= n; });
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(gMutex);
    gLines.clear();
}

void LogCapture::install() {
    __android_log_set_logger(capture);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

void LogCapture::dump() {
    std::lock_guard<std::mutex> lock(gMutex);
    for (const LogLine& line : gLines) {
        fprintf(stderr, "  log[%d] %s\n", line.priority, line.text.c_str());
    }
}

}  // namespace talvoem::test
