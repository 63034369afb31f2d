#pragma once

#include <sys/resource.h>

#include <vector>

namespace talvoem::test {

// While alive, no descriptor is free: the limit is lowered to the highest one
// open and the gaps below it are filled, so socket() and accept() fail with
// EMFILE. The destructor gives everything back.
class DescriptorsExhausted {
public:
    DescriptorsExhausted();
    ~DescriptorsExhausted();
    DescriptorsExhausted(const DescriptorsExhausted&) = delete;
    DescriptorsExhausted& operator=(const DescriptorsExhausted&) = delete;

private:
    rlimit saved_ = {};
    std::vector<int> fillers_;
};

}  // namespace talvoem::test
