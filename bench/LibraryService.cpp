// The library's side of every row: a service derived from
// SocketOemQueryServer, as an adopter writes one.
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include "ServiceRole.h"
#include "SocketOemQueryServer.h"
#include "Workload.h"

namespace talvoem::bench {

namespace {

// Hands the service's reports to the channel the library built.
class Forwarder : public IOemPolicyCB {
public:
    explicit Forwarder(IOemPolicyCB* channel) : channel_(channel) {}
    void onPolicyChanged(uint16_t type, std::string* data) override {
        channel_->onPolicyChanged(type, data);
    }

private:
    IOemPolicyCB* channel_;
};

class ForwardingFactory : public IOemPolicyCBFactory {
public:
    IOemPolicyCB* createCallback(IOemPolicyCB* channel) override { return new Forwarder(channel); }
};

// Answers every query with the same prepared envelope and reports changes
// to the live channel's callback. Locks: mutex_ guards callback_ and is held
// through a report, so the library cannot withdraw (and delete) the callback
// while it is in use. Lives for the whole process: connection threads are
// never joined.
class BenchService : public SocketOemQueryServer, public ServiceControl {
public:
    explicit BenchService(IOemPolicyCBFactory* factory) : SocketOemQueryServer(factory) {}

    int8_t queryPolicy(uint16_t, const std::string&, std::string* result) override {
        *result = queryAnswerText();
        return 0;
    }

    int8_t setPolicyCallback(IOemPolicyCB* cb) override {
        std::lock_guard<std::mutex> lock(mutex_);
        callback_ = cb;
        return 0;
    }

    bool report(bool) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (callback_ == nullptr) {
            return false;
        }
        callback_->onPolicyChanged(kNotifyType, &data_);
        return true;
    }

    bool setServing(bool, bool) override { return false; }

private:
    std::mutex mutex_;
    IOemPolicyCB* callback_ = nullptr;
    std::string data_ = policyDocumentText();
};

bool isListening(int fd) {
    int on = 0;
    socklen_t len = sizeof(on);
    return getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &on, &len) == 0 && on != 0;
}

}  // namespace

int runLibraryService(StampBoard* board) {
    const char* env = getenv("ANDROID_SOCKET_talvoem");
    if (env == nullptr) {
        fprintf(stderr, "talvoem-bench service: no control socket\n");
        return 1;
    }
    static ForwardingFactory factory;
    static BenchService* service = new BenchService(&factory);
    std::thread([] { service->init(); }).detach();
    // The bench holds the same socket: once it listens, connections queue in
    // its backlog until init() accepts them, also across a service restart.
    while (!isListening(atoi(env))) {
        usleep(1000);
    }
    printf("ready\n");
    fflush(stdout);
    return runCommandLoop(*service, board);
}

}  // namespace talvoem::bench
