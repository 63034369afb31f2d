#pragma once

#include <json/json.h>

#include <string>

// The floors' own plumbing: plain socket calls and jsoncpp, nothing of the
// library, so that a floor shows what the same exchange costs by hand.
namespace talvoem::bench::floor {

// A connected SOCK_SEQPACKET socket to `path`, or -1.
int connectTo(const char* path);
// A listening SOCK_SEQPACKET socket bound at `path`, or -1.
int listenOn(const char* path);
bool sendText(int fd, const std::string& text);

// A receive buffer reused from one packet to the next: the floors pay for
// no allocation per receive. Large enough for every packet of the bench.
// `fresh` instead allocates a 512 KiB buffer per receive and copies the
// packet out, as the library's transport does, to show what that costs.
class Receiver {
public:
    explicit Receiver(bool fresh = false) : fresh_(fresh) {}
    // Bytes received (0 or less on failure or end); the packet is text().
    long receive(int fd);
    const char* text() const { return fresh_ ? copy_.data() : buffer_; }

private:
    const bool fresh_;
    std::string copy_;
    char buffer_[64 * 1024];
};

bool parse(const char* begin, const char* end, Json::Value& root);
std::string write(const Json::Value& root);

}  // namespace talvoem::bench::floor
