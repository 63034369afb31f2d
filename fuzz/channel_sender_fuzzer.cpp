// The service end of a channel against a peer sending any packets (input
// split at 0x1E), while the service reports a change after each packet. The
// peer must see the success reply first, the exit message exactly once and
// last, and between them notifications with consecutive types, each carrying
// its data: what the channel drops before it runs or discards at its end
// comes off the ends of the sequence, never out of its middle.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "FuzzSupport.h"
#include "OemJsonUtils.h"
#include "SocketOemPolicyCBServer.h"

using talvoem::fuzz::check;

namespace {

const std::string kSuccess = "{\"code\":0,\"msg\":\"success\"}\n";
const std::string kExit = "{\"cmd\":2}\n";
const std::string kPayload = "changed";

// Reads what the channel sends until its descriptor is closed.
std::vector<std::string> readAll(int fd) {
    std::vector<std::string> packets;
    std::string packet;
    for (;;) {
        talvoem::fuzz::Recv got = talvoem::fuzz::recvPacket(fd, packet);
        check(got != talvoem::fuzz::Recv::kTimeout, "the channel went silent without closing");
        if (got == talvoem::fuzz::Recv::kClosed) {
            return packets;
        }
        packets.push_back(packet);
    }
}

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

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    talvoem::fuzz::quietProcess();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    talvoem::fuzz::restartCallsAfterTimerSignals();
    int fds[2];
    check(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds) == 0, "no socketpair");
    auto* sender = new SocketOemPolicyCBServer(fds[0]);
    int result = -1;
    std::thread connection([&] { result = sender->observe(); });
    std::vector<std::string> received;
    std::thread peer([&] { received = readAll(fds[1]); });

    uint16_t type = 1;
    std::string payload = kPayload;
    for (const std::string& packet : talvoem::fuzz::splitPackets(data, size)) {
        // Once the channel has ended nobody reads: never wait for room.
        talvoem::fuzz::sendPacket(fds[1], packet, MSG_DONTWAIT);
        sender->onPolicyChanged(type++, &payload);
    }
    shutdown(fds[1], SHUT_WR);  // ends the channel if no packet did
    connection.join();
    check(result == 0, "observe() did not report a channel that ran");
    delete sender;
    close(fds[0]);  // the connection thread's part
    peer.join();
    close(fds[1]);
    expectInOrder(received);
    return 0;
}
