#include <cutils/sockets.h>

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <string>

// init's hand-over protocol: init creates and binds the socket, then passes
// its number to the service in ANDROID_SOCKET_<name>. We trust the number
// only when it names an open Unix-domain socket bound at /dev/socket/<name>.
extern "C" int android_get_control_socket(const char* name) {
    if (name == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const std::string key = std::string(ANDROID_SOCKET_ENV_PREFIX) + name;
    const char* value = getenv(key.c_str());
    if (value == nullptr || *value == '\0') {
        errno = ENOENT;
        return -1;
    }
    errno = 0;
    char* end = nullptr;
    long fd = strtol(value, &end, 10);
    if (errno != 0 || *end != '\0' || fd < 0 || fd > 0x7fffffff) {
        errno = EINVAL;
        return -1;
    }
    if (fcntl(static_cast<int>(fd), F_GETFD) < 0) {
        return -1;
    }
    sockaddr_un addr = {};
    socklen_t len = sizeof(addr);
    if (getsockname(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        return -1;
    }
    const std::string path = std::string(ANDROID_SOCKET_DIR) + "/" + name;
    const size_t pathLen =
        len > offsetof(sockaddr_un, sun_path) ? len - offsetof(sockaddr_un, sun_path) : 0;
    if (addr.sun_family != AF_UNIX || strnlen(addr.sun_path, pathLen) != path.size() ||
        memcmp(addr.sun_path, path.data(), path.size()) != 0) {
        errno = ENOTSOCK;
        return -1;
    }
    return static_cast<int>(fd);
}
