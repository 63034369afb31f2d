#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <vector>

namespace talvoem::test {

// While alive, no descriptor is free: the limit is lowered to the highest one
// open and the gaps below it are filled, so socket() and accept() fail with
// EMFILE. The destructor gives everything back.
class DescriptorsExhausted {
public:
    DescriptorsExhausted() {
        getrlimit(RLIMIT_NOFILE, &saved_);
        rlimit low = saved_;
        for (int fd = 0; fd < 4096; ++fd) {
            low.rlim_cur = fcntl(fd, F_GETFD) != -1 ? static_cast<rlim_t>(fd) + 1 : low.rlim_cur;
        }
        setrlimit(RLIMIT_NOFILE, &low);
        for (int fd = open("/dev/null", O_RDONLY); fd >= 0; fd = open("/dev/null", O_RDONLY)) {
            fillers_.push_back(fd);
        }
    }
    ~DescriptorsExhausted() {
        for (int fd : fillers_) {
            close(fd);
        }
        setrlimit(RLIMIT_NOFILE, &saved_);
    }

private:
    rlimit saved_ = {};
    std::vector<int> fillers_;
};

}  // namespace talvoem::test
