#include "server/AdmissionGate.h"

#include <exception>
#include <utility>

#include "talvoem/ScopedLock.h"

namespace talvoem::server {

bool UidCounts::take(uid_t uid, size_t most) {
    talvoem::ScopedLock lock(mutex_);
    size_t& open = open_[uid];
    if (open >= most) {
        return false;
    }
    ++open;
    return true;
}

void UidCounts::giveBack(uid_t uid) {
    talvoem::ScopedLock lock(mutex_);
    auto found = open_.find(uid);
    if (found != open_.end() && --found->second == 0) {
        open_.erase(found);  // the map holds only uids with connections open
    }
}

UidPlace& UidPlace::operator=(UidPlace&& other) noexcept {
    if (this != &other) {
        giveBack();
        counts_ = std::move(other.counts_);
        uid_ = other.uid_;
    }
    return *this;
}

void UidPlace::giveBack() {
    if (counts_ != nullptr) {
        counts_->giveBack(uid_);
        counts_.reset();
    }
}

AdmissionGate::AdmissionGate(std::shared_ptr<const AdmissionRule> rule)
    : rule_(std::move(rule)),
      counts_(rule_ != nullptr && rule_->maxConnectionsPerUid > 0 ? std::make_shared<UidCounts>()
                                                                  : nullptr),
      refusals_(ExhaustionEpisode::Resource::kAdmission) {}

bool AdmissionGate::admit(const CallerCredentials& caller, UidPlace& place) {
    if (rule_ == nullptr) {
        return true;
    }
    std::string why;
    try {
        why = judge(caller, place);
    } catch (const std::exception& e) {  // the service's predicate, or bad_alloc
        why = "uid " + std::to_string(caller.uid) + " could not be judged: " + e.what();
    }
    if (!why.empty()) {
        refusals_.failed(why.c_str());
        return false;
    }
    refusals_.succeeded();
    return true;
}

std::string AdmissionGate::judge(const CallerCredentials& caller, UidPlace& place) {
    if (rule_->admits && !rule_->admits(caller)) {
        return "uid " + std::to_string(caller.uid) + " is not admitted";
    }
    if (counts_ != nullptr) {
        if (!counts_->take(caller.uid, rule_->maxConnectionsPerUid)) {
            return "uid " + std::to_string(caller.uid) + " already holds " +
                   std::to_string(rule_->maxConnectionsPerUid) + " connections";
        }
        place = UidPlace(counts_, caller.uid);
    }
    return std::string();
}

}  // namespace talvoem::server
