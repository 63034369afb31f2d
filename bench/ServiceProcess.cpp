#include "ServiceProcess.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <vector>

extern char** environ;

namespace talvoem::bench {

namespace {

constexpr int kReplyTimeoutMs = 120000;

long countEntries(const std::string& dir) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        return -1;
    }
    long n = 0;
    while (dirent* entry = readdir(d)) {
        n += entry->d_name[0] != '.';
    }
    closedir(d);
    return n;
}

std::string selfPath() {
    char path[4096];
    ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    return n > 0 ? std::string(path, static_cast<size_t>(n)) : std::string();
}

}  // namespace

ProcessFigures readProcessFigures(pid_t pid) {
    ProcessFigures figures;
    const std::string base = "/proc/" + std::to_string(pid);
    std::ifstream status(base + "/status");
    std::string key;
    while (status >> key) {
        if (key == "VmRSS:") {
            status >> figures.rssKiB;
        } else if (key == "Threads:") {
            status >> figures.threads;
        }
    }
    figures.descriptors = countEntries(base + "/fd");
    return figures;
}

ServiceProcess::ServiceProcess(const std::string& role, int stampBoardFd, bool keepStderr) {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0) {
        return;
    }
    if (pipe2(out, O_CLOEXEC) != 0) {
        close(in[0]);
        close(in[1]);
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    if (!keepStderr) {
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    }
    const std::string self = selfPath();
    const std::string board = std::to_string(stampBoardFd);
    std::vector<char*> argv = {const_cast<char*>(self.c_str()),  const_cast<char*>("--role"),
                               const_cast<char*>(role.c_str()),  const_cast<char*>("--stamps"),
                               const_cast<char*>(board.c_str()), nullptr};
    if (posix_spawn(&pid_, self.c_str(), &actions, nullptr, argv.data(), environ) != 0) {
        pid_ = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    toChild_ = in[1];
    fromChild_ = out[0];
    ready_ = pid_ > 0 && readLine() == "ready";
}

ServiceProcess::~ServiceProcess() {
    if (toChild_ >= 0) {
        close(toChild_);
    }
    if (fromChild_ >= 0) {
        close(fromChild_);
    }
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

std::string ServiceProcess::command(const std::string& line) {
    const std::string text = line + "\n";
    if (write(toChild_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        return "";
    }
    return readLine();
}

std::string ServiceProcess::readLine() {
    std::string line;
    char c;
    for (;;) {
        pollfd p = {fromChild_, POLLIN, 0};
        if (poll(&p, 1, kReplyTimeoutMs) != 1 || read(fromChild_, &c, 1) != 1) {
            return "";
        }
        if (c == '\n') {
            return line;
        }
        line += c;
    }
}

}  // namespace talvoem::bench
