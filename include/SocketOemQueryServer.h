#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "IOemPolicyCBFactory.h"
#include "IOemQuery.h"
#include "TalvoemThreadAnnotations.h"

class SocketOemPolicyCBServer;

// The service end of the library. A service derives from it, supplies
// queryPolicy and setPolicyCallback, and runs init() on a thread of its own.
//
// Threads: init() is the listener; each accepted connection runs
// svcHandlerThread on its own detached thread, which owns and closes the
// connection's descriptor. queryPolicy is entered from many connection threads
// at once with no lock held: the service makes it thread-safe. Running out of
// descriptors or threads costs clients, never the listener: it waits out an
// accept that lacks a resource and closes a connection it cannot give a
// thread, logging each such episode when it starts and when it ends.
//
// Lock: channelLock_ (a timed mutex, tried for 500 ms) is held by
// observePolicyCallback for the whole life of a callback channel, so a server
// has at most one; channel_ is read and written only under it.
//
// Ownership: the factory is borrowed and never deleted. Each channel and each
// factory-made callback is created and deleted by observePolicyCallback.
// Connection threads are never joined: the derived object must outlive them.
class SocketOemQueryServer : public IOemQuery {
public:
    explicit SocketOemQueryServer(IOemPolicyCBFactory* factory);
    ~SocketOemQueryServer() override;

    // Takes the control socket "talvoem", listens (backlog 20) and accepts
    // forever, one detached thread per connection. An accept that fails for
    // want of descriptors or memory (EMFILE, ENFILE, ENOBUFS, ENOMEM) is
    // retried after a pause of 5 ms growing to 100 ms; a connection that no
    // thread can be made for is closed unanswered. Each connection's caller is
    // read at accept (TalvoemConnection.h); an admission rule installed before
    // init() (TalvoemAdmission.h) closes a refused one before it gets a
    // thread. Returns -1 only, when the socket is missing, listen fails or
    // accept fails for any other reason (the socket is closed then). Throws
    // nothing.
    int8_t init();

    // Body of a connection thread: one request, one optional response, close.
    // `fd` is owned by the thread.
    static void svcHandlerThread(SocketOemQueryServer* server, int fd);

    // Turns one request into the response to send (empty: send nothing).
    // Returns the service's queryPolicy status for a query, 0 otherwise.
    int8_t onTransact(int fd, std::string& request, std::string& response);

    // Answers a "setPolicyCallback" request of `type` on the connection `fd`
    // (borrowed); type 1 runs a channel until it ends. Always returns 0.
    int handlePolicyCallback(int fd, uint16_t type, std::string& response);

    // Sets up a channel on `fd` (borrowed) and blocks for its whole life.
    // 0 when it ran and ended, 1 or 2 when it could not start (observe()'s
    // result), -1 when the channel lock or the callback could not be had, or
    // the factory handed back the channel itself as the callback.
    int observePolicyCallback(int fd, IOemPolicyCBFactory* factory) TALVOEM_EXCLUDES(channelLock_);

private:
    // A timed mutex whose deadline runs on the monotonic clock. Built on a
    // condition variable rather than std::timed_mutex, whose steady-clock wait
    // (pthread_mutex_clocklock) ThreadSanitizer cannot see, which would leave
    // every channel unchecked.
    class TALVOEM_CAPABILITY("mutex") ChannelLock {
    public:
        bool try_lock_until(std::chrono::steady_clock::time_point deadline)
            TALVOEM_TRY_ACQUIRE(true);
        void unlock() TALVOEM_RELEASE();

    private:
        talvoem::Mutex mutex_;
        std::condition_variable released_;
        bool held_ TALVOEM_GUARDED_BY(mutex_) = false;
    };
    // Releases a ChannelLock that try_lock_until took, when it goes out of
    // scope, however the scope is left.
    class TALVOEM_SCOPED_CAPABILITY ChannelHold {
    public:
        explicit ChannelHold(ChannelLock& lock) TALVOEM_REQUIRES(lock) : lock_(lock) {}
        ~ChannelHold() TALVOEM_RELEASE() { lock_.unlock(); }
        ChannelHold(const ChannelHold&) = delete;
        ChannelHold& operator=(const ChannelHold&) = delete;

    private:
        ChannelLock& lock_;
    };

    IOemPolicyCBFactory* factory_;
    SocketOemPolicyCBServer* channel_ TALVOEM_GUARDED_BY(channelLock_);
    ChannelLock channelLock_;
};
