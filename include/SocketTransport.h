#pragma once

#include <sys/types.h>

#include <string>

// One message is one SOCK_SEQPACKET packet on /dev/socket/talvoem. None of
// these functions keeps state or takes a lock; a descriptor is a plain int
// owned by the caller, negative meaning none.

// One connection attempt. Returns the connected descriptor (owned by the
// caller), -1 when the socket could not be created, -2 when connect failed
// (the socket is already closed).
int internalEstablishConnection();

// Up to six attempts, sleeping 20, 40, 80, 160 and 320 ms between them.
// Returns the first descriptor, or the sixth attempt's result.
int establishConnection();

// Closes `fd` (owned). Returns 0, or -1 for a negative descriptor.
int closeConnection(int fd);

// Sends `msg` up to its first NUL byte as one packet on `fd` (borrowed).
// Returns 0, -1 for a negative descriptor, -3 when the send failed, -4 when
// it failed with EPIPE. The flags are 0: a process that does not ignore
// SIGPIPE is signalled when the peer has gone.
int sendMsg(int fd, std::string& msg);

// Receives one packet of at most 524,288 bytes from `fd` (borrowed) into
// `msg`, replacing its content. Returns the byte count; 0 when the peer
// closed (or sent an empty packet) and -1 on failure, leaving `msg` as it was.
ssize_t recvMsg(int fd, std::string& msg);
