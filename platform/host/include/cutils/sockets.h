#pragma once

// Host stand-in for the one libcutils call the library uses. Only host builds
// see this folder (platform/CMakeLists.txt); Android builds take the
// platform's own <cutils/sockets.h> from libcutils.

#include <sys/socket.h>

#define ANDROID_SOCKET_ENV_PREFIX "ANDROID_SOCKET_"
#define ANDROID_SOCKET_DIR "/dev/socket"

extern "C" {
// Returns the descriptor that init handed over for the control socket `name`
// (environment variable ANDROID_SOCKET_<name>), provided it is open and is a
// Unix-domain socket bound at /dev/socket/<name>; otherwise -1.
int android_get_control_socket(const char* name);
}
