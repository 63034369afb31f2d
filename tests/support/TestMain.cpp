// Test entry point. Before any thread starts, the process moves into a
// private mount namespace with a fresh tmpfs on /dev/socket, so socket tests
// use the real service path without touching the machine's own. It ignores
// SIGPIPE (as a service using the library must), captures the library's log
// and prints it for a test that fails. ctest's time-out ends a test that hangs.
#include <gtest/gtest.h>
#include <signal.h>

#include "LogCapture.h"
#include "Wire.h"

namespace {

class DumpLogOfFailedTests : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo& info) override {
        if (info.result()->Failed()) {
            talvoem::test::LogCapture::dump();
        }
    }
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests) && !talvoem::test::enterPrivateSocketDir()) {
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    talvoem::test::LogCapture::install();
    testing::UnitTest::GetInstance()->listeners().Append(new DumpLogOfFailedTests);
    return RUN_ALL_TESTS();
}
