// The client end of a channel against a service sending any packets (input
// split at 0x1E; the first is the answer to the registration). A fake service
// listens at /dev/socket/talvoem, in a mount namespace of the fuzzer's own.
// observe() must return what the answer calls for; then every notification up
// to an exit message or a lost connection (an empty packet) reaches the
// application exactly once, a lost connection once as type 100, and nothing
// after an exit message.
#include <fcntl.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
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

using talvoem::fuzz::check;

namespace {

constexpr const char* kPath = "/dev/socket/talvoem";
const std::string kRegister = "{\"api\":\"setPolicyCallback\",\"type\":1}\n";
const std::string kDispose = "{\"api\":\"setPolicyCallback\",\"type\":2}\n";
const std::string kExit = "{\"cmd\":2}\n";
constexpr uint16_t kConnectionLost = 100;

using Deliveries = std::map<uint16_t, int>;

// The application's callback. Deliveries run on detached threads, so it lives
// for the whole process.
class Application : public IOemPolicyCB {
public:
    void onPolicyChanged(uint16_t type, std::string* data) override {
        check(data == nullptr, "a delivery carried data");
        std::lock_guard<std::mutex> lock(mutex_);
        ++received_[type];
        ++total_;
        changed_.notify_all();
    }
    // Waits for `expected` (by type) and returns what came; resets for the
    // next input.
    Deliveries take(const Deliveries& expected) {
        int want = 0;
        for (const auto& entry : expected) {
            want += entry.second;
        }
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(10), [&] { return total_ >= want; });
        Deliveries got;
        got.swap(received_);
        total_ = 0;
        return got;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    Deliveries received_;
    int total_ = 0;
};

// A fresh tmpfs on /dev/socket in a private mount namespace: the fuzzer
// neither touches the machine's sockets nor meets another fuzzer's.
void enterPrivateSocketDir() {
    check(unshare(CLONE_NEWNS) == 0, "unshare(CLONE_NEWNS) failed (run as root)");
    check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount private");
    mkdir("/dev/socket", 0755);
    check(mount("tmpfs", "/dev/socket", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") == 0,
          "tmpfs on /dev/socket");
}

int listener() {
    static int fd = [] {
        unlink(kPath);
        int s = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        strncpy(addr.sun_path, kPath, sizeof(addr.sun_path) - 1);
        check(bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0, "bind");
        check(listen(s, 4) == 0, "listen");
        return s;
    }();
    return fd;
}

int acceptClient() {
    check(talvoem::fuzz::waitReadable(listener(), std::chrono::seconds(10)),
          "the client did not connect");
    int fd = accept(listener(), nullptr, nullptr);
    check(fd >= 0, "accept");
    return fd;
}

// What observe() returns for this answer to the registration.
int expectedObserve(const std::string& answer) {
    if (answer.empty()) {
        return 3;
    }
    OemJsonUtils::Resp resp;
    return OemJsonUtils::fromJson(answer, resp) != 0 ? 4 : resp.code;
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
        plan.deliveries[msg.type] += msg.cmd == 1 ? 1 : 0;
    }
    for (auto it = plan.deliveries.begin(); it != plan.deliveries.end();) {
        it = it->second == 0 ? plan.deliveries.erase(it) : std::next(it);
    }
    return plan;
}

// Reads the request the client must send next; a broken expectation says
// what came instead, since a timeout and a wrong text point at different
// faults.
void expectRequest(int conn, const std::string& expected, const char* missing) {
    using talvoem::fuzz::Recv;
    std::string request;
    const Recv got = talvoem::fuzz::recvPacket(conn, request);
    std::string what = missing;
    if (got == Recv::kTimeout) {
        what += " (nothing within 10 s)";
    } else if (got == Recv::kClosed) {
        what += " (connection closed)";
    } else {
        what += " (got: " + request + ")";
    }
    check(got == Recv::kData && request == expected, what.c_str());
}

// Disposes of a channel still open: answers its dispose request with the
// exit message, as the service would.
void disposeOpenChannel(SocketOemPolicyCBClient& client, int conn) {
    std::thread disposer([&] { client.dispose(); });
    expectRequest(conn, kDispose, "dispose() sent no dispose request");
    talvoem::fuzz::sendPacket(conn, kExit);
    disposer.join();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    talvoem::fuzz::quietProcess();
    enterPrivateSocketDir();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    talvoem::fuzz::restartCallsAfterTimerSignals();
    static Application& app = *new Application;
    const std::vector<std::string> packets = talvoem::fuzz::splitPackets(data, size);
    auto* client = new SocketOemPolicyCBClient(&app);
    int result = -1;
    listener();
    std::thread observer([&] { result = client->observe(); });
    int conn = acceptClient();
    expectRequest(conn, kRegister, "observe() sent no registration");
    talvoem::fuzz::sendPacket(conn, packets[0]);
    observer.join();
    check(result == expectedObserve(packets[0]), "observe() result does not fit the answer");

    Plan plan = result == 0 ? planFor(packets) : Plan{};
    // The client reads every packet up to its end, so these sends never wait
    // for long; what would follow its end nobody reads and is not sent.
    for (size_t i = 1; i < plan.packets; ++i) {
        talvoem::fuzz::sendPacket(conn, packets[i]);
    }
    if (result == 0 && !plan.endsByItself) {
        disposeOpenChannel(*client, conn);
    } else {
        client->dispose();
    }
    check(app.take(plan.deliveries) == plan.deliveries, "deliveries do not fit the packets");
    delete client;
    close(conn);
    return 0;
}
