#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

#include "scheduling/mapping/MapperModel.h"

namespace kelm {

// Planner and matcher in their plainest form, every choice a walk over everything: what the indexed
// ones must agree with, choice by choice. Works on a copy of a model's picture.
class NaiveMapper {
 public:
    struct Graph {
        KelmGraph* key;
        float demand;
        uint32_t memory;
        bool runs;
        uint32_t own, shared;  // devices
        float scaled;
    };
    struct Device {
        std::vector<Graph*> graphs;
        bool taken = false;
        float load = 0.0f;
        bool isFull = false;
        bool isMatched = false;
        uint32_t memSize = 0;
    };

    NaiveMapper(const MapperModel& model, uint32_t maxGraphs)
        : shadows(model.devices().size()),
          m_maxGraphs(maxGraphs),
          m_memSize(model.getDeviceMemSize()) {
        for (const GraphItem* item : model.graphs()) {
            graphs.push_back({item->graph, item->devReq, item->memReq,
                              item->status == MAPPER_GRAPH_RUN, item->dedicatedDevNum,
                              item->sharedDevNum, item->devReqScaled});
        }
        for (const DeviceItem* item : model.devices()) {
            Device& device = real.emplace_back();
            device.taken = item->devStatus != MAPPER_GRAPH_NONE;
            for (const GraphItem* held : item->graphs) {
                const auto same = [held](const Graph& g) { return g.key == held->graph; };
                device.graphs.push_back(&*std::find_if(graphs.begin(), graphs.end(), same));
            }
            shadows[real.size() - 1].memSize = item->memSize;
        }
    }

    int32_t plan(uint32_t deviceNum) {
        m_left = deviceNum;
        float sum = 0.0f;
        uint32_t running = 0;
        for (const Graph& g : graphs) {
            if (g.runs) sum += g.demand;
            running += g.runs;
        }
        const uint32_t places = m_maxGraphs * deviceNum;
        if (running > places) return static_cast<int32_t>(running - places);
        float ratio = sum / static_cast<float>(deviceNum);
        if (ratio < 0.5f && running > deviceNum) ratio = 1.0f;
        if (!giveWholeDevices(ratio)) return -1;
        giveFractions();
        if (const int32_t rest = force(); rest != 0) return rest;
        relieve();
        for (Graph& g : graphs) {
            if (g.runs) g.scaled = g.demand / ratio;
        }
        workOutLoads(shadows);
        return 0;
    }

    void match() {
        for (Device& d : real) {
            std::pair<int, Device*> best{0, nullptr};
            for (Device& s : shadows) {
                if (const int score = alike(d, s); score > best.first) best = {score, &s};
            }
            if (best.second != nullptr) give(d, *best.second);
        }
        for (Device& d : real) {
            if (d.isMatched) continue;
            d.taken = false;
            const auto s = std::find_if(shadows.begin(), shadows.end(), [](const Device& shadow) {
                return !shadow.graphs.empty() && !shadow.isMatched;
            });
            if (s == shadows.end()) continue;
            if (s->graphs[0]->demand < s->graphs.back()->demand) turn(*s);
            give(d, *s);
        }
        workOutLoads(real);
    }

    std::deque<Graph> graphs;
    std::deque<Device> real;
    std::deque<Device> shadows;

 private:
    bool giveWholeDevices(float ratio) {
        for (Graph& g : graphs) {
            if (!g.runs) continue;
            g.own = g.shared = 0;
            g.scaled = g.demand / ratio;
            if (!(g.scaled >= 1.0f)) continue;
            const float whole = std::floor(g.scaled);
            g.scaled -= whole;
            if (static_cast<double>(g.scaled / whole) < 0.1) g.scaled = 0.0f;
            for (float i = 0.0f; i < whole; i += 1.0f) {
                if (freeDevice() == nullptr) return false;
                if (m_left == 0) break;
                take({&g}, 1.0f)->isFull = true;
                ++g.own;
            }
        }
        return true;
    }

    void giveFractions() {
        while (freeDevice() != nullptr) {
            Graph* g = firstGraph();
            if (g == nullptr || m_left == 0) return;
            Graph* p = m_maxGraphs == 2 ? partner(*g) : nullptr;
            if (p != nullptr && static_cast<double>(p->own) < static_cast<double>(p->demand)) {
                take({g, p}, g->scaled + p->scaled)->isFull = true;
                g->shared = p->shared = 1;
                p->scaled = 0.0f;
            } else {
                take({g}, g->scaled);
                ++g->own;
            }
            g->scaled = 0.0f;
        }
    }

    int32_t force() {
        while (Graph* g = largest(graphs, 0.0f, hasNoDevice, scaledOf)) {
            Device* d = m_maxGraphs != 1 ? leastBusy(g->memory) : nullptr;
            if (d == nullptr) {
                return static_cast<int32_t>(
                    std::count_if(graphs.begin(), graphs.end(), hasNoDevice));
            }
            d->graphs.push_back(g);
            d->isFull = true;
            g->scaled = 0.0f;
            --d->graphs[0]->own;
            g->shared = d->graphs[0]->shared = 1;
        }
        return 0;
    }

