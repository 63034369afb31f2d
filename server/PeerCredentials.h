#pragma once

#include <string>

#include "TalvoemConnection.h"

namespace talvoem::server {

// The caller of the accepted connection `fd` (borrowed) from SO_PEERCRED:
// one getsockopt. The context is left empty; readSecurityContext gives it.
CallerCredentials readPeerCredentials(int fd);

// The peer's SELinux context from SO_PEERSEC, without the kernel's trailing
// NUL; empty where the kernel keeps none (ENOPROTOOPT without an LSM that
// labels sockets, after which it is not asked again) or on any other
// failure, memory included.
std::string readSecurityContext(int fd);

}  // namespace talvoem::server
