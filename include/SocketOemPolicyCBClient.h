#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "IOemPolicyCB.h"
#include "TalvoemThreadAnnotations.h"

// The client end of one policy-callback channel: connects, registers, and
// passes each notification to the application's callback on a thread of its
// own (never the receive thread, never under the channel's lock). A lost
// service reaches the application once, as type 100.
//
// Threads: the application calls observe(), dispose(), isSameCallback() and
// the destructor; the receive thread runs loopRecv(); each delivery runs on a
// detached notify thread, which is not tracked: the application's callback
// must outlive every delivery, also after dispose() returns.
//
// Lock: mutex_ guards fd_, running_ and recvThread_ (callback_ never changes).
// observe() holds it throughout, connection retries included; the receive
// thread holds it except while it waits in recvMsg, so a delivery is handed to
// its thread under the lock. No other lock is taken while it is held.
//
// Ownership: the channel owns and closes its descriptor. The application's
// callback is borrowed, never deleted. Beyond the wire contract:
//  - after observe() fails with 2, 3 or 4 the descriptor is closed at once and
//    reset to -1, so a failed channel holds nothing and may observe again;
//  - the destructor disposes of a channel that is still open, joins a receive
//    thread that ended by itself (exit message or lost service) and was never
//    disposed of, so destroying it never calls std::terminate, and closes a
//    descriptor that no receive loop will close (its thread could not start).
class SocketOemPolicyCBClient : public IOemPolicyCB {
public:
    explicit SocketOemPolicyCBClient(IOemPolicyCB* cb);
    ~SocketOemPolicyCBClient() override;

    // 0 when registered; -1 when already connected; 1 no service; 2 the request
    // was not sent; 3 no reply; 4 the reply was not an envelope; otherwise the
    // service's refusing code. Throws std::system_error if the receive thread
    // cannot be created.
    int observe() TALVOEM_EXCLUDES(mutex_);
    // Asks the service to end the channel and waits for the receive thread.
    void dispose() TALVOEM_EXCLUDES(mutex_);
    // Hands one delivery to a new detached thread.
    void onPolicyChanged(uint16_t type, std::string* data) override;
    static void clientHandlerThread(SocketOemPolicyCBClient* self);
    void loopRecv() TALVOEM_EXCLUDES(mutex_);
    static void notifyHandlerThread(IOemPolicyCB* cb, uint16_t type, std::string* data);
    // Closes the descriptor and sets it to -1; the caller holds the lock.
    void resetSocketFd() TALVOEM_REQUIRES(mutex_);
    // True for the channel's own (non-null) callback while the loop runs.
    bool isSameCallback(IOemPolicyCB* cb) TALVOEM_EXCLUDES(mutex_);

private:
    // Starts a delivery; a thread that cannot be created costs that one
    // delivery, not the receive loop. The loop hands notifications over with
    // the lock held and the lost-connection report after releasing it, so this
    // carries no lock annotation either way.
    void deliver(uint16_t type);

    int fd_ TALVOEM_GUARDED_BY(mutex_);
    IOemPolicyCB* callback_;
    talvoem::Mutex mutex_;
    std::shared_ptr<std::thread> recvThread_ TALVOEM_GUARDED_BY(mutex_);
    bool running_ TALVOEM_GUARDED_BY(mutex_);
};
