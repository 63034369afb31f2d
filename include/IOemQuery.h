#pragma once

#include <cstdint>
#include <string>

#include "IOemPolicyCB.h"

// The query interface shared by the service and the client object. Both
// operations return 0 for success and any other value for failure.
class IOemQuery {
public:
    virtual ~IOemQuery() = default;
    virtual int8_t queryPolicy(uint16_t type, const std::string& data, std::string* result) = 0;
    virtual int8_t setPolicyCallback(IOemPolicyCB* cb) = 0;
};
