#include "Processes.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace talvoem::test {

ScratchDir::ScratchDir() {
    char name[] = "/tmp/talvoem-tools.XXXXXX";
    dir_ = mkdtemp(name) != nullptr ? name : "";
}

ScratchDir::~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
}

void ScratchDir::replace(const std::string& name, const std::string& text) const {
    const std::string staged = path(name + ".new");
    std::ofstream(staged) << text;
    std::filesystem::rename(staged, path(name));
}

std::string readFile(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

Child::Child(const std::vector<std::string>& argv, const std::string& outPath,
             const std::string& errPath) {
    std::vector<char*> args;
    for (const std::string& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    if (posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ) != 0) {
        pid_ = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
}

Child::~Child() {
    if (pid_ > 0 && !reaped_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

bool Child::running() {
    if (pid_ <= 0 || reaped_) {
        return false;
    }
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) != pid_) {
        return true;
    }
    reaped_ = true;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return false;
}

int Child::wait(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (running() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (running()) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        reaped_ = true;
        status_ = -1;
    }
    return status_;
}

void Child::signal(int sig) {
    if (pid_ > 0 && !reaped_) {
        kill(pid_, sig);
    }
}

Outcome run(const std::vector<std::string>& argv) {
    ScratchDir dir;
    Child child(argv, dir.path("out"), dir.path("err"));
    int status = child.wait();
    return {status, readFile(dir.path("out")), readFile(dir.path("err"))};
}

}  // namespace talvoem::test
