#pragma once

#include <sys/types.h>

#include <string>

namespace talvoem::bench {

// Resource figures of a process, read from /proc.
struct ProcessFigures {
    long rssKiB = 0;
    long threads = 0;
    long descriptors = 0;
};

ProcessFigures readProcessFigures(pid_t pid);

// One of the bench's service processes (this program again, with --role),
// talked to through its stdin and stdout. Its stderr, where the library's
// log lines go on the host, is /dev/null unless `keepStderr`. Killed and
// reaped on destruction.
class ServiceProcess {
public:
    ServiceProcess(const std::string& role, int stampBoardFd, bool keepStderr);
    ~ServiceProcess();
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    // False when the process did not start or did not say "ready".
    bool ready() const { return ready_; }
    pid_t pid() const { return pid_; }
    // Sends one command line; returns the reply line ("" when the process
    // has gone or took longer than two minutes).
    std::string command(const std::string& line);

private:
    std::string readLine();

    pid_t pid_ = -1;
    int toChild_ = -1;
    int fromChild_ = -1;
    bool ready_ = false;
};

}  // namespace talvoem::bench
