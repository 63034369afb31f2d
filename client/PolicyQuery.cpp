#include "TalvoemPolicyQuery.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <memory>
#include <new>
#include <thread>

#include "TalvoemProtocol.h"
#include "json/JsonText.h"
#include "talvoem/UniqueFd.h"
#include "transport/SendBuffer.h"

// Every wait of a query is bounded by one deadline: the connect (which blocks
// while the listener's backlog is full, as it is for a stopped service) and the
// send by SO_SNDTIMEO set to the time left, the receive by poll. Nothing here
// is shared between calls, so any number of threads may query at once.
namespace talvoem {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kServicePath = "/dev/socket/talvoem";
// The transport's retry schedule: up to six attempts, 20 ms apart at first and
// doubling, each sleep cut short at the deadline.
constexpr int kConnectAttempts = 6;
constexpr std::chrono::milliseconds kFirstRetryInterval{20};
// No send buffer is smaller than this; a larger request needs it raised.
constexpr size_t kAlwaysFits = 4096;

QueryAnswer ended(QueryResult result) {
    QueryAnswer answer;
    answer.result = result;
    return answer;
}

std::chrono::microseconds timeLeft(Clock::time_point deadline) {
    return std::max(std::chrono::microseconds::zero(),
                    std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()));
}

// Bounds connect and send on `fd` (borrowed) by the time left; false when
// none is left (a zero SO_SNDTIMEO would mean no bound at all).
bool boundSends(int fd, Clock::time_point deadline) {
    const std::chrono::microseconds left = timeLeft(deadline);
    if (left.count() == 0) {
        return false;
    }
    timeval tv = {};
    tv.tv_sec = static_cast<time_t>(left.count() / 1000000);
    tv.tv_usec = static_cast<suseconds_t>(left.count() % 1000000);
    return setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) == 0;
}

enum class Attempt { kConnected, kAbsent, kBusy, kNoSocket };

// One connect, bounded by the deadline; `fd` receives the connected socket.
// A listener whose backlog stays full until the deadline is kBusy.
Attempt connectOnce(UniqueFd& fd, Clock::time_point deadline) {
    fd.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) {
        return Attempt::kNoSocket;
    }
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, kServicePath, sizeof(addr.sun_path) - 1);
    for (;;) {
        if (!boundSends(fd.get(), deadline)) {
            return Attempt::kBusy;
        }
        if (connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) {
            return Attempt::kConnected;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return Attempt::kBusy;
        }
        if (errno != EINTR) {
            return Attempt::kAbsent;
        }
    }
}

// Connects within the deadline, retrying a missing service on the transport's
// schedule. kAnswered means connected.
QueryResult connectWithin(UniqueFd& fd, Clock::time_point deadline) {
    std::chrono::milliseconds interval = kFirstRetryInterval;
    for (int attempt = 1;; ++attempt) {
        const Attempt result = connectOnce(fd, deadline);
        if (result == Attempt::kConnected) {
            return QueryResult::kAnswered;
        }
        if (result == Attempt::kBusy) {
            return QueryResult::kTimedOut;
        }
        const std::chrono::microseconds left = timeLeft(deadline);
        if (attempt == kConnectAttempts || left.count() == 0) {
            return result == Attempt::kNoSocket ? QueryResult::kLocalFailure
                                                : QueryResult::kNoService;
        }
        std::this_thread::sleep_for(std::min<std::chrono::microseconds>(interval, left));
        interval *= 2;
    }
}

// Sends the whole request as one packet. MSG_NOSIGNAL: a service gone away is
// a result, never a signal.
QueryResult sendRequest(int fd, const std::string& request, Clock::time_point deadline) {
    if (request.size() > kAlwaysFits && request.size() > transport::raiseSendBuffer(fd)) {
        return QueryResult::kLocalFailure;
    }
    for (;;) {
        if (!boundSends(fd, deadline)) {
            return QueryResult::kTimedOut;
        }
        if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) >= 0) {
            return QueryResult::kAnswered;
        }
        switch (errno) {
            case EINTR:
                continue;
            case EAGAIN:
                return QueryResult::kTimedOut;
            case EPIPE:
            case ECONNRESET:
                return QueryResult::kClosedWithoutAnswer;
            default:
                return QueryResult::kLocalFailure;
        }
    }
}

