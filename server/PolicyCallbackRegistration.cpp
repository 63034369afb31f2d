#include <chrono>
#include <memory>
#include <mutex>

#include "OemJsonUtils.h"
#include "SocketOemPolicyCBServer.h"
#include "SocketOemQueryServer.h"
#include "TalvoemProtocol.h"
#include "server/Envelope.h"
#include "talvoem/Log.h"
#include "talvoem/ScopedLock.h"

using talvoem::server::writeEnvelope;
namespace protocol = talvoem::protocol;

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
        writeEnvelope(response, protocol::kCodeNoCallbackFactory, "No callback factory");
        return 0;
    }
    if (type == protocol::kTypeRegister) {
        int result = observePolicyCallback(fd, factory_);
        if (result == 0) {
            // The channel has run and ended: nothing more goes on the wire.
            response.clear();
        } else {
            writeEnvelope(response, result, "Server failed to set policy callback.");
        }
        return 0;
    }
    if (type == protocol::kTypeDispose) {
        TALVOEM_LOGW("%s", kDisposeOnNewConnection);
        writeEnvelope(response, protocol::kCodeEmptyApi, kDisposeOnNewConnection);
        return 0;
    }
    TALVOEM_LOGD("Server not define such policy callback type.");
    writeEnvelope(response, protocol::kCodeFailed, "No such type");
    return 0;
}

int SocketOemQueryServer::observePolicyCallback(int fd, IOemPolicyCBFactory* factory) {
    // The deadline is taken on the monotonic clock, so wall-clock changes
    // neither shorten nor stretch the wait.
    if (!channelLock_.try_lock_until(std::chrono::steady_clock::now() + kChannelLockTimeout)) {
        TALVOEM_LOGE("Server already established a policy callback connection");
        return protocol::kCodeFailed;
    }
    ChannelHold hold(channelLock_);
    if (channel_ != nullptr) {
        TALVOEM_LOGE("Server already has a policy callback");
        return protocol::kCodeFailed;
    }
    // Take-down order, on every way out: the service loses the
    // callback first, then the callback goes, then the channel, and only then
    // is the lock released (by `hold`, declared first, destroyed last).
    std::unique_ptr<SocketOemPolicyCBServer> channel(new SocketOemPolicyCBServer(fd));
    channel_ = channel.get();
    struct ClearChannel {
        SocketOemPolicyCBServer*& field;
        ~ClearChannel() { field = nullptr; }
    } clearChannel{channel_};
    IOemPolicyCB* made = factory->createCallback(channel.get());
    if (made == nullptr) {
        TALVOEM_LOGE("Server failed to create callback from factory");
        return protocol::kCodeFailed;
    }
    if (made == channel.get()) {
        // A pass-through factory: deleting the callback would delete the
        // channel too, so the registration is refused before either is owned
        // twice or reaches the service.
        TALVOEM_LOGE("Server refused a callback from factory that is the channel itself");
        return protocol::kCodeFailed;
    }
    std::unique_ptr<IOemPolicyCB> callback(made);
    if (setPolicyCallback(callback.get()) != 0) {
        TALVOEM_LOGE("Server failed to set policy callback");
        return protocol::kCodeFailed;
    }
    struct WithdrawCallback {
        SocketOemQueryServer* server;
        ~WithdrawCallback() { server->setPolicyCallback(nullptr); }
    } withdraw{this};
    return channel->observe();
}
