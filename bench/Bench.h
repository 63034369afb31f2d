#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "IOemPolicyCB.h"
#include "Service.h"

// The workload every row and floor shares, and the rows themselves. The
// library's service, the floors' service and every client run in this one
// process, on threads; each side times itself on the same steady clock.
namespace talvoem::bench {

constexpr uint16_t kQueryType = 1;
constexpr uint16_t kNotifyType = 7;
constexpr const char* kFloorPath = "/dev/socket/talvoem-floor";

// Built once, so the library and the floors put the same bytes on the wire:
// the success envelope the services answer with and the ~1 KiB policy
// document it carries, also every notification's data.
const std::string& queryAnswerText();
const std::string& policyDocumentText();

int64_t nowNs();

// Every figure by key ("query1.lib.p50", ...), one value per repetition.
using Samples = std::map<std::string, std::vector<double>>;

// `clients` threads run `op` back to back until `seconds` have passed or
// `maxOps` are done between them; each op is one round trip, false when it
// failed. Adds `key`.ops, .p50 and .p99; returns the failed ops.
size_t runQueries(Samples& samples, const std::string& key, const std::function<bool()>& op,
                  int clients, double seconds, size_t maxOps);
// A query through the library's transport and codec to the library service,
// written by hand; and the same through talvoem::queryService.
bool libraryQuery();
bool queryServiceCall();

enum class Channel {
    kLibrary,  // a SocketOemQueryClient to the library service
    kFloor,    // the channel's design by hand: send thread, thread per delivery
    kBare,     // by hand without either thread
};

// Opens a channel of `kind`, reports `count` changes on it from this thread
// (one every `intervalUs`, or flat out when 0), waits for every delivery to
// the application's callback and closes the channel. Latency runs from the
// report to the callback; the rate from the first report to the last
// delivery. Adds `key`.p50, .p99, .rate and .delivered; false when the
// channel did not open or a report found no channel. `library` is the
// library's service.
bool runNotifications(Samples& samples, const std::string& key, Channel kind,
                      test::TestService& library, size_t count, unsigned intervalUs);

// `cycles` times through the library's client: observePolicyCallback until
// it returns registered, then disposePolicyCallback until it returns. Adds
// `key`.setup.p50, .setup.p99, .teardown.p50 and .teardown.p99; returns the
// failed cycles.
size_t runChannelCycles(Samples& samples, const std::string& key, size_t cycles);

// One end of a policy-callback channel as the application sees it.
class ChannelEnd {
public:
    virtual ~ChannelEnd() = default;
    virtual bool open(IOemPolicyCB* cb) = 0;
    virtual void close() = 0;
};

// The floors, by hand with plain sockets and jsoncpp, nothing of the library.
// One floor service listens on kFloorPath for the rest of the process, its
// state never destroyed, since its connection threads are detached.
namespace floor {

// Starts the service; false when its socket could not be set up.
bool start();
// Reports one change on the live floor channel: through its send thread,
// or `bare`, sent on the calling thread. False when no channel is live.
bool report(bool bare);
// How the service serves queries: on the accepting thread instead of a
// thread per connection; with a fresh 512 KiB receive buffer per receive,
// as the library's transport has, instead of a reused one.
extern std::atomic<bool> servedInline;
extern std::atomic<bool> freshBuffers;

// A query round trip; false unless the answer is a success envelope with
// data. `freshBuffer` as for the service.
bool query(bool freshBuffer);
// The channel's client end: a receive thread that delivers each
// notification on a detached thread of its own or, `bare`, inline.
std::unique_ptr<ChannelEnd> makeChannelEnd(bool bare);

}  // namespace floor

}  // namespace talvoem::bench
