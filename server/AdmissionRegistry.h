#pragma once

#include <memory>

#include "TalvoemAdmission.h"

namespace talvoem::server {

// The rule setAdmissionRule installed for `server`; null when none. Taken
// by init() once, as it starts: a rule installed later waits for the next
// init().
std::shared_ptr<const AdmissionRule> admissionRuleFor(const SocketOemQueryServer* server);

// Drops the rule installed for `server`: its destructor calls this, so a
// later server at the same address starts without one.
void forgetAdmissionRule(const SocketOemQueryServer* server);

}  // namespace talvoem::server
