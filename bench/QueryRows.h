#pragma once

#include <cstddef>

namespace talvoem::bench {

// Bounds of one sample: whichever comes first.
struct Budget {
    double seconds;
    size_t maxOps;
};

struct QueryFigures {
    double opsPerSec = 0;
    double p50Us = 0;
    double p99Us = 0;
    size_t ops = 0;
    size_t failures = 0;
};

// One query round trip; false when the answer was not the expected one.
using QueryOp = bool (*)();

// Through the library's exported transport and codec, to the library service.
bool libraryQuery();
// By hand, to the floor service; with a reused receive buffer, or with a
// fresh 512 KiB one per receive as the library's transport has.
bool floorQuery();
bool floorQueryFreshBuffer();

// `clients` threads each run `op` back to back until the budget is spent.
QueryFigures runQueries(QueryOp op, int clients, const Budget& budget);

}  // namespace talvoem::bench
