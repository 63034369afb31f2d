#pragma once

#include <cstddef>

// What the library knows of the connection whose request the calling thread
// is serving. It is known on a connection thread of SocketOemQueryServer while
// its onTransact runs, that is inside the service's queryPolicy and
// setPolicyCallback; on any other thread, or after the call has returned, the
// functions here say that there is none.
namespace talvoem {

// The longest answer, in bytes, that can go back whole on that connection:
// its send buffer raised as far as net.core.wmem_max allows, and never more
// than the 524,288 bytes a client receives whole. 0 when there is no such
// connection. A service answers with its own "too large" envelope above it,
// since a longer answer would not be sent at all.
size_t currentSendLimit();

}  // namespace talvoem
