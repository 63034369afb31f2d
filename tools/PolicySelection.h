#pragma once

#include <string>
#include <vector>

#include "OemJsonUtils.h"

// Selects part of a policy document by a query selector. An empty name
// matches everything at its level; a named level keeps only entries with that
// name, and branches left with nothing below a named level are dropped.
std::vector<OemJsonUtils::QueryPolicy::Operate> selectPolicy(
    const std::vector<OemJsonUtils::QueryPolicy::Operate>& document,
    const OemJsonUtils::QueryPolicy::Data& selector);
