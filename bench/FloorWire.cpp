#include "FloorWire.h"

#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>

namespace talvoem::bench::floor {

namespace {

sockaddr_un addressOf(const char* path) {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path, sizeof(addr.sun_path) - 1);
    return addr;
}

}  // namespace

int connectTo(const char* path) {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr = addressOf(path);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int listenOn(const char* path) {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr = addressOf(path);
    unlink(path);
    if (fd >= 0 &&
        (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fd, 20) != 0)) {
        close(fd);
        return -1;
    }
    return fd;
}

bool sendText(int fd, const std::string& text) {
    return send(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
}

long Receiver::receive(int fd) {
    if (!fresh_) {
        return recv(fd, buffer_, sizeof(buffer_), 0);
    }
    constexpr size_t kFreshSize = 512 * 1024;
    std::unique_ptr<char[]> fresh(new char[kFreshSize]);
    long n = recv(fd, fresh.get(), kFreshSize, 0);
    if (n > 0) {
        copy_.assign(fresh.get(), static_cast<size_t>(n));
    }
    return n;
}

// The same reader and writer as the library's codec.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

bool parse(const char* begin, const char* end, Json::Value& root) {
    Json::Reader reader;
    return reader.parse(begin, end, root, true);
}

std::string write(const Json::Value& root) {
    Json::FastWriter writer;
    return writer.write(root);
}

#pragma GCC diagnostic pop

}  // namespace talvoem::bench::floor
