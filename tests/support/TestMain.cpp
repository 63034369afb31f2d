// Test entry point. Before any thread starts, the process moves into a
// private mount namespace with a fresh tmpfs on /dev/socket, so socket tests
// use the real service path without touching the machine's own. It ignores
// SIGPIPE (as a service using the library must), captures the library's log,
// and arms a watchdog that fails a hanging test instead of blocking CI.
#include <errno.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include "LogCapture.h"

namespace {

bool enterPrivateSocketDir() {
    if (unshare(CLONE_NEWNS) != 0) {
        fprintf(stderr, "unshare(CLONE_NEWNS): %s (the tests need root)\n", strerror(errno));
        return false;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        fprintf(stderr, "making / private: %s\n", strerror(errno));
        return false;
    }
    mkdir("/dev/socket", 0755);  // the empty directory is all we add outside
    if (mount("tmpfs", "/dev/socket", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0) {
        fprintf(stderr, "tmpfs on /dev/socket: %s\n", strerror(errno));
        return false;
    }
    return true;
}

// Fails the whole process when one test runs longer than its budget. Its
// state lives for the whole process: gtest deletes listeners at exit while the
// watchdog thread may still wait on the condition variable.
class Watchdog : public testing::EmptyTestEventListener {
public:
    explicit Watchdog(std::chrono::seconds budget) : state_(new State(budget)) {
        std::thread(run, state_).detach();
    }

private:
    struct State {
        explicit State(std::chrono::seconds b) : budget(b) {}
        std::chrono::seconds budget;
        std::mutex mutex;
        std::condition_variable changed;
        std::string name;
        std::chrono::steady_clock::time_point deadline;
        bool armed = false;
    };

    void OnTestStart(const testing::TestInfo& info) override {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->name = std::string(info.test_suite_name()) + "." + info.name();
        state_->deadline = std::chrono::steady_clock::now() + state_->budget;
        state_->armed = true;
        state_->changed.notify_all();
    }
    void OnTestEnd(const testing::TestInfo& info) override {
        if (info.result()->Failed()) {
            talvoem::test::LogCapture::dump();
        }
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->armed = false;
        state_->changed.notify_all();
    }
    static void run(State* state) {
        std::unique_lock<std::mutex> lock(state->mutex);
        for (;;) {
            state->changed.wait(lock, [state] { return state->armed; });
            if (!state->changed.wait_until(lock, state->deadline,
                                           [state] { return !state->armed; })) {
                fprintf(stderr, "watchdog: %s hung for %lld s\n", state->name.c_str(),
                        static_cast<long long>(state->budget.count()));
                talvoem::test::LogCapture::dump();
                _exit(124);
            }
        }
    }

    State* state_;  // never freed, see above
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    // A helper process started by a test shares its parent's namespace, so
    // both see the same /dev/socket.
    const bool shareParentNamespace = getenv("TALVOEM_TEST_CHILD") != nullptr;
    if (!testing::GTEST_FLAG(list_tests) && !shareParentNamespace && !enterPrivateSocketDir()) {
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    talvoem::test::LogCapture::install();
    const char* budget = getenv("TALVOEM_TEST_WATCHDOG_SECONDS");
    testing::UnitTest::GetInstance()->listeners().Append(
        new Watchdog(std::chrono::seconds(budget != nullptr ? atoi(budget) : 90)));
    return RUN_ALL_TESTS();
}
