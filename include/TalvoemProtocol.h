#pragma once

#include <cstddef>
#include <cstdint>

// The wire protocol's numbers, named once for the library, its tools and the
// applications and services that link it.
namespace talvoem::protocol {

// The two request names ("api").
constexpr const char* kApiQueryPolicy = "queryPolicy";
constexpr const char* kApiSetPolicyCallback = "setPolicyCallback";

// The "type" of a setPolicyCallback request: open a channel, or end the one
// this connection holds.
constexpr uint16_t kTypeRegister = 1;
constexpr uint16_t kTypeDispose = 2;

// The "cmd" of a message the service sends on an open channel.
constexpr uint16_t kCmdNotify = 1;
constexpr uint16_t kCmdExit = 2;

// The type an application's callback receives when its channel's connection
// is lost (the service ended or closed it without an exit message).
constexpr uint16_t kTypeConnectionLost = 100;

// The "code" of the envelopes the library itself writes.
constexpr int32_t kCodeSuccess = 0;
// A registration refused (the service already holds a channel, or its factory
// or setPolicyCallback said no), an unknown callback type, or a queryPolicy
// that failed without writing an answer.
constexpr int32_t kCodeFailed = -1;
// A channel that could not start: its descriptor was invalid (1), or its
// send thread could not be created or the registration reply not sent (2).
constexpr int32_t kCodeChannelNoDescriptor = 1;
constexpr int32_t kCodeChannelNotStarted = 2;
constexpr int32_t kCodeUnreadableRequest = 4;
constexpr int32_t kCodeNoCallbackFactory = 6;
constexpr int32_t kCodeUnknownApi = 10;
// An empty api, or a dispose sent as the first request of a connection.
constexpr int32_t kCodeEmptyApi = 11;

// The longest packet a receiver takes whole; a longer one arrives cut to this
// many bytes.
constexpr size_t kReceiveLimit = 524288;

}  // namespace talvoem::protocol
