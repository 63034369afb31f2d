#pragma once

#include <cstdint>

// What talvoemd and talvoemctl agree on about callers, beyond the library's
// envelope: talvoemd's own query type and answer code, nothing new on the
// wire for any other client.

// A query of this type asks talvoemd whom it sees. It is answered to every
// caller, whatever --query-uid says (it tells a caller only about itself),
// with code 0 and data {"gid":G,"pid":P,"query":Q,"uid":U,"watch":W}: the
// caller's credentials as the listener read them at accept, and whether
// talvoemd answers its queries and lets it open the channel.
constexpr uint16_t kTypeWhoAmI = 65535;

// talvoemd's answer to a query from a uid it does not serve.
constexpr int32_t kCodePermissionDenied = 13;
constexpr const char* kPermissionDenied = "permission denied";
