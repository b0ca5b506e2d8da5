#pragma once

#include "scheduling/mapping/GraphItem.h"
#include "utils/StepTrace.h"

namespace kelm {

// Divides the graphs into masters, which are heavy and not to be switched out, and slaves, by the
// split of their demands that leaves the least spread on both sides. With fewer than three graphs,
// or more than two masters, there is nothing to divide.
// No caller: kept for a policy that protects heavy graphs. Without it all graphs are slaves.
void groupGraphs(const GraphItemSet& graphs, const StepTrace& trace);

}  // namespace kelm
