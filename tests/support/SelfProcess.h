#pragma once

#include <sys/types.h>

#include <string>

namespace talvoem::test {

// Starts this test binary again as a child process that runs only the tests
// matching `filter` (typically a DISABLED_ one that serves until killed). The
// child shares the parent's /dev/socket instead of making its own. Under a
// cross build it goes through the same emulator as its parent, since the
// host kernel cannot start the binary by itself. Its pid, or -1.
pid_t startSelf(const std::string& filter);

}  // namespace talvoem::test
