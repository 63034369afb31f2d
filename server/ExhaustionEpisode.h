#pragma once

#include <chrono>

namespace talvoem::server {

// The listener's account of one resource running out: the descriptors or
// kernel memory an accept needs, or the threads that serve connections; or
// of admission, when the service's admission rule refuses connections. An
// episode is logged once when it starts, with the reason, and once when it
// ends, with how many times it struck meanwhile: a flood of connections must
// not become a flood of log lines.
//
// Threads: used by the listener thread alone; no lock.
class ExhaustionEpisode {
public:
    enum class Resource { kAccept, kConnectionThread, kAdmission };

    explicit ExhaustionEpisode(Resource resource) : resource_(resource) {}

    // One more failure for want of the resource (for kAdmission: one more
    // refusal); `reason` says why. The first failure of an episode logs its
    // start.
    void failed(const char* reason);
    // The resource was had again (a connection was admitted): ends an
    // episode in progress with its count.
    void succeeded();
    // The pause before trying again: 5 ms after an episode's first failure,
    // doubling with each further one, at most 100 ms.
    std::chrono::milliseconds backOff() const;

private:
    Resource resource_;
    int failures_ = 0;
};

}  // namespace talvoem::server
