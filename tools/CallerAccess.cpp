#include "CallerAccess.h"

#include <android/log.h>
#include <stdlib.h>

namespace {

constexpr const char* kTag = "talvoemd";

}  // namespace

bool parseUidList(const std::string& text, UidList& list) {
    std::set<uid_t> uids;
    for (size_t at = 0; at <= text.size();) {
        size_t comma = text.find(',', at);
        comma = comma == std::string::npos ? text.size() : comma;
        const std::string number = text.substr(at, comma - at);
        // Too long a number saturates, and (uid_t)-1 is the kernel's "no uid".
        const unsigned long long uid = strtoull(number.c_str(), nullptr, 10);
        if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos ||
            uid >= static_cast<uid_t>(-1)) {
            return false;
        }
        uids.insert(static_cast<uid_t>(uid));
        at = comma + 1;
    }
    list.everyone = false;
    list.uids = std::move(uids);
    return true;
}

void RefusalEpisode::refused(uid_t uid) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (refusals_++ > 0) {
        return;
    }
    if (kind_ == Kind::kQuery) {
        __android_log_print(ANDROID_LOG_WARN, kTag,
                            "refused a query from uid %u (not in --query-uid); counting "
                            "refusals until a query is answered",
                            uid);
    } else {
        __android_log_print(ANDROID_LOG_WARN, kTag,
                            "refused the channel to uid %u (not in --watch-uid); counting "
                            "refusals until a channel opens",
                            uid);
    }
}

void RefusalEpisode::granted() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (refusals_ == 0) {
        return;
    }
    if (kind_ == Kind::kQuery) {
        __android_log_print(ANDROID_LOG_INFO, kTag, "a query answered after %d refused", refusals_);
    } else {
        __android_log_print(ANDROID_LOG_INFO, kTag, "a channel opened after %d refused", refusals_);
    }
    refusals_ = 0;
}
