#pragma once

#include <cstdint>
#include <deque>

#include "GraphMapperProbe.h"

namespace kelm {

// Core and end of a mapping in their plainest form, every choice a walk over everything: what the
// indexed ones must agree with, choice by choice. Works on a copy of a mapper's items.
class NaiveMapper {
 public:
    NaiveMapper(GraphMapperProbe probe, int maxGraphs);

    int32_t buildPlan(uint32_t deviceNum);
    void post();

    std::deque<GraphItem> graphs;
    std::deque<DeviceItem> real;
    std::deque<DeviceItem> shadows;

 private:
    bool wholeDevices(float ratio);
    void fractions();
    int32_t force();
    void lowDown();

    DeviceItem* freeDevice();
    DeviceItem* leastBusy(uint32_t memReq);
    DeviceItem* mostBusy();
    GraphItem* first();
    GraphItem* match(const GraphItem& graph);
    GraphItem* fractionOnly();

    const int m_maxGraphs;
    uint32_t m_deviceNum = 0;
    uint32_t m_used = 0;
};

}  // namespace kelm
