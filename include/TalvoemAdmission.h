#pragma once

#include <cstddef>
#include <functional>

#include "TalvoemConnection.h"

class SocketOemQueryServer;

// Who may connect to a service at all, decided by its listener right after
// accept, before any thread is made for the connection. Opt-in: a server
// without a rule admits every connection and counts none.
namespace talvoem {

struct AdmissionRule {
    // Called on the listener thread with each new connection's caller (its
    // securityContext read already); false refuses the connection. It must
    // be quick and must not block: no other connection is accepted
    // meanwhile. Empty: every caller. A rule that throws refuses.
    std::function<bool(const CallerCredentials&)> admits;
    // The most connections one uid may hold open at once, channels and
    // connections still being served included; 0: no cap. A connection
    // counts from its accept until its thread has closed it.
    size_t maxConnectionsPerUid = 0;
};

// Installs `rule` for `server`, to take effect at its next init(), which
// reads it once as it starts; replaces an earlier rule. A rule with neither
// a predicate nor a cap removes it. A refused connection is closed at once,
// unanswered; refusals are logged once an episode (from the first refusal to
// the next connection admitted): a warning naming the first refused uid and
// why, and an info line with the count. The rule goes with the server object.
// Safe from any thread.
void setAdmissionRule(SocketOemQueryServer* server, AdmissionRule rule);

}  // namespace talvoem
