#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "OemJsonUtils.h"

// A real one-shot query of the service, beside SocketOemQueryClient (whose
// queryPolicy answers a fixed text without contacting anyone).
namespace talvoem {

// How a query ended. Only kAnswered carries the service's envelope; its code
// may still be non-zero (the service refused or found nothing).
enum class QueryResult {
    kAnswered,             // the answer decoded as an envelope
    kNoService,            // nothing listens at the path (after the connect retries)
    kClosedWithoutAnswer,  // the service closed the connection without answering
    kTimedOut,             // the deadline passed: the service did not take the connection
                           // (its backlog full, e.g. stopped) or did not answer
    kAnswerCut,            // the answer was longer than the receive limit and arrived cut
    kNotEnvelope,          // the answer was not a response envelope
    kLocalFailure,         // failed on this side: the request is longer than the receive
                           // limit or than the socket can send, or sockets or memory ran out
};

constexpr std::chrono::milliseconds kDefaultQueryTimeout{5000};

struct QueryAnswer {
    QueryResult result = QueryResult::kNoService;
    // The decoded answer; meaningful for kAnswered only.
    OemJsonUtils::Resp envelope;
    // The bytes received, as they came (cut to the receive limit for
    // kAnswerCut); empty when nothing came.
    std::string text;
};

// Connects to /dev/socket/talvoem, sends a query request of `type` and `data`
// written by the codec, and waits for the one answer. A missing service is
// retried on the transport's schedule (20, 40, 80, 160, 320 ms). Never blocks
// longer than `timeout` in all, connecting included; zero or less times out
// at once. Safe to call from any number of threads at once: it keeps no state
// between calls, throws nothing and never raises SIGPIPE.
QueryAnswer queryService(uint16_t type, const std::string& data,
                         std::chrono::milliseconds timeout = kDefaultQueryTimeout);

// A short English sentence for `result`, for logs and command-line tools.
const char* describe(QueryResult result);

}  // namespace talvoem
