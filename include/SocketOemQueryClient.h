#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "IOemQuery.h"

class SocketOemPolicyCBClient;

// The object an application holds. queryPolicy and setPolicyCallback answer at
// once without contacting the service; the policy-callback channel is the
// live path.
//
// Threads and locks: observePolicyCallback and disposePolicyCallback are
// called from one thread at a time; the channel pointer takes no lock.
//
// Ownership: the client owns its channel; the application's callback is
// borrowed. Call disposePolicyCallback() before observing again (a channel
// still held is replaced without being disposed of or deleted) and before
// destroying the client (its destructor leaves the channel alone).
class SocketOemQueryClient : public IOemQuery {
public:
    SocketOemQueryClient();
    ~SocketOemQueryClient() override;

    // Writes the fixed answer {"code":0,"data":"[]","msg":"success"}; returns 0.
    int8_t queryPolicy(uint16_t type, const std::string& data, std::string* result) override;
    // Contacts nobody and does not keep `cb`; returns 0.
    int8_t setPolicyCallback(IOemPolicyCB* cb) override;
    // Opens a channel delivering to `cb`: 0, 11 for a null callback, or the
    // channel's observe() result, 5 included when its receive thread could
    // not be created; after any failure the client holds no channel and the
    // service none for it. A thread that cannot be created throws nothing.
    int observePolicyCallback(IOemPolicyCB* cb);
    // Ends and deletes the channel held, if any.
    void disposePolicyCallback();

private:
    SocketOemPolicyCBClient* channel_;
    // Kept for the class's layout; it guards nothing (see above).
    std::mutex mutex_;
};
