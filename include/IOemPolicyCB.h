#pragma once

#include <cstdint>
#include <string>

// Receives policy changes. Implemented by applications (client side), by the
// callbacks a service's factory makes, and by both ends of a callback channel.
// `data` may be null; a non-null string stays owned by the caller.
class IOemPolicyCB {
public:
    virtual ~IOemPolicyCB() = default;
    virtual void onPolicyChanged(uint16_t type, std::string* data) = 0;
};
