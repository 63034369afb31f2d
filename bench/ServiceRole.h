#pragma once

#include "StampBoard.h"

// The service processes of the bench. Each is this same program started with
// --role; it listens, prints "ready", then takes commands one per line on
// stdin and answers each with one line on stdout:
//   push <count> <interval_us> <queue|bare>   report <count> changes on the
//                                             live channel, paced or flat out
//   log <stderr|discard>                      where the library's log lines go
//   serve <threads|inline> <reuse|fresh>      how the floor serves queries
// End of input ends the process.
namespace talvoem::bench {

// What a service process lets the bench steer.
class ServiceControl {
public:
    virtual ~ServiceControl() = default;
    // Reports one change on the live channel; false when none is live.
    // `bare` asks for the send on the reporting thread itself (floors only).
    virtual bool report(bool bare) = 0;
    // Serves each query connection on a thread of its own or inline on the
    // accepting thread, with a reused or a fresh 512 KiB receive buffer
    // (floors only).
    virtual bool setServing(bool threadPerConnection, bool freshBuffer) = 0;
};

// Runs the command loop until stdin ends; the process's exit status.
int runCommandLoop(ServiceControl& control, StampBoard* board);

// The library's service: a SocketOemQueryServer on the control socket.
int runLibraryService(StampBoard* board);
// The floors' service, written by hand on kFloorSocketPath.
int runFloorService(StampBoard* board);

}  // namespace talvoem::bench
