// The floors: what the library's service and client do, written minimally by
// hand with plain socket calls and jsoncpp, with the same bytes on the wire.
// The protocol's fixed texts come from the shared wire support; whatever the
// library builds per call, a floor builds per call with jsoncpp.
#include <json/json.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <deque>
#include <memory>
#include <thread>

#include "Bench.h"
#include "Wire.h"

namespace talvoem::bench::floor {

std::atomic<bool> servedInline{false};
std::atomic<bool> freshBuffers{false};

namespace {

// The same reader and writer as the library's codec.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

bool parse(const char* begin, const char* end, Json::Value& root) {
    Json::Reader reader;
    return reader.parse(begin, end, root, true) && root.isObject();
}

std::string write(const Json::Value& root) {
    Json::FastWriter writer;
    return writer.write(root);
}

#pragma GCC diagnostic pop

// A receive buffer reused from one packet to the next, large enough for
// every packet of the bench. `fresh` instead allocates a 512 KiB buffer per
// receive and copies the packet out, as the library's transport does.
class Receiver {
public:
    explicit Receiver(bool fresh = false) : fresh_(fresh) {}

    // One packet read as a JSON object; false at the end or on a bad text.
    bool receive(int fd, Json::Value& message) {
        if (!fresh_) {
            const ssize_t n = recv(fd, buffer_, sizeof(buffer_), 0);
            return n > 0 && parse(buffer_, buffer_ + n, message);
        }
        constexpr size_t kFreshSize = 512 * 1024;
        std::unique_ptr<char[]> fresh(new char[kFreshSize]);
        const ssize_t n = recv(fd, fresh.get(), kFreshSize, 0);
        if (n <= 0) {
            return false;
        }
        copy_.assign(fresh.get(), static_cast<size_t>(n));
        return parse(copy_.data(), copy_.data() + n, message);
    }

private:
    const bool fresh_;
    std::string copy_;
    char buffer_[64 * 1024];
};

int connectTo(const char* path) {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path, sizeof(addr.sun_path) - 1);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// The cheapest build of the channel's design: reporters queue finished
// texts, one send thread sends them in order and holds the mutex while it
// sends, as the library's sender does. Owned by the connection thread that
// serves the channel.
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

    void sendNow(const std::string& text) { test::sendRaw(fd_, text); }

    void stop() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            running_ = false;
            pending_.clear();
        }
        wakeUp_.notify_all();
        sender_.join();
        test::sendRaw(fd_, test::kExit);
    }

private:
    void loopSend() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            wakeUp_.wait(lock, [this] { return !pending_.empty() || !running_; });
            if (!running_) {
                return;
            }
            test::sendRaw(fd_, pending_.front());
            pending_.pop_front();
        }
    }

    const int fd_;
    std::mutex mutex_;
    std::condition_variable wakeUp_;
    std::deque<std::string> pending_;  // guarded by mutex_
    bool running_ = true;              // guarded by mutex_
    std::thread sender_;
};

// The live floor channel. The mutex is held through a report, so the
// channel cannot go while a report uses it. Never destroyed: connection
// threads are detached.
struct LiveChannel {
    std::mutex mutex;
    FloorChannel* channel = nullptr;  // guarded by mutex
};

LiveChannel& live() {
    static LiveChannel* instance = new LiveChannel;
    return *instance;
}

void attach(FloorChannel* channel) {
    std::lock_guard<std::mutex> lock(live().mutex);
    live().channel = channel;
}

// The channel is live before the reply goes out: the bench reports changes
// as soon as its client has the reply.
void serveChannel(int fd, Receiver& receiver) {
    FloorChannel channel(fd);
    attach(&channel);
    bool open = test::sendRaw(fd, test::kSuccess);
    Json::Value request;
    while (open && receiver.receive(fd, request)) {
        open = request["type"].asInt() != 2;
    }
    attach(nullptr);
    channel.stop();
}

// One receive, one answer, or a channel for its whole life.
void serveConnection(int fd, bool freshBuffer) {
    Receiver receiver(freshBuffer);
    Json::Value request;
    if (receiver.receive(fd, request)) {
        const std::string api = request["api"].asString();
        if (api == "queryPolicy") {
            test::sendRaw(fd, queryAnswerText());
        } else if (api == "setPolicyCallback" && request["type"].asInt() == 1) {
            serveChannel(fd, receiver);
        }
    }
    close(fd);
}

void acceptLoop(int listener) {
    for (;;) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        if (servedInline) {
            serveConnection(fd, freshBuffers);
        } else {
            std::thread(serveConnection, fd, freshBuffers.load()).detach();
        }
    }
}

// The client end: one receive thread that delivers each notification.
class FloorEnd : public ChannelEnd {
public:
    explicit FloorEnd(bool bare) : bare_(bare) {}
    ~FloorEnd() override {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

    bool open(IOemPolicyCB* cb) override {
        fd_ = connectTo(kFloorPath);
        Json::Value reply;
        if (fd_ < 0 || !test::sendRaw(fd_, test::kRegister) || !receiver_.receive(fd_, reply) ||
            reply["code"].asInt() != 0) {
            return false;
        }
        thread_ = std::thread([this, cb] { loopRecv(cb); });
        return true;
    }

    void close() override {
        if (thread_.joinable()) {
            test::sendRaw(fd_, test::kDispose);
            thread_.join();
        }
    }

private:
    void loopRecv(IOemPolicyCB* cb) {
        Json::Value message;
        while (receiver_.receive(fd_, message) && message["cmd"].asInt() != 2) {
            if (message["cmd"].asInt() != 1) {
                continue;
            }
            const auto type = static_cast<uint16_t>(message["type"].asInt());
            if (bare_) {
                cb->onPolicyChanged(type, nullptr);
            } else {
                std::thread([cb, type] { cb->onPolicyChanged(type, nullptr); }).detach();
            }
        }
    }

    const bool bare_;
    int fd_ = -1;
    Receiver receiver_;  // used by open(), then only by the receive thread
    std::thread thread_;
};

}  // namespace

bool start() {
    const int listener = test::bindPath(SOCK_SEQPACKET, kFloorPath);
    if (listener < 0 || listen(listener, 20) != 0) {
        return false;
    }
    std::thread(acceptLoop, listener).detach();
    return true;
}

bool report(bool bare) {
    std::lock_guard<std::mutex> lock(live().mutex);
    if (live().channel == nullptr) {
        return false;
    }
    Json::Value message;
    message["cmd"] = 1;
    message["type"] = kNotifyType;
    message["data"] = policyDocumentText();
    std::string text = write(message);
    if (bare) {
        live().channel->sendNow(text);
    } else {
        live().channel->enqueue(std::move(text));
    }
    return true;
}

bool query(bool freshBuffer) {
    const int fd = connectTo(kFloorPath);
    if (fd < 0) {
        return false;
    }
    Json::Value request;
    request["api"] = "queryPolicy";
    request["type"] = kQueryType;
    Receiver receiver(freshBuffer);
    Json::Value answer;
    const bool ok = test::sendRaw(fd, write(request)) && receiver.receive(fd, answer) &&
                    answer["code"].asInt() == 0 && answer["msg"].asString() == "success" &&
                    !answer["data"].asString().empty();
    close(fd);
    return ok;
}

std::unique_ptr<ChannelEnd> makeChannelEnd(bool bare) {
    return std::make_unique<FloorEnd>(bare);
}

}  // namespace talvoem::bench::floor
