#pragma once

#include "IOemPolicyCB.h"

// Implemented by the service. For each new callback channel the server calls
// createCallback with the channel (the object whose onPolicyChanged queues a
// notification for the client) and takes ownership of the callback returned;
// it deletes that callback when the channel ends. Return null to refuse.
class IOemPolicyCBFactory {
public:
    virtual ~IOemPolicyCBFactory() = default;
    virtual IOemPolicyCB* createCallback(IOemPolicyCB* channel) = 0;
};
