// Test entry point. Before any thread starts, the process enters a private mount
// namespace with a fresh tmpfs on /dev/socket, so tests use the real service path
// and never the machine's own. It ignores SIGPIPE (as a service must), captures
// the library's log and prints it when a test fails.
#include <gtest/gtest.h>
#include <signal.h>

#include "LogCapture.h"
#include "Wire.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests) && !talvoem::test::enterPrivateSocketDir()) {
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    talvoem::test::LogCapture::install();
    const int status = RUN_ALL_TESTS();
    if (status != 0) {
        talvoem::test::LogCapture::dump();  // ctest runs one test a process
    }
    return status;
}
