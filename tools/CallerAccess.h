#pragma once

#include <sys/types.h>

#include <mutex>
#include <set>
#include <string>

// Which callers talvoemd serves, from its command line, and how it logs the
// ones it refuses.

// The uids allowed to do one thing; `everyone` unless a list was given.
struct UidList {
    bool everyone = true;
    std::set<uid_t> uids;
    // Whether a caller of `uid` may; `known` false (no caller known) only
    // when everyone may.
    bool allows(bool known, uid_t uid) const { return everyone || (known && uids.count(uid) > 0); }
};

// Reads "0,1000,10057" (decimal uids, comma-separated, none empty) into
// `list`, which then no longer allows everyone; false, leaving it alone, on
// anything else.
bool parseUidList(const std::string& text, UidList& list);

// talvoemd's refusals of one kind, logged once an episode: the first refusal
// names its uid, the next thing granted ends the episode with the count, so
// a caller retrying in a loop cannot flood the log.
//
// Threads: refused() and granted() run on the library's connection threads,
// many at once; mutex_ guards refusals_.
class RefusalEpisode {
public:
    enum class Kind { kQuery, kChannel };

    explicit RefusalEpisode(Kind kind) : kind_(kind) {}
    void refused(uid_t uid);
    void granted();

private:
    const Kind kind_;
    std::mutex mutex_;
    int refusals_ = 0;
};
