// What does a new map cost, with few devices and with many? Told in sorts of 1024 floats.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <vector>

#include "bench/CpuTime.h"
#include "scheduling/mapping/GraphMapper.h"

namespace {

// Where the demand lies decides which step of the mapping has the work.
enum Demand { kAnything, kAllAlike, kFewHeavy };

class Pool {
 public:
    Pool(size_t devices, size_t graphs, int maxGraphs, Demand demand)
        : m_graphs(graphs), m_demand(demand) {
        m_mapper.setMaxGraphNumPerDevice(maxGraphs);
        m_mapper.setMaxPendingCycle(3);
        m_mapper.setMaxPendingTaskNum(20);
        for (size_t i = 0; i < devices; ++i) {
            m_mapper.addDevice(reinterpret_cast<kelm::WorkThread*>(key(i)), 512, "worker");
        }
        for (size_t i = 0; i < graphs; ++i) m_mapper.addGraph(graph(i), 10, 0, "graph");
    }

    void measureDemand() {
        for (size_t i = 0; i < m_graphs; ++i) m_mapper.updateGraph(graph(i), nextDemand(i), 100, 1);
    }
    void remap() { benchmark::DoNotOptimize(m_mapper.mapGraph()); }

 private:
    static uintptr_t key(size_t index) { return 0x10000 + index * 16; }
    static kelm::KelmGraph* graph(size_t index) {
        return reinterpret_cast<kelm::KelmGraph*>(key(index));
    }
    float nextDemand(size_t index) {
        const float any = std::uniform_real_distribution<float>(0.0f, 1.0f)(m_random);
        m_turn += index == 0;
        if (m_demand == kAllAlike) return m_turn % 2 == 0 ? 0.4f : 0.8f;
        return m_demand == kFewHeavy && index % 16 == 0 ? 8.0f * any : any;
    }

    kelm::GraphMapper m_mapper;
    const size_t m_graphs;
    const Demand m_demand;
    size_t m_turn = 0;
    std::mt19937 m_random{7};
};

template <class Work>
double secondsOf(Work work) {
    const double start = kelm::threadSeconds();
    work();
    return kelm::threadSeconds() - start;
}

double secondsOfSort(std::mt19937& random) {
    std::vector<float> values(1024);
    for (float& value : values) value = std::uniform_real_distribution<float>()(random);
    return secondsOf([&values] {
        std::sort(values.begin(), values.end());
        benchmark::DoNotOptimize(values.data());
    });
}

void remap(benchmark::State& state) {
    Pool pool(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)),
              static_cast<int>(state.range(2)), static_cast<Demand>(state.range(3)));
    std::mt19937 random{1};
    double inSorts = 0.0;
    double inRemaps = 0.0;
    double worst = 0.0;
    for (auto _ : state) {
        pool.measureDemand();
        const double seconds = secondsOf([&pool] { pool.remap(); });
        state.SetIterationTime(seconds);
        inRemaps += seconds;
        worst = std::max(worst, seconds);
        inSorts += secondsOfSort(random);
    }
    state.counters["sorts"] = inRemaps / inSorts;
    state.counters["worst_ms"] = worst * 1e3;
}

}  // namespace

BENCHMARK(remap)
    ->ArgNames({"devices", "graphs", "perDevice", "demand"})
    ->ArgsProduct({{32}, {64}, {2}, {kAnything, kAllAlike, kFewHeavy}})
    ->ArgsProduct({{512}, {1024}, {1, 2}, {kAnything, kAllAlike, kFewHeavy}})
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
