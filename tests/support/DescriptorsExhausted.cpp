#include "DescriptorsExhausted.h"

#include <fcntl.h>
#include <unistd.h>

namespace talvoem::test {

DescriptorsExhausted::DescriptorsExhausted() {
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

DescriptorsExhausted::~DescriptorsExhausted() {
    for (int fd : fillers_) {
        close(fd);
    }
    setrlimit(RLIMIT_NOFILE, &saved_);
}

}  // namespace talvoem::test
