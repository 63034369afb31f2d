#include "server/AdmissionRegistry.h"

#include <map>
#include <utility>

#include "talvoem/ScopedLock.h"

namespace {

// The installed rules, keyed by server. SocketOemQueryServer's data members
// are fixed, so its rule lives here. Never destroyed: a server with static
// storage may be destroyed after this file's statics would be.
struct Registry {
    talvoem::Mutex mutex;
    std::map<const SocketOemQueryServer*, std::shared_ptr<const talvoem::AdmissionRule>> rules
        TALVOEM_GUARDED_BY(mutex);
};

Registry& registry() {
    static Registry* instance = new Registry;
    return *instance;
}

}  // namespace

namespace talvoem {

void setAdmissionRule(SocketOemQueryServer* server, AdmissionRule rule) {
    Registry& r = registry();
    if (!rule.admits && rule.maxConnectionsPerUid == 0) {
        server::forgetAdmissionRule(server);
        return;
    }
    auto installed = std::make_shared<const AdmissionRule>(std::move(rule));
    talvoem::ScopedLock lock(r.mutex);
    r.rules[server] = std::move(installed);
}

}  // namespace talvoem

namespace talvoem::server {

std::shared_ptr<const AdmissionRule> admissionRuleFor(const SocketOemQueryServer* server) {
    Registry& r = registry();
    talvoem::ScopedLock lock(r.mutex);
    auto found = r.rules.find(server);
    return found == r.rules.end() ? nullptr : found->second;
}

void forgetAdmissionRule(const SocketOemQueryServer* server) {
    Registry& r = registry();
    talvoem::ScopedLock lock(r.mutex);
    r.rules.erase(server);
}

}  // namespace talvoem::server
