#include <chrono>
#include <memory>
#include <mutex>

#include "OemJsonUtils.h"
#include "SocketOemPolicyCBServer.h"
#include "SocketOemQueryServer.h"
#include "server/Envelope.h"
#include "talvoem/Log.h"
#include "talvoem/ScopedLock.h"

using talvoem::server::writeEnvelope;

namespace {

constexpr auto kChannelLockTimeout = std::chrono::milliseconds(500);
constexpr const char* kDisposeOnNewConnection =
    "Dispose should send with an established callback connection";

}  // namespace

bool SocketOemQueryServer::ChannelLock::try_lock_until(
    std::chrono::steady_clock::time_point deadline) {
    talvoem::ScopedLock lock(mutex_);
    while (held_) {
        if (released_.wait_until(lock.native(), deadline) == std::cv_status::timeout && held_) {
            return false;
        }
    }
    held_ = true;
    return true;
}

void SocketOemQueryServer::ChannelLock::unlock() {
    {
        talvoem::ScopedLock lock(mutex_);
        held_ = false;
    }
    released_.notify_one();
}

int SocketOemQueryServer::handlePolicyCallback(int fd, uint16_t type, std::string& response) {
    if (factory_ == nullptr) {
        TALVOEM_LOGW("Server has no callback factory");
        writeEnvelope(response, 6, "No callback factory");
        return 0;
    }
    if (type == 1) {
        int result = observePolicyCallback(fd, factory_);
        if (result == 0) {
            // The channel has run and ended: nothing more goes on the wire.
            response.clear();
        } else {
            writeEnvelope(response, result, "Server failed to set policy callback.");
        }
        return 0;
    }
    if (type == 2) {
        TALVOEM_LOGW("%s", kDisposeOnNewConnection);
        writeEnvelope(response, 11, kDisposeOnNewConnection);
        return 0;
    }
    TALVOEM_LOGD("Server not define such policy callback type.");
    writeEnvelope(response, -1, "No such type");
    return 0;
}

int SocketOemQueryServer::observePolicyCallback(int fd, IOemPolicyCBFactory* factory) {
    // The deadline is taken on the monotonic clock, so wall-clock changes
    // neither shorten nor stretch the wait.
    if (!channelLock_.try_lock_until(std::chrono::steady_clock::now() + kChannelLockTimeout)) {
        TALVOEM_LOGE("Server already established a policy callback connection");
        return -1;
    }
    ChannelHold hold(channelLock_);
    if (channel_ != nullptr) {
        TALVOEM_LOGE("Server already has a policy callback");
        return -1;
    }
    // Take-down order, also when observe() throws: the service loses the
    // callback first, then the callback goes, then the channel, and only then
    // is the lock released (by `hold`, declared first, destroyed last).
    std::unique_ptr<SocketOemPolicyCBServer> channel(new SocketOemPolicyCBServer(fd));
    channel_ = channel.get();
    struct ClearChannel {
        SocketOemPolicyCBServer*& field;
        ~ClearChannel() { field = nullptr; }
    } clearChannel{channel_};
    std::unique_ptr<IOemPolicyCB> callback(factory->createCallback(channel.get()));
    if (!callback) {
        TALVOEM_LOGE("Server failed to create callback from factory");
        return -1;
    }
    if (setPolicyCallback(callback.get()) != 0) {
        TALVOEM_LOGE("Server failed to set policy callback");
        return -1;
    }
    struct WithdrawCallback {
        SocketOemQueryServer* server;
        ~WithdrawCallback() { server->setPolicyCallback(nullptr); }
    } withdraw{this};
    return channel->observe();
}
