#pragma once

#include <cstdint>
#include <vector>

namespace talvoem::bench {

// The q-quantile (0..1) of `values` in microseconds, by the nearest-rank
// method; `values` are nanoseconds and get sorted. 0 when empty.
double quantileUs(std::vector<uint64_t>& values, double q);

// Median, minimum and maximum of one figure over the repetitions.
struct Spread {
    double median = 0;
    double min = 0;
    double max = 0;
};

Spread spreadOf(std::vector<double> values);

}  // namespace talvoem::bench
