#pragma once

#include <cstddef>

namespace talvoem::transport {

// Raises the send buffer of `fd` (borrowed) to the one fixed size that fits a
// packet of the receive limit, unless it is that large already, and returns
// the largest packet the socket can then send (0 when the buffer cannot be
// read). The kernel caps the request at net.core.wmem_max, so the result can
// be below the receive limit.
//
// Every caller asks for the same size, so two threads raising the buffer of
// one descriptor at once never lower what the other got.
size_t raiseSendBuffer(int fd);

}  // namespace talvoem::transport
