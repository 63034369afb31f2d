#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>

#include "TalvoemAdmission.h"
#include "server/ExhaustionEpisode.h"
#include "talvoem/ThreadAnnotations.h"

namespace talvoem::server {

// How many connections each uid holds open. Shared by the listener, which
// takes a place for each connection it admits, and by the connection
// threads, which give theirs back as they end, possibly after init() has
// returned: whoever holds the last reference deletes it. mutex_ guards open_.
class UidCounts {
public:
    // Counts one more connection of `uid` unless it already holds `most`.
    bool take(uid_t uid, size_t most) TALVOEM_EXCLUDES(mutex_);
    void giveBack(uid_t uid) TALVOEM_EXCLUDES(mutex_);

private:
    Mutex mutex_;
    std::unordered_map<uid_t, size_t> open_ TALVOEM_GUARDED_BY(mutex_);
};

// One admitted connection's place in its uid's count, given back once, when
// it goes or by giveBack(). Moved from the listener into the connection's
// thread; empty when no cap is in force.
class UidPlace {
public:
    UidPlace() = default;
    UidPlace(std::shared_ptr<UidCounts> counts, uid_t uid)
        : counts_(std::move(counts)), uid_(uid) {}
    ~UidPlace() { giveBack(); }
    UidPlace(UidPlace&& other) noexcept = default;
    UidPlace& operator=(UidPlace&& other) noexcept;
    UidPlace(const UidPlace&) = delete;
    UidPlace& operator=(const UidPlace&) = delete;

    void giveBack();

private:
    std::shared_ptr<UidCounts> counts_;
    uid_t uid_ = 0;
};

// The listener's door: the admission rule installed for its server when
// init() started, and the per-uid counts. Without a rule it admits every
// connection and counts none. Threads: admit() runs on the listener alone;
// the counts are shared as UidCounts says.
class AdmissionGate {
public:
    explicit AdmissionGate(std::shared_ptr<const AdmissionRule> rule);

    // Whether a rule is in force: only then does the listener read each
    // caller's context at accept, for the rule to judge.
    bool active() const { return rule_ != nullptr; }

    // True when `caller`'s connection may be served; `place` then holds its
    // place in its uid's count. A refusal is counted in the episode.
    bool admit(const CallerCredentials& caller, UidPlace& place);

private:
    // Empty when admitted, otherwise why not.
    std::string judge(const CallerCredentials& caller, UidPlace& place);

    std::shared_ptr<const AdmissionRule> rule_;
    std::shared_ptr<UidCounts> counts_;
    ExhaustionEpisode refusals_;
};

}  // namespace talvoem::server
