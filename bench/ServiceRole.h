#pragma once

#include "StampBoard.h"

// The service processes of the bench. Each is this same program started with
// --role; it listens, prints "ready", then takes commands one per line on
// stdin and answers each with one line on stdout:
//   push <count> <interval_us> <queue|bare>   report <count> changes on the
//                                             live channel, paced or flat out
//   log <stderr|discard>                      where the library's log lines go
// End of input ends the process.
namespace talvoem::bench {

// Reports one change on the service's live channel.
class Notifier {
public:
    virtual ~Notifier() = default;
    // False when no channel is live. `bare` asks for the send on the
    // reporting thread itself (floors only).
    virtual bool report(bool bare) = 0;
};

// Runs the command loop until stdin ends; the process's exit status.
int runCommandLoop(Notifier& notifier, StampBoard* board);

// The library's service: a SocketOemQueryServer on the control socket.
int runLibraryService(StampBoard* board);
// The floors' service, written by hand on kFloorSocketPath.
int runFloorService(StampBoard* board);

}  // namespace talvoem::bench
