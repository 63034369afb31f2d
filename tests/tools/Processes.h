#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace talvoem::test {

// The tools under test are separate programs: these helpers start them as
// child processes of the test (inside its private /dev/socket) with stdout
// and stderr going to files in a scratch directory of the test's own.

// A scratch directory removed with everything in it on destruction.
class ScratchDir {
public:
    ScratchDir();
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    // Writes `text` beside `name` and renames it over `name`, as editors do.
    void replace(const std::string& name, const std::string& text) const;

private:
    std::string dir_;
};

std::string readFile(const std::string& path);

// A child process started from argv; killed (SIGKILL) and reaped on
// destruction if it has not been waited for.
class Child {
public:
    Child(const std::vector<std::string>& argv, const std::string& outPath,
          const std::string& errPath);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool started() const { return pid_ > 0; }
    // Exit status, or -1 when it was not reaped within `timeout` (then
    // killed) or ended by a signal.
    int wait(std::chrono::milliseconds timeout = std::chrono::seconds(30));
    bool running();
    void signal(int sig);

private:
    pid_t pid_ = -1;
    bool reaped_ = false;
    int status_ = -1;
};

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

// Runs a program to its end and collects its exit status and output.
Outcome run(const std::vector<std::string>& argv);

}  // namespace talvoem::test
