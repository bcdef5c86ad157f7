#pragma once

#include "tests/torture/fault.h"
#include "tests/torture/scene.h"

#include <map>
#include <vector>

namespace vantor::torture {

/// Which calls there are in a run.
struct Plan {
    Run run;
    CallCounts counts;      ///< the most that were seen
    CallCounts before_main; ///< of these, the application's before it begins: the least
};

/// Some runs without a fault. Aborts, and says why, when one of them does not go as it should or makes a call
/// that stands in no list.
Plan makePlan(Scene& scene, Run run);

/// Every fault of a plan: role by role, call by call.
std::vector<Fault> faultsOf(const Plan& plan);

} // namespace vantor::torture
