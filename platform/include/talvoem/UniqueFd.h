#pragma once

#include <unistd.h>

namespace talvoem {

// Owns one descriptor inside a function so that every early return closes it.
// 0 is a valid descriptor; "none" is negative. close() is not retried on EINTR.
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd_; }
    // Gives the descriptor up without closing it.
    [[nodiscard]] int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }

private:
    int fd_;
};

}  // namespace talvoem
