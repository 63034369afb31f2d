#include "SocketOemQueryClient.h"

#include "SocketOemPolicyCBClient.h"
#include "talvoem/Log.h"

namespace {
// A success envelope holding the empty policy document, without a line end.
constexpr const char* kFixedAnswer = "{\"code\":0,\"data\":\"[]\",\"msg\":\"success\"}";
}  // namespace

SocketOemQueryClient::SocketOemQueryClient() : channel_(nullptr) {}

SocketOemQueryClient::~SocketOemQueryClient() = default;

int8_t SocketOemQueryClient::queryPolicy(uint16_t, const std::string&, std::string* result) {
    TALVOEM_LOGD("Skip interaction with servcie");
    if (result != nullptr) {
        *result = kFixedAnswer;
    }
    return 0;
}

int8_t SocketOemQueryClient::setPolicyCallback(IOemPolicyCB*) {
    TALVOEM_LOGD("Skip interaction with servcie");
    return 0;
}

int SocketOemQueryClient::observePolicyCallback(IOemPolicyCB* cb) {
    if (cb == nullptr) {
        TALVOEM_LOGE("could not set callback, because it is null.");
        return 11;
    }
    // Every failed observe() (a receive thread that could not start
    // included) has already ended what it registered, so the channel goes.
    channel_ = new SocketOemPolicyCBClient(cb);
    int result = channel_->observe();
    if (result != 0) {
        delete channel_;
        channel_ = nullptr;
    }
    return result;
}

void SocketOemQueryClient::disposePolicyCallback() {
    if (channel_ == nullptr) {
        return;
    }
    channel_->dispose();
    delete channel_;
    channel_ = nullptr;
}
