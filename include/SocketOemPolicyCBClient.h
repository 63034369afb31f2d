#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
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
// Lock: mutex_ guards fd_, running_, recvThread_ and the two dispose flags
// (callback_ never changes); disposeEnded_ is signalled when a dispose ends.
// observe() holds it throughout, connection retries included; the receive
// thread holds it except while it waits in recvMsg, so a delivery is handed to
// its thread under the lock. No other lock is taken while it is held. Only
// the one dispose() under way (disposing_), observe() and the destructor join
// the receive thread, never two at once. owner_ is atomic, outside the lock
// (a forked child cannot trust its copy of the lock until it has adopted it).
//
// Ownership: the channel owns and closes its descriptor. The application's
// callback is borrowed, never deleted. Beyond the wire contract:
//  - after observe() fails with 2, 3 or 4 the descriptor is closed at once and
//    reset to -1, so a failed channel holds nothing and may observe again;
//  - dispose() may be called from any number of threads at once: one sends
//    the dispose request and joins the receive thread, the others wait for it
//    and return. When the request cannot be sent, dispose() shuts the
//    descriptor down to wake the loop, which then reports no type 100;
//  - in a forked child the channel is a copy whose receive thread does not
//    exist: the child's first call on it (dispose() and the destructor
//    included) closes the child's copy of the descriptor and forgets the
//    thread, sending nothing, so the parent's channel goes on as before;
//  - the destructor disposes of a channel that is still open and joins a
//    receive thread that ended by itself (exit message or lost service) and
//    was never disposed of, so destroying it never calls std::terminate.
class SocketOemPolicyCBClient : public IOemPolicyCB {
public:
    explicit SocketOemPolicyCBClient(IOemPolicyCB* cb);
    ~SocketOemPolicyCBClient() override;

    // observe()'s result when the receive thread could not be created (the
    // system is out of threads). The library's service never refuses with 5.
    static constexpr int kReceiveThreadNotStarted = 5;

    // 0 when registered; -1 when already connected; 1 no service; 2 the request
    // was not sent; 3 no reply; 4 the reply was not an envelope; 5
    // (kReceiveThreadNotStarted) the receive thread could not be created;
    // otherwise the service's refusing code. On 5 the registration the service
    // accepted has been ended (dispose request, up to a second's wait for the
    // exit message, close): nothing is held and nothing is thrown.
    int observe() TALVOEM_EXCLUDES(mutex_);
    // Asks the service to end the channel and waits for the receive thread;
    // from several threads at once, one asks and all wait.
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
    // Ends a registration that no receive loop will serve, and closes.
    void endRegistration() TALVOEM_REQUIRES(mutex_);
    // Returns once this process owns the channel's state: in a forked child
    // one caller adopts the inherited copy (adoptInherited) while any other
    // waits for it; in the process that made the channel it only compares.
    void adoptAfterFork() TALVOEM_EXCLUDES(mutex_);
    void adoptInherited() TALVOEM_EXCLUDES(mutex_);

    int fd_ TALVOEM_GUARDED_BY(mutex_);
    IOemPolicyCB* callback_;
    talvoem::Mutex mutex_;
    std::shared_ptr<std::thread> recvThread_ TALVOEM_GUARDED_BY(mutex_);
    bool running_ TALVOEM_GUARDED_BY(mutex_);
    // Set by the one dispose() under way, from its request to its join's end.
    bool disposing_ TALVOEM_GUARDED_BY(mutex_);
    // Set when dispose() shut the descriptor down to wake the loop.
    bool shutDownByDispose_ TALVOEM_GUARDED_BY(mutex_);
    std::condition_variable disposeEnded_;
    // The process whose state this is (a forked child inherits its parent's),
    // or kAdopting while a child adopts it.
    std::atomic<pid_t> owner_;
};
