#pragma once

#include <cstddef>
#include <cstdint>

namespace talvoem::bench {

// Memory shared between the bench and its service processes (a memfd the
// services inherit). A service writes the time at which it reported each
// notification; the bench reads it when the deliveries are in, so a latency
// is measured on one clock across processes without putting the time on the
// wire, where the library's client would not pass it on anyway.
struct StampBoard {
    static constexpr size_t kCapacity = 200000;
    uint64_t reportedNs[kCapacity];
};

// Creates the board; returns its descriptor (inherited by children) or -1.
int createStampBoard();
// Maps a board from its descriptor; nullptr on failure.
StampBoard* mapStampBoard(int fd);

}  // namespace talvoem::bench
