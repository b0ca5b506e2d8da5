#include "scheduling/mapping/GraphGrouping.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "utils/Log.h"
#include "utils/StepTrace.h"

namespace kelm {

namespace {

constexpr size_t kLeastGraphsToGroup = 3;
constexpr float kWorstSpread = 10000.0f;  // a split is taken only below it
constexpr uint32_t kMostMasters = 2;

struct Partition {
    float value = 0.0f;  // graphs above it are masters
    uint32_t masterNum = 0;
};

// How far the values lie from their mean, summed up. The range is never empty: a split leaves a
// value on each side at least.
float spreadOf(const float* begin, const float* end, float sum) {
    const float average = sum / static_cast<float>(end - begin);
    float spread = 0.0f;
    for (const float* value = begin; value != end; ++value) spread += std::fabs(average - *value);
    return spread;
}

// The split of the ascending values that leaves the least spread on both sides.
Partition findPartition(const std::vector<float>& values) {
    const float sum = std::accumulate(values.begin(), values.end(), 0.0f);
    const float* begin = values.data();
    const float* end = begin + values.size();
    Partition best;
    float bestCost = kWorstSpread;
    float lowSum = 0.0f;
    for (const float* split = begin + 1; split != end; ++split) {
        lowSum += split[-1];
        const float cost = spreadOf(begin, split, lowSum) + spreadOf(split, end, sum - lowSum);
        if (!(bestCost > cost)) continue;
        bestCost = cost;
        best = {split[-1], static_cast<uint32_t>(end - split)};
    }
    return best;
}

}  // namespace

void groupGraphs(const GraphItemSet& graphs, const StepTrace& trace) {
    if (graphs.size() < kLeastGraphsToGroup) return;
    std::vector<float> values;
    for (const GraphItem* item : graphs) values.push_back(item->devReq);
    std::sort(values.begin(), values.end());
    const Partition partition = findPartition(values);
    LOG_PROC(trace.isOn(), "groupGraphs: partitionValue = %f, masterNum = %d",
             partition.value + 0.001f, partition.masterNum);
    // Too many masters are none: then every graph may be switched out.
    const bool tooMany = partition.masterNum > kMostMasters;
    if (tooMany) {
        LOG_PROC(trace.isOn(), "groupGraphs: bestMasterNum = %d, it is too much!",
                 partition.masterNum);
    }
    for (GraphItem* item : graphs) {
        item->slaveGroup = tooMany || partition.value >= item->devReq;
    }
}

}  // namespace kelm