// Waits for the one answer and receives it into `answer.text`. MSG_TRUNC in
// the returned flags tells an answer cut at the receive limit from one of
// exactly that length.
QueryResult receiveAnswer(int fd, Clock::time_point deadline, char* buffer, QueryAnswer& answer) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(timeLeft(deadline));
        pollfd pfd = {fd, POLLIN, 0};
        const int ready = poll(&pfd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return ready == 0 ? QueryResult::kTimedOut : QueryResult::kLocalFailure;
        }
        iovec iov = {buffer, protocol::kReceiveLimit};
        msghdr msg = {};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        const ssize_t n = recvmsg(fd, &msg, MSG_DONTWAIT);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        }
        if (n <= 0) {
            // ECONNRESET too: the service closed without reading all we sent.
            return QueryResult::kClosedWithoutAnswer;
        }
        answer.text.assign(buffer, static_cast<size_t>(n));
        return (msg.msg_flags & MSG_TRUNC) != 0 ? QueryResult::kAnswerCut : QueryResult::kAnswered;
    }
}

// An envelope is an object with a "code"; the codec's own reader would take
// any object as one, with code 0. Silent: the result says what went wrong.
bool readEnvelope(const std::string& text, OemJsonUtils::Resp& envelope) {
    return json::readRecord(text, nullptr, envelope,
                            [](const Json::Value& root, OemJsonUtils::Resp& read) {
                                return OemJsonUtils::hasValue(root, "code") &&
                                       json::readInt32(root, "code", read.code) &&
                                       json::readString(root, "msg", read.msg) &&
                                       json::readString(root, "data", read.data);
                            }) == 0;
}

QueryAnswer query(uint16_t type, const std::string& data, Clock::time_point deadline) {
    OemJsonUtils::QueryPolicy::Req req;
    req.api = protocol::kApiQueryPolicy;
    req.type = type;
    req.data = data;
    std::string request;
    // Taken before connecting: a query that cannot hold its answer is not sent.
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[protocol::kReceiveLimit]);
    if (!buffer || OemJsonUtils::QueryPolicy::toJson(req, request) != 0 ||
        request.size() > protocol::kReceiveLimit) {
        return ended(QueryResult::kLocalFailure);
    }
    UniqueFd fd;
    QueryResult result = connectWithin(fd, deadline);
    if (result == QueryResult::kAnswered) {
        result = sendRequest(fd.get(), request, deadline);
    }
    if (result != QueryResult::kAnswered) {
        return ended(result);
    }
    QueryAnswer answer;
    answer.result = receiveAnswer(fd.get(), deadline, buffer.get(), answer);
    if (answer.result == QueryResult::kAnswered && !readEnvelope(answer.text, answer.envelope)) {
        answer.result = QueryResult::kNotEnvelope;
    }
    return answer;
}

}  // namespace

QueryAnswer queryService(uint16_t type, const std::string& data,
                         std::chrono::milliseconds timeout) {
    try {
        return query(type, data, Clock::now() + timeout);
    } catch (...) {
        // Only memory can run out here (the request's text or the answer's copy).
        return ended(QueryResult::kLocalFailure);
    }
}

const char* describe(QueryResult result) {
    switch (result) {
        case QueryResult::kAnswered:
            return "the service answered";
        case QueryResult::kNoService:
            return "no service is listening at /dev/socket/talvoem";
        case QueryResult::kClosedWithoutAnswer:
            return "the service closed the connection without answering";
        case QueryResult::kTimedOut:
            return "the service did not answer in time";
        case QueryResult::kAnswerCut:
            return "the answer was longer than the receive limit and arrived cut";
        case QueryResult::kNotEnvelope:
            return "the answer was not a response envelope";
        case QueryResult::kLocalFailure:
            return "the query could not be made here (request too long, or out of sockets or "
                   "memory)";
    }
    return "unknown query result";
}

}  // namespace talvoem
