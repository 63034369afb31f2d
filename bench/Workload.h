#pragma once

#include <cstdint>
#include <string>

// What every row and floor puts on the wire, built once so that the library's
// rows and the hand-written floors send exactly the same bytes.
namespace talvoem::bench {

// The query the clients send: {"api":"queryPolicy","type":1} with its line end.
const std::string& queryRequestText();
// The service's answer: a success envelope whose data is a ~1 KiB policy
// document.
const std::string& queryAnswerText();
// The document itself, also the data of every notification.
const std::string& policyDocumentText();

constexpr uint16_t kQueryType = 1;
constexpr uint16_t kNotifyType = 7;
constexpr const char* kFloorSocketPath = "/dev/socket/talvoem-floor";

// CLOCK_MONOTONIC in nanoseconds: one clock for every process of the run.
uint64_t nowNs();

}  // namespace talvoem::bench
