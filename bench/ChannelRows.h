#pragma once

#include <cstddef>

#include "ServiceProcess.h"
#include "StampBoard.h"

namespace talvoem::bench {

enum class ChannelKind {
    kLibrary,  // SocketOemQueryClient to the library service
    kFloor,    // the channel's design by hand: send thread, thread per delivery
    kBare,     // by hand without either thread
};

struct NotifyFigures {
    double p50Us = 0;
    double p99Us = 0;
    double msgsPerSec = 0;
    size_t delivered = 0;
    size_t expected = 0;
};

// Opens a channel of `kind`, has `service` report `count` changes on it (one
// every `intervalUs`, or flat out when 0), waits for every delivery to the
// application's callback and closes the channel. Latency runs from the
// service's report to the callback; the rate from the first report to the
// last delivery.
NotifyFigures runNotifications(ChannelKind kind, ServiceProcess& service, const StampBoard& board,
                               size_t count, unsigned intervalUs);

struct CycleFigures {
    double setupP50Us = 0;
    double setupP99Us = 0;
    double teardownP50Us = 0;
    double teardownP99Us = 0;
    size_t failures = 0;
};

// `cycles` times: observePolicyCallback until it returns registered, then
// disposePolicyCallback until it returns.
CycleFigures runChannelCycles(size_t cycles);

}  // namespace talvoem::bench
