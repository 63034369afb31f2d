#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "OemJsonUtils.h"

using Policy = std::vector<OemJsonUtils::QueryPolicy::Operate>;

// The largest policy file talvoemd reads. A real document is a few kilobytes;
// the cap keeps a wrong path (a device, a log) from filling the memory.
constexpr size_t kMaxPolicyFileBytes = 4 * 1024 * 1024;

// Reads the policy file at `path` into `policy`. "" on success; otherwise one
// line saying why not, and `policy` is unspecified:
//  - "cannot open the file";
//  - larger than kMaxPolicyFileBytes;
//  - not JSON, with the line and column where reading stopped;
//  - bytes other than whitespace or comments after the document;
//  - JSON but not a policy document (the codec's rules);
//  - a name that appears twice at one level (two operations of one name, two
//    subsystems of one name in an operation, two functions of one name in a
//    subsystem): a selector could not tell them apart.
std::string readPolicyFile(const std::string& path, Policy& policy);
