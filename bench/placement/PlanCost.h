#pragma once

#include <cstddef>

namespace kelm {

// Milliseconds of processor time for a plan of many devices of two slots whose demands keep
// changing, after the first ten plans.
struct PlanCost {
    double median = 0.0;
    double worst = 0.0;
};
PlanCost measurePlans(size_t devices, size_t graphs, int plans);

}  // namespace kelm