    void relieve() {
        while (freeDevice() != nullptr && m_left > 0) {
            const auto holds = [](size_t number) {
                return [number](const Device& d) { return d.graphs.size() == number; };
            };
            Device* busy = largest(shadows, 0.0f, holds(2), loadOf);
            if (busy == nullptr) busy = largest(shadows, 0.0f, holds(1), loadOf);
            if (busy == nullptr) return;
            Graph* moved = busy->graphs.back();
            take({moved}, 0.0f);
            ++moved->own;
            if (busy->graphs.size() == 1) continue;
            busy->graphs.pop_back();
            ++busy->graphs[0]->own;
            busy->graphs[0]->shared = moved->shared = 0;
        }
    }

    // The item of the largest value above the bound, the first in the walk among equals, or null.
    template <class Items, class Fits, class Value>
    static typename Items::value_type* largest(Items& items, float bound, Fits fits, Value value) {
        typename Items::value_type* best = nullptr;
        for (auto& item : items) {
            if (!fits(item) || !(value(item) > bound)) continue;
            bound = value(item);
            best = &item;
        }
        return best;
    }
    static float scaledOf(const Graph& g) { return g.scaled; }
    static float loadOf(const Device& d) { return d.load; }
    static bool hasFraction(const Graph& g) { return g.runs && g.scaled > 0.0f; }
    static bool hasNoDevice(const Graph& g) { return hasFraction(g) && g.own == 0; }

    Device* freeDevice() {
        const auto isFree = [](const Device& d) { return !d.taken; };
        return largest(shadows, 0.0f, isFree, [](const Device&) { return 1.0f; });
    }
    Device* take(std::vector<Graph*> put, float load) {
        Device* device = freeDevice();
        device->graphs = std::move(put);
        device->taken = true;
        device->load = load;
        --m_left;
        return device;
    }
    Device* leastBusy(uint32_t memory) {
        const auto fits = [memory](const Device& d) {
            return d.graphs.size() == 1 && !d.isFull && d.graphs[0]->shared != 1 &&
                   memory < d.memSize;
        };
        return largest(shadows, -100.0f, fits, [](const Device& d) { return -d.load; });
    }
    Graph* firstGraph() {
        Graph* small = largest(graphs, -1.0f, hasNoDevice, [](auto& g) { return -g.scaled; });
        const auto weight = [](const Graph& g) { return g.scaled / static_cast<float>(g.own); };
        return small != nullptr ? small : largest(graphs, 0.0f, hasFraction, weight);
    }
    Graph* partner(const Graph& graph) {
        const auto nearness = [&](const Graph& g) {
            return -std::fabs(graph.scaled + g.scaled - 1.0f);
        };
        const auto fits = [&](const Graph& g) {
            return hasFraction(g) && &g != &graph && g.memory + graph.memory <= m_memSize;
        };
        const auto fitsAndIsNew = [&](const Graph& g) { return fits(g) && g.own + g.shared == 0; };
        const float alone = -std::fabs(1.0f - graph.scaled);
        Graph* found = largest(graphs, alone, fitsAndIsNew, nearness);
        return found != nullptr ? found : largest(graphs, alone, fits, nearness);
    }

    static void turn(Device& d) { std::reverse(d.graphs.begin(), d.graphs.end()); }

    // 4: the same graphs. 3: the device gives one up. 2: it takes one more. 1: it changes one.
    static int alike(const Device& d, Device& s) {
        if (!d.taken || d.graphs.empty() || s.graphs.empty() || s.isMatched) return 0;
        if (s.graphs.back() == d.graphs[0]) turn(s);
        if (s.graphs[0] != d.graphs[0]) return 0;
        if (d.graphs.size() != s.graphs.size()) return d.graphs.size() == 1 ? 2 : 3;
        return d.graphs.back() == s.graphs.back() ? 4 : 1;
    }
    static void give(Device& d, Device& s) {
        s.isMatched = true;
        if (!d.graphs.empty() && s.graphs.back() == d.graphs[0]) turn(s);
        d = s;
    }

    static void workOutLoads(std::deque<Device>& devices) {
        for (Device& d : devices) {
            if (!d.taken) d.graphs.clear();
            if (!d.graphs.empty()) d.load = workOutLoad(*d.graphs[0], *d.graphs.back());
        }
    }
    static float workOutLoad(const Graph& g, const Graph& h) {
        const float ratio = g.demand / g.scaled;
        const float gOwn = static_cast<float>(g.own);
        const float hOwn = static_cast<float>(h.own);
        if (&g == &h) return g.own >= 1 && g.shared == 0 ? g.demand / gOwn : ratio;
        if (g.own + h.own == 0) return g.demand + h.demand;
        if (g.own != 0 && h.own != 0) return g.demand - gOwn * ratio + h.demand - hOwn * ratio;
        return g.demand + h.demand - (g.demand < 1.0f ? hOwn : gOwn) * ratio;
    }

    const uint32_t m_maxGraphs;
    const uint32_t m_memSize;
    uint32_t m_left = 0;
};

}  // namespace kelm
