#include <algorithm>
#include <cmath>
#include <numeric>

#include "scheduling/mapping/GraphMapper.h"
#include "utils/Log.h"

namespace kelm {

namespace {

constexpr size_t kLeastGraphsToGroup = 3;
constexpr float kWorstSpread = 10000.0f;
constexpr uint32_t kMostMasters = 2;

struct Partition {
    float value = 0.0f;  // graphs above it are masters
    uint32_t masterNum = 0;
};

// How far the values lie from their mean, summed up.
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

bool GraphMapper::checkChanged() {
    // All pending cycles are counted at every call, so this one first.
    return checkPendingGraphCycle() || m_graphChanged || m_deviceChanged;
}

bool GraphMapper::checkPendingGraphCycle() {
    bool reached = false;
    for (GraphItem* item : m_pendingGraphSet) {
        if (++item->outCycleNum < m_maxPendingCycle) continue;
        LOG_PROC(m_debugProcess, "Graph reaches max pending cycle number: %s", item->dump());
        reached = true;
    }
    return reached;
}

bool GraphMapper::filterGraphs(int outGraphNum) {
    if (outGraphNum < 1) {
        LOG_PROC(m_debugProcess, "filerGraphs: outGraphNum=%d, Not need do it!", outGraphNum);
        return false;
    }
    const size_t outNum = static_cast<size_t>(outGraphNum);
    GraphItemSet candidates;
    std::copy_if(m_graphSet.begin(), m_graphSet.end(), std::back_inserter(candidates),
                 [](const GraphItem* item) { return item->slaveGroup; });
    if (candidates.size() < outNum) candidates = m_graphSet;
    if (candidates.size() < outNum) {
        LOG_ERROR_OF(m_name.c_str(),
                     "Error in filerGraphs(): leftNum=%u slaveGraphNum=%lu, too much switch out "
                     "graphs!!!",
                     static_cast<uint32_t>(outGraphNum), candidates.size());
        dumpTooManyOut(candidates);
        return false;
    }
    LOG_PROC(m_debugProcess, "Need to filter out graphs number = %d", outGraphNum);
    const GraphItemSet outList = sortForSwitchOut(candidates);
    for (GraphItem* item : m_graphSet) {
        if (item->status == MAPPER_GRAPH_PENDING) item->status = MAPPER_GRAPH_RUN;
    }
    for (size_t i = 0; i < outNum; ++i) outList[i]->status = MAPPER_GRAPH_PENDING;
    return true;
}

GraphItemSet GraphMapper::sortForSwitchOut(const GraphItemSet& candidates) {
    GraphItemSet outList;  // the least busy go first
    GraphItemSet overdue;  // out for long, or with many tasks: kept in if at all possible
    GraphItemSet newGraphs;
    outList.reserve(candidates.size());
    for (GraphItem* item : candidates) {
        const bool waitedLong = item->outCycleNum > m_maxPendingCycle && item->taskNum >= 1;
        const bool manyTasks = item->outCycleNum >= 1 && item->taskNum > m_maxPendingTaskNum;
        (item->isNewGraph          ? newGraphs
         : waitedLong || manyTasks ? overdue
                                   : outList)
            .push_back(item);
    }
    std::stable_sort(
        outList.begin(), outList.end(),
        [](const GraphItem* left, const GraphItem* right) { return left->devReq < right->devReq; });
    std::stable_sort(
        overdue.begin(), overdue.end(), [](const GraphItem* left, const GraphItem* right) {
            return left->outCycleNum != right->outCycleNum ? left->outCycleNum < right->outCycleNum
                                                           : left->taskNum < right->taskNum;
        });
    std::stable_sort(newGraphs.begin(), newGraphs.end(),
                     [](const GraphItem* left, const GraphItem* right) {
                         return left->taskNum < right->taskNum;
                     });
    outList.insert(outList.end(), overdue.begin(), overdue.end());
    outList.insert(outList.end(), newGraphs.begin(), newGraphs.end());
    return outList;
}

void GraphMapper::groupGraphs() {
    if (m_graphSet.size() < kLeastGraphsToGroup) return;
    std::vector<float> values;
    for (const GraphItem* item : m_graphSet) values.push_back(item->devReq);
    std::sort(values.begin(), values.end());
    const Partition partition = findPartition(values);
    LOG_PROC(m_debugProcess, "groupGraphs: partitionValue = %f, masterNum = %d",
             partition.value + 0.001f, partition.masterNum);
    const bool tooMany = partition.masterNum > kMostMasters;
    if (tooMany) {
        LOG_PROC(m_debugProcess, "groupGraphs: bestMasterNum = %d, it is too much!",
                 partition.masterNum);
    }
    for (GraphItem* item : m_graphSet) {
        item->slaveGroup = tooMany || partition.value >= item->devReq;
    }
}

}  // namespace kelm
