// What fails, and what may be lost by it.
#pragma once

#include <vector>

#include "tests/faults/world.h"

namespace orb::test {

const std::vector<Scenario>& Scenarios();

}  // namespace orb::test
