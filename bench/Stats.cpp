#include "Stats.h"

#include <algorithm>
#include <cmath>

namespace talvoem::bench {

double quantileUs(std::vector<uint64_t>& values, double q) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    size_t rank = static_cast<size_t>(std::ceil(q * static_cast<double>(values.size())));
    size_t index = rank == 0 ? 0 : std::min(rank, values.size()) - 1;
    return static_cast<double>(values[index]) / 1000.0;
}

Spread spreadOf(std::vector<double> values) {
    Spread spread;
    if (values.empty()) {
        return spread;
    }
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    spread.median = n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
    spread.min = values.front();
    spread.max = values.back();
    return spread;
}

}  // namespace talvoem::bench
