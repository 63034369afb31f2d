#include "SelfProcess.h"

#include <limits.h>
#include <spawn.h>
#include <unistd.h>

#include <vector>

extern char** environ;

namespace talvoem::test {

pid_t startSelf(const std::string& filter) {
    char exe[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    if (length <= 0) {
        return -1;
    }
    exe[length] = '\0';
    std::vector<std::string> argv;
    if (!std::string(TALVOEM_TEST_EMULATOR).empty()) {
        argv.push_back(TALVOEM_TEST_EMULATOR);
    }
    argv.insert(argv.end(), {exe, "--gtest_also_run_disabled_tests", "--gtest_filter=" + filter});
    std::vector<char*> args;
    for (std::string& arg : argv) {
        args.push_back(arg.data());
    }
    args.push_back(nullptr);
    std::string marker = "TALVOEM_TEST_CHILD=1";
    std::vector<char*> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        env.push_back(*entry);
    }
    env.push_back(marker.data());
    env.push_back(nullptr);
    pid_t pid = -1;
    return posix_spawnp(&pid, args[0], nullptr, nullptr, args.data(), env.data()) == 0 ? pid : -1;
}

}  // namespace talvoem::test
