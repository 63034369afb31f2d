#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "IOemPolicyCB.h"
#include "TalvoemThreadAnnotations.h"

// The service end of one policy-callback channel: the service reports changes
// to onPolicyChanged, and a send thread writes them to the client in order.
//
// Threads: the connection thread runs observe(), which starts the send thread
// (loopSend), sends the registration reply and runs the receive loop
// (loopRecv) until the client disposes of the channel or the connection
// breaks; any service thread may call onPolicyChanged meanwhile.
//
// Lock: mutex_ guards fd_, pending_, running_ and sendThread_; wakeUp_ is
// signalled when a message is queued and when the channel stops. The send
// thread sends while holding mutex_, so the exit message (sent after the join)
// is always last. The receive loop copies fd_ under the lock once and
// receives on the copy without it: only internalDispose, which that same loop
// runs when it ends, makes the descriptor invalid. No other lock is taken
// while mutex_ is held.
//
// Ownership: the descriptor is borrowed; the connection thread closes it after
// observe() returns. Messages queued at shutdown are discarded unsent.
class SocketOemPolicyCBServer : public IOemPolicyCB {
public:
    explicit SocketOemPolicyCBServer(int fd);
    ~SocketOemPolicyCBServer() override;

    // Queues a notify message (cmd 1); dropped while the channel is not running.
    void onPolicyChanged(uint16_t type, std::string* data) override TALVOEM_EXCLUDES(mutex_);
    void addData(std::string& msg) TALVOEM_EXCLUDES(mutex_);

    // 0 after the channel ran and ended; 1 for an invalid descriptor; 2 when
    // the channel could not start: its send thread could not be created, or
    // the registration reply could not be sent. On 1 and 2 the channel is
    // left stopped, with no send thread running. Throws nothing.
    int observe() TALVOEM_EXCLUDES(mutex_);
    void loopRecv() TALVOEM_EXCLUDES(mutex_);
    static void sendHandlerThread(SocketOemPolicyCBServer* self);
    void loopSend() TALVOEM_EXCLUDES(mutex_);
    // Stops the send thread, discards what is queued and sends the exit message
    // (cmd 2) once. Safe to call more than once.
    void internalDispose() TALVOEM_EXCLUDES(mutex_);
    // Marks the descriptor invalid (-1) under the lock. It does not close it:
    // the descriptor belongs to the connection thread.
    void resetSocketFd() TALVOEM_EXCLUDES(mutex_);

private:
    // Marks the channel running and starts its send thread, which waits for
    // mutex_ before anything else; false, running cleared, when it cannot be
    // created.
    bool startSendThreadLocked() TALVOEM_REQUIRES(mutex_);

    int fd_ TALVOEM_GUARDED_BY(mutex_);
    std::deque<std::string> pending_ TALVOEM_GUARDED_BY(mutex_);
    talvoem::Mutex mutex_;
    std::condition_variable wakeUp_;
    std::shared_ptr<std::thread> sendThread_ TALVOEM_GUARDED_BY(mutex_);
    bool running_ TALVOEM_GUARDED_BY(mutex_);
};
