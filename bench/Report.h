#pragma once

#include <map>
#include <string>
#include <vector>

namespace talvoem::bench {

// Every sample of every figure, by key ("query1.lib.ops", ...), one value per
// repetition.
using Samples = std::map<std::string, std::vector<double>>;

// Machine, compiler, codec and the load average, on one line.
std::string describeMachine();
std::string loadAverage();

// The table: each figure's median and spread over the repetitions beside its
// reference (a floor, or another run of the library) and the ratio.
void printTable(const Samples& samples);

}  // namespace talvoem::bench
