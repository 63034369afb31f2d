#include "server/ExhaustionEpisode.h"

#include <algorithm>

#include "talvoem/Log.h"

namespace talvoem::server {

void ExhaustionEpisode::failed(const char* reason) {
    if (failures_++ > 0) {
        return;
    }
    switch (resource_) {
        case Resource::kAccept:
            TALVOEM_LOGE("Server cannot accept connections, error - %s; retrying with back-off",
                         reason);
            break;
        case Resource::kConnectionThread:
            TALVOEM_LOGE(
                "Server cannot start connection threads, error - %s; closing new connections",
                reason);
            break;
        case Resource::kAdmission:
            TALVOEM_LOGW("Server refuses connections: %s; closing refused connections", reason);
            break;
    }
}

void ExhaustionEpisode::succeeded() {
    if (failures_ == 0) {
        return;
    }
    switch (resource_) {
        case Resource::kAccept:
            TALVOEM_LOGI("Server accepts connections again after %d failed accepts", failures_);
            break;
        case Resource::kConnectionThread:
            TALVOEM_LOGI("Server starts connection threads again after closing %d connections",
                         failures_);
            break;
        case Resource::kAdmission:
            TALVOEM_LOGI("Server admits connections again after refusing %d connections",
                         failures_);
            break;
    }
    failures_ = 0;
}

std::chrono::milliseconds ExhaustionEpisode::backOff() const {
    constexpr int kFirstMs = 5;
    constexpr int kLongestMs = 100;
    // Shifted at most 5 places: 5 << 5 is already past the longest pause.
    const int doublings = std::clamp(failures_ - 1, 0, 5);
    return std::chrono::milliseconds(std::min(kFirstMs << doublings, kLongestMs));
}

}  // namespace talvoem::server
