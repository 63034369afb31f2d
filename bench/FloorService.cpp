// The floors' service, written by hand: what the library's service does,
// minimally, with the same bytes on the wire.
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "FloorWire.h"
#include "ServiceRole.h"
#include "Workload.h"

namespace talvoem::bench {

namespace {

using floor::Receiver;

// The cheapest build of the channel's design: reporters queue finished texts
// under a mutex, one send thread sends them in order, holding the mutex
// while it sends as the library's sender does. Owned by the connection
// thread that serves the channel.
class FloorChannel {
public:
    explicit FloorChannel(int fd) : fd_(fd), sender_([this] { loopSend(); }) {}

    void enqueue(std::string text) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            pending_.push_back(std::move(text));
        }
        wakeUp_.notify_all();
    }

    void sendNow(const std::string& text) { floor::sendText(fd_, text); }

    void stop() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            running_ = false;
            pending_.clear();
        }
        wakeUp_.notify_all();
        sender_.join();
        Json::Value exit;
        exit["cmd"] = 2;
        floor::sendText(fd_, floor::write(exit));
    }

private:
    void loopSend() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            wakeUp_.wait(lock, [this] { return !pending_.empty() || !running_; });
            if (!running_) {
                return;
            }
            floor::sendText(fd_, pending_.front());
            pending_.pop_front();
        }
    }

    int fd_;
    std::mutex mutex_;
    std::condition_variable wakeUp_;
    std::deque<std::string> pending_;  // guarded by mutex_
    bool running_ = true;              // guarded by mutex_
    std::thread sender_;
};

// The floor's state as the bench steers it. Locks: mutex_ guards channel_
// and is held through a report, so the channel cannot go while in use; the
// serving modes are read once per connection.
class FloorControl : public ServiceControl {
public:
    void attach(FloorChannel* channel) {
        std::lock_guard<std::mutex> lock(mutex_);
        channel_ = channel;
    }

    bool report(bool bare) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (channel_ == nullptr) {
            return false;
        }
        Json::Value message;
        message["cmd"] = 1;
        message["type"] = kNotifyType;
        message["data"] = policyDocumentText();
        std::string text = floor::write(message);
        if (bare) {
            channel_->sendNow(text);
        } else {
            channel_->enqueue(std::move(text));
        }
        return true;
    }

    bool setServing(bool threadPerConnection, bool freshBuffer) override {
        threadPerConnection_ = threadPerConnection;
        freshBuffer_ = freshBuffer;
        return true;
    }

    bool threadPerConnection() const { return threadPerConnection_; }
    bool freshBuffer() const { return freshBuffer_; }

private:
    std::mutex mutex_;
    FloorChannel* channel_ = nullptr;
    std::atomic<bool> threadPerConnection_{true};
    std::atomic<bool> freshBuffer_{false};
};

FloorControl* control() {
    static FloorControl* instance = new FloorControl;  // outlives every thread
    return instance;
}

// The channel is live before the reply goes out: the bench reports changes
// as soon as its client has the reply.
void serveChannel(int fd, Receiver& receiver) {
    FloorChannel channel(fd);
    control()->attach(&channel);
    Json::Value reply;
    reply["code"] = 0;
    reply["msg"] = "success";
    bool open = floor::sendText(fd, floor::write(reply));
    while (open) {
        long n = receiver.receive(fd);
        Json::Value request;
        open = n > 0 && !(floor::parse(receiver.text(), receiver.text() + n, request) &&
                          request.isObject() && request["type"].asInt() == 2);
    }
    control()->attach(nullptr);
    channel.stop();
}

// One receive, one answer (or a channel for its whole life).
void serveConnection(int fd, bool freshBuffer) {
    Receiver receiver(freshBuffer);
    long n = receiver.receive(fd);
    Json::Value request;
    if (n > 0 && floor::parse(receiver.text(), receiver.text() + n, request) &&
        request.isObject()) {
        const std::string api = request["api"].asString();
        if (api == "queryPolicy") {
            floor::sendText(fd, queryAnswerText());
        } else if (api == "setPolicyCallback" && request["type"].asInt() == 1) {
            serveChannel(fd, receiver);
        }
    }
    close(fd);
}

void acceptLoop(int listener) {
    for (;;) {
        int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        const bool fresh = control()->freshBuffer();
        if (control()->threadPerConnection()) {
            std::thread(serveConnection, fd, fresh).detach();
        } else {
            serveConnection(fd, fresh);
        }
    }
}

}  // namespace

int runFloorService(StampBoard* board) {
    int listener = floor::listenOn(kFloorSocketPath);
    if (listener < 0) {
        perror("talvoem-bench floor: listen");
        return 1;
    }
    std::thread(acceptLoop, listener).detach();
    printf("ready\n");
    fflush(stdout);
    return runCommandLoop(*control(), board);
}

}  // namespace talvoem::bench
