#include "StampBoard.h"

#include <sys/mman.h>
#include <unistd.h>

namespace talvoem::bench {

int createStampBoard() {
    // Without MFD_CLOEXEC: the service processes inherit it across exec.
    int fd = memfd_create("talvoem-bench-stamps", 0);
    if (fd < 0) {
        return -1;
    }
    if (ftruncate(fd, sizeof(StampBoard)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

StampBoard* mapStampBoard(int fd) {
    void* p = mmap(nullptr, sizeof(StampBoard), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return p == MAP_FAILED ? nullptr : static_cast<StampBoard*>(p);
}

}  // namespace talvoem::bench
