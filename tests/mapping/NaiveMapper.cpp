#include "NaiveMapper.h"

#include <algorithm>
#include <cmath>

namespace kelm {
namespace {

// The item of the largest value above the bound, the first in the walk among equals, or null.
template <class Items, class Fits, class Value>
auto* largest(Items& items, float bound, Fits fits, Value value) {
    typename Items::value_type* best = nullptr;
    for (auto& item : items) {
        if (!fits(item) || !(value(item) > bound)) continue;
        bound = value(item);
        best = &item;
    }
    return best;
}

bool hasFraction(const GraphItem& g) {
    return g.status == MAPPER_GRAPH_RUN && g.devReqScaled > 0.0f;
}

bool isFractionOnly(const GraphItem& g) { return hasFraction(g) && g.dedicatedDevNum == 0; }

bool holds(const DeviceItem& d, size_t number) {
    return d.devStatus == MAPPER_GRAPH_RUN && d.graphs.size() == number;
}

DeviceItemSet pointers(std::deque<DeviceItem>& devices) {
    DeviceItemSet all;
    for (DeviceItem& d : devices) all.push_back(&d);
    return all;
}

}  // namespace

NaiveMapper::NaiveMapper(GraphMapperProbe probe, int maxGraphs) : m_maxGraphs(maxGraphs) {
    for (const GraphItem* item : probe.graphs()) graphs.push_back(*item);
    for (const DeviceItem* item : probe.devices()) {
        DeviceItem& copy = real.emplace_back();
        copy.worker = item->worker;
        copy.devStatus = item->devStatus;
        copy.memSize = shadows.emplace_back().memSize = item->memSize;
        for (const GraphItem* held : item->graphs) {
            GraphItem& own = *std::find_if(graphs.begin(), graphs.end(),
                                           [held](GraphItem& g) { return g.graph == held->graph; });
            copy.graphs.empty() ? copy.graphs.assign(&own) : copy.graphs.setSecond(&own);
        }
    }
}

int32_t NaiveMapper::buildPlan(uint32_t deviceNum) {
    m_deviceNum = deviceNum;
    float sum = 0.0f;
    uint32_t running = 0;
    for (const GraphItem& g : graphs) {
        if (g.status != MAPPER_GRAPH_RUN) continue;
        sum += g.devReq;
        ++running;
    }
    const uint32_t places = static_cast<uint32_t>(m_maxGraphs) * deviceNum;
    if (running > places) return static_cast<int32_t>(running - places);
    float ratio = sum / static_cast<float>(deviceNum);
    if (0.5f > ratio && running > deviceNum) ratio = 1.0f;
    if (!wholeDevices(ratio)) return -1;
    fractions();
    if (const int32_t left = force(); left != 0) return left;
    lowDown();
    for (GraphItem& g : graphs) {
        if (g.status == MAPPER_GRAPH_RUN) g.devReqScaled = g.devReq / ratio;
    }
    GraphMapperProbe::updateDeviceState(pointers(shadows));
    return 0;
}

bool NaiveMapper::wholeDevices(float ratio) {
    for (GraphItem& g : graphs) {
        if (g.status != MAPPER_GRAPH_RUN) continue;
        g.dedicatedDevNum = g.sharedDevNum = 0;
        g.devReqScaled = g.devReq / ratio;
        if (std::isnan(g.devReqScaled) || 1.0f > g.devReqScaled) continue;
        const float whole = std::floor(g.devReqScaled);
        g.devReqScaled -= whole;
        if (static_cast<double>(g.devReqScaled / whole) < 0.1) g.devReqScaled = 0.0f;
        for (float i = 0.0f; i < whole; i += 1.0f) {
            DeviceItem* d = freeDevice();
            if (d == nullptr) return false;
            if (m_used >= m_deviceNum) break;
            d->graphs.assign(&g);
            d->devStatus = MAPPER_GRAPH_RUN;
            d->util = 1.0f;
            d->isFull = true;
            ++g.dedicatedDevNum;
            ++m_used;
        }
    }
    return true;
}

void NaiveMapper::fractions() {
    for (DeviceItem* d = freeDevice(); d != nullptr; d = freeDevice()) {
        GraphItem* g = first();
        if (g == nullptr || m_used >= m_deviceNum) return;
        ++m_used;
        GraphItem* m = match(*g);
        d->devStatus = MAPPER_GRAPH_RUN;
        d->util = g->devReqScaled;
        d->graphs.assign(g);
        g->devReqScaled = 0.0f;
        if (m == nullptr || m_maxGraphs != 2 ||
            static_cast<double>(m->dedicatedDevNum) >= static_cast<double>(m->devReq)) {
            ++g->dedicatedDevNum;
            continue;
        }
        d->graphs.setSecond(m);
        d->util += m->devReqScaled;
        d->isFull = true;
        m->devReqScaled = 0.0f;
        g->sharedDevNum = m->sharedDevNum = 1;
    }
}

int32_t NaiveMapper::force() {
    for (GraphItem* g = fractionOnly(); g != nullptr; g = fractionOnly()) {
        DeviceItem* d = leastBusy(g->memReq);
        if (d == nullptr || m_maxGraphs == 1) {
            return static_cast<int32_t>(
                std::count_if(graphs.begin(), graphs.end(), isFractionOnly));
        }
        d->graphs.setSecond(g);
        d->isFull = true;
        g->devReqScaled = 0.0f;
        --d->graphs.find(0)->dedicatedDevNum;
        g->sharedDevNum = d->graphs.find(0)->sharedDevNum = 1;
    }
    return 0;
}

void NaiveMapper::lowDown() {
    for (DeviceItem* d = freeDevice(); d != nullptr; d = freeDevice()) {
        DeviceItem* busy = mostBusy();
        if (busy == nullptr || m_deviceNum <= m_used) return;
        ++m_used;
        GraphItem* kept = busy->graphs.find(0);
        GraphItem* moved = busy->graphs.find(1);
        d->graphs.assign(moved != nullptr ? moved : kept);
        d->devStatus = MAPPER_GRAPH_RUN;
        ++kept->dedicatedDevNum;
        if (moved == nullptr) continue;
        busy->graphs.eraseSecond();
        ++moved->dedicatedDevNum;
        kept->sharedDevNum = moved->sharedDevNum = 0;
    }
}

void NaiveMapper::post() {
    for (DeviceItem& d : real) {
        DeviceItem* best = nullptr;
        int bestScore = 0;
        for (DeviceItem& s : shadows) {
            if (d.graphs.empty() || s.graphs.empty() || s.isMatched) continue;
            const int score = GraphMapperProbe::compare(&d, &s);
            if (score <= bestScore) continue;
            bestScore = score;
            best = &s;
        }
        if (best == nullptr) continue;
        GraphMapperProbe::copy(&d, best);
        d.devStatus = MAPPER_GRAPH_RUN;
    }
    for (DeviceItem& d : real) {
        if (d.isMatched) continue;
        const auto s = std::find_if(shadows.begin(), shadows.end(), [](const DeviceItem& shadow) {
            return !shadow.graphs.empty() && !shadow.isMatched;
        });
        d.devStatus = s != shadows.end() ? MAPPER_GRAPH_RUN : MAPPER_GRAPH_NONE;
        if (s == shadows.end()) continue;
        const bool swap =
            s->graphs.size() == 2 && s->graphs.find(1)->devReq > s->graphs.find(0)->devReq;
        if (swap) s->graphs.swapPlaces();
        GraphMapperProbe::copy(&d, &*s);
    }
    GraphMapperProbe::updateDeviceState(pointers(real));
}

DeviceItem* NaiveMapper::freeDevice() {
    const auto isFree = [](const DeviceItem& d) { return d.devStatus == MAPPER_GRAPH_NONE; };
    return largest(shadows, 0.0f, isFree, [](const DeviceItem&) { return 1.0f; });
}

DeviceItem* NaiveMapper::leastBusy(uint32_t memReq) {
    const auto fits = [memReq](const DeviceItem& d) {
        return holds(d, 1) && !d.isFull && d.graphs.find(0)->sharedDevNum != 1 &&
               d.mem + memReq < d.memSize;
    };
    return largest(shadows, -100.0f, fits, [](const DeviceItem& d) { return -d.util; });
}

DeviceItem* NaiveMapper::mostBusy() {
    const auto util = [](const DeviceItem& d) { return d.util; };
    DeviceItem* pair = largest(
        shadows, 0.0f, [](auto& d) { return holds(d, 2); }, util);
    if (pair != nullptr) return pair;
    return largest(
        shadows, 0.0f, [](auto& d) { return holds(d, 1); }, util);
}

GraphItem* NaiveMapper::first() {
    GraphItem* small =
        largest(graphs, -1.0f, isFractionOnly, [](const GraphItem& g) { return -g.devReqScaled; });
    if (small != nullptr) return small;
    const auto weight = [](const GraphItem& g) {
        return g.devReqScaled / static_cast<float>(g.dedicatedDevNum);
    };
    return largest(
        graphs, 0.0f, [](auto& g) { return hasFraction(g) && g.dedicatedDevNum; }, weight);
}

GraphItem* NaiveMapper::match(const GraphItem& graph) {
    const auto distance = [&](const GraphItem& g) {
        return -std::fabs(graph.devReqScaled + g.devReqScaled - 1.0f);
    };
    const auto fits = [&](const GraphItem& g) {
        return hasFraction(g) && &g != &graph && g.memReq + graph.memReq <= shadows[0].memSize;
    };
    const auto fitsAndIsNew = [&](const GraphItem& g) {
        return fits(g) && g.dedicatedDevNum + g.sharedDevNum == 0;
    };
    const float alone = -std::fabs(1.0f - graph.devReqScaled);
    GraphItem* withoutDevice = largest(graphs, alone, fitsAndIsNew, distance);
    return withoutDevice != nullptr ? withoutDevice : largest(graphs, alone, fits, distance);
}

GraphItem* NaiveMapper::fractionOnly() {
    return largest(graphs, 0.0f, isFractionOnly, [](const GraphItem& g) { return g.devReqScaled; });
}

}  // namespace kelm
