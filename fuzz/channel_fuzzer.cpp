// Both ends of a policy-callback channel, each against a peer that sends the
// input's packets (split at 0x1E).
//
// The service end, while the service reports a change after each packet: the
// peer must see the success reply first, the exit message exactly once and
// last, and between them notifications with consecutive types, each carrying
// its data: what the channel drops before it runs or discards at its end
// comes off the ends of the sequence, never out of its middle.
//
// The client end, against a fake service at /dev/socket/talvoem (in a mount
// namespace of the fuzzer's own) whose first packet answers the registration:
// observe() must return what the answer calls for; then every notification up
// to an exit message or a lost connection (an empty packet) reaches the
// application exactly once, a lost connection once as type 100, and nothing
// after an exit message.
#include <errno.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "FuzzSupport.h"
#include "OemJsonUtils.h"
#include "SocketOemPolicyCBClient.h"
#include "SocketOemPolicyCBServer.h"
#include "Wire.h"

using talvoem::fuzz::check;
using namespace talvoem::test;

namespace {

const std::string kPayload = "changed";

void expectInOrder(const std::vector<std::string>& packets) {
    check(packets.size() >= 2 && packets.front() == kSuccess, "the reply is not first");
    check(packets.back() == kExit, "the exit message is not last");
    int previous = -1;
    for (size_t i = 1; i + 1 < packets.size(); ++i) {
        OemJsonUtils::SetPolicyCallback::Callback msg;
        check(OemJsonUtils::SetPolicyCallback::fromJson(packets[i], msg) == 0 && msg.cmd == 1,
              "a packet between reply and exit is not a notification");
        check(msg.data == kPayload, "a notification lost its data");
        check(previous < 0 || msg.type == previous + 1, "notifications out of order or missing");
        previous = msg.type;
    }
}

void serviceEnd(const std::vector<std::string>& packets) {
    int fds[2];
    check(seqpacketPair(fds), "no socketpair");
    std::vector<std::string> received;
    std::thread peer([&] {
        for (Packet p = recvRaw(fds[1]); p.status != Packet::kClosed; p = recvRaw(fds[1])) {
            check(p.status == Packet::kData, "the channel went silent without closing");
            received.push_back(p.bytes);
        }
    });
    {
        SocketOemPolicyCBServer channel(fds[0]);
        int result = -1;
        std::thread connection([&] { result = channel.observe(); });
        uint16_t type = 1;
        std::string payload = kPayload;
        for (const std::string& packet : packets) {
            // Once the channel has ended nobody reads: never wait for room.
            sendRaw(fds[1], packet, MSG_DONTWAIT);
            channel.onPolicyChanged(type++, &payload);
        }
        shutdown(fds[1], SHUT_WR);  // ends the channel if no packet did
        connection.join();
        check(result == 0, "observe() did not report a channel that ran");
    }
    close(fds[0]);  // the connection thread's part
    peer.join();
    close(fds[1]);
    expectInOrder(received);
}

using Deliveries = std::map<uint16_t, int>;

// The application's callback. Deliveries run on detached threads, so it lives
// for the whole process.
class Application : public IOemPolicyCB {
public:
    void onPolicyChanged(uint16_t type, std::string* data) override {
        check(data == nullptr, "a delivery carried data");
        std::lock_guard<std::mutex> lock(mutex_);
        ++received_[type];
        changed_.notify_all();
    }
    // Waits up to 10 s for `expected` (by type) and returns what came; resets
    // for the next input.
    Deliveries take(const Deliveries& expected) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(10), [&] { return received_ == expected; });
        Deliveries got;
        got.swap(received_);
        return got;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    Deliveries received_;
};

// The fake service; its accept, like every wait here, gives up after 10 s.
int listener() {
    static const int fd = [] {
        const int s = bindPath();
        const timeval limit = {10, 0};
        check(s >= 0 && listen(s, 4) == 0 &&
                  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) == 0,
              "the fake service cannot listen");
        return s;
    }();
    return fd;
}

// What observe() returns for this answer to the registration.
int expectedObserve(const std::string& answer) {
    OemJsonUtils::Resp resp;
    return answer.empty() ? 3 : OemJsonUtils::fromJson(answer, resp) != 0 ? 4 : resp.code;
}

// The deliveries the packets after the answer call for, and how many of them
// the client reads: up to an exit message or an empty packet (a lost
// connection), or all of them.
struct Plan {
    Deliveries deliveries;
    size_t packets = 0;
    bool endsByItself = false;
};

Plan planFor(const std::vector<std::string>& packets) {
    Plan plan;
    for (size_t i = 1; i < packets.size() && !plan.endsByItself; ++i) {
        plan.packets = i + 1;
        if (packets[i].empty()) {
            ++plan.deliveries[kConnectionLost];
            plan.endsByItself = true;
            continue;
        }
        OemJsonUtils::SetPolicyCallback::Callback msg;
        OemJsonUtils::SetPolicyCallback::fromJson(packets[i], msg);
        plan.endsByItself = msg.cmd == 2;
        if (msg.cmd == 1) {
            ++plan.deliveries[msg.type];
        }
    }
    return plan;
}

// Reads the request the client must send next; a broken expectation says
// what came instead, since a timeout and a wrong text point at different
// faults.
void expectRequest(int conn, const std::string& expected, const char* missing) {
    const Packet got = recvRaw(conn);
    const std::string what =
        std::string(missing) + (got.status == Packet::kTimeout  ? " (nothing within 10 s)"
                                : got.status == Packet::kClosed ? " (connection closed)"
                                                                : " (got: " + got.bytes + ")");
    check(got.status == Packet::kData && got.bytes == expected, what.c_str());
}

void clientEnd(const std::vector<std::string>& packets) {
    static Application& app = *new Application;
    SocketOemPolicyCBClient client(&app);
    int result = -1;
    const int service = listener();  // before observe() connects
    std::thread observer([&] { result = client.observe(); });
    int conn;
    do {  // a timed accept is not restarted after a signal
        conn = accept(service, nullptr, nullptr);
    } while (conn < 0 && errno == EINTR);
    check(conn >= 0, "observe() did not connect within 10 s");
    expectRequest(conn, kRegister, "observe() sent no registration");
    sendRaw(conn, packets[0]);
    observer.join();
    check(result == expectedObserve(packets[0]), "observe() result does not fit the answer");

    const Plan plan = result == 0 ? planFor(packets) : Plan{};
    // The client reads every packet up to its end, so these sends never wait
    // for long; what would follow its end nobody reads and is not sent.
    for (size_t i = 1; i < plan.packets; ++i) {
        sendRaw(conn, packets[i]);
    }
    if (result == 0 && !plan.endsByItself) {
        // Still open: answer the dispose request with the exit message, as
        // the service would.
        std::thread disposer([&] { client.dispose(); });
        expectRequest(conn, kDispose, "dispose() sent no dispose request");
        sendRaw(conn, kExit);
        disposer.join();
    } else {
        client.dispose();
    }
    check(app.take(plan.deliveries) == plan.deliveries, "deliveries do not fit the packets");
    close(conn);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    talvoem::fuzz::quietProcess();
    check(enterPrivateSocketDir(), "no private /dev/socket (run as root)");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    talvoem::fuzz::restartCallsAfterTimerSignals();
    const std::vector<std::string> packets = talvoem::fuzz::splitPackets(data, size);
    serviceEnd(packets);
    clientEnd(packets);
    return 0;
}
