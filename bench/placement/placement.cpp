#include <fmt/format.h>

#include <algorithm>
#include <string>

#include "bench/placement/AdaptivePlanner.h"
#include "bench/placement/Hindsight.h"
#include "bench/placement/Mixes.h"
#include "bench/placement/SqueezePlanner.h"

using namespace kelm;

static Scenario row(const std::string& name, size_t devices, uint32_t slots,
                    std::vector<double> rates, double load, uint64_t seed) {
    Scenario s;
    s.name = name;
    s.speeds.assign(devices, 1.0);
    s.slots = slots;
    for (double r : rates) s.graphs.push_back({.rate = r, .kind = ArrivalKind::Poisson});
    s.loadTime = load;
    s.seed = seed;
    return s;
}
static double pct(std::vector<float> v, double q) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<size_t>(q * static_cast<double>(v.size())))];
}
static void show(const Scenario& s, const char* who, const Outcome& o) {
    double off = 0;
    for (auto& g : s.graphs) off += g.rate * g.taskTime;
    double busy = 0;
    for (double b : o.busy) busy += b / s.seconds / static_cast<double>(o.busy.size());
    uint64_t refused = 0;
    for (auto& g : o.graphs) refused += g.refused;
    double p99 = 0, sp50 = 0, sp90 = 0, sp99 = 0;
    double least = 1e9;
    for (auto& g : s.graphs) least = std::min(least, g.rate);
    std::vector<float> small;
    for (size_t i = 0; i < o.graphs.size(); ++i) {
        p99 = std::max(p99, pct(o.graphs[i].latencies, .99));
        if (s.graphs[i].rate <= least) small.insert(small.end(), o.graphs[i].latencies.begin(), o.graphs[i].latencies.end());
    }
    sp50 = pct(small, .5), sp90 = pct(small, .9), sp99 = pct(small, .99);
    fmt::print("{:28} {:9} load {:.1f} offered {:6.3f} done {:6.3f} busy {:.3f} refused {:6} loads {:4} late {:4} small {:6.0f} {:6.0f} {:6.0f} worst99 {:6.0f} plan {:.2f} ms\n",
               s.name, who, s.loadTime, off, o.throughput, busy, refused, o.loads, o.lateLoads, sp50, sp90, sp99, p99, o.slowestPlan * 1e3);
}
static void mixes(uint64_t first, uint64_t last, bool verbose) {
    std::vector<double> all[3];
    for (uint64_t n = first; n <= last; ++n) {
        Scenario s = makeMix(n);
        double ratio[3];
        double bound = 0;
        bool exact = false;
        Outcome out[3];
        for (int i = 0; i < 3; ++i) {
            s.fairTasks = i == 2;
            if (i == 0) { SqueezePlanner p(s); out[i] = Simulation(s, p).run(); }
            else { AdaptivePlanner p; out[i] = Simulation(s, p).run(); }
            Outcome& o = out[i];
            if (i == 0) {
                std::vector<std::vector<double>> w;
                for (auto& g : o.graphs) w.push_back(g.workInTenth);
                const Hindsight h = findBestFixed(s, w);
                exact = h.isExact;
                bound = std::min(h.throughput, commonQueueBound(s, w));
            }
            ratio[i] = o.throughput / bound;
            all[i].push_back(ratio[i]);
        }
        if (verbose) {
            for (size_t g = 0; g < s.graphs.size(); ++g) {
                auto& o = out[2].graphs[g];
                auto& q = s.graphs[g];
                double w = q.rate * q.taskTime;
                fmt::print("  g{} kind {} w {:.2f} -> {:.2f} T {:.1f} rate {:.0f} mem {} done {:.3f} refused {:.3f} sq {:.3f} p99 {:.0f}\n", g, int(q.kind), w, q.otherRate * q.taskTime, q.period, q.rate, q.memory,
                  double(o.done) / double(o.arrived), double(o.refused) / double(o.arrived), double(out[0].graphs[g].done) / double(o.arrived), pct(o.latencies, .99));
            }
            for (double b : out[2].busy) fmt::print(" {:.2f}", b / s.seconds);
            fmt::print("\n");
        }
        if (verbose || ratio[2] < 0.93) {
            double off = 0, sp = 0; for (auto& g : s.graphs) off += g.rate * g.taskTime; for (double v : s.speeds) sp += v;
            fmt::print("mix {:3} {:2}x{} ({:.1f}) graphs {:2} load {:.2f} c {:.2f} bound {:.3f}{} squeeze {:.3f} adaptive {:.3f} fair {:.3f} loads {} late {}\n", n, s.speeds.size(), s.slots, sp, s.graphs.size(), off / sp, s.loadTime, bound, exact ? "=" : "<", ratio[0], ratio[1], ratio[2], out[2].loads, out[2].lateLoads);
        }
    }
    for (auto& v : all) {
        std::sort(v.begin(), v.end());
        fmt::print("median {:.3f} 5% {:.3f} worst {:.3f}\n", v[v.size() / 2], v[v.size() / 20], v[0]);
    }
}
int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "fleet") {
        for (int i = 2; i < argc; ++i) {
            Scenario s = makeFleet(std::stoul(argv[i]), 1);
            if (s.speeds.size() <= 512) { SqueezePlanner p(s); show(s, "squeeze2", Simulation(s, p).run()); }
            AdaptivePlanner p; Outcome o = Simulation(s, p).run(); show(s, "adaptive", o);
            std::vector<std::vector<double>> w;
            for (auto& g : o.graphs) w.push_back(g.workInTenth);
            double top = 0; for (auto& g : s.graphs) if (g.rate * g.taskTime > 1) top += g.rate * g.taskTime;
            fmt::print("bound {:.1f} first {:.1f} above one {:.1f}\n", findBestFixed(s, w).throughput, s.graphs[0].rate * s.graphs[0].taskTime, top);
        }
        return 0;
    }
    if (argc > 1 && std::string(argv[1]) == "mixes") { mixes(std::stoul(argv[2]), std::stoul(argv[3]), argc > 4); return 0; }
    struct R { const char* n; size_t d; uint32_t s; std::vector<double> r; };
    const R rows[] = {{"4x2 60/2/2/2", 4, 2, {60, 2, 2, 2}},
                      {"8x2 70+7x2", 8, 2, {70, 2, 2, 2, 2, 2, 2, 2}},
                      {"3x2 160/80/60/30", 3, 2, {160, 80, 60, 30}},
                      {"3x1 80/60/40/20/10", 3, 1, {80, 60, 40, 20, 10}},
                      {"8x1 260/150/90/80/60/40", 8, 1, {260, 150, 90, 80, 60, 40}},
                      {"8x2 450/200/90/60/40/20", 8, 2, {450, 200, 90, 60, 40, 20}}};
    (void)argv;
    for (double load : {0.0, 0.3}) {
        for (auto& r : rows) {
            for (int seed = 1; seed <= (argc > 1 ? 3 : 1); ++seed) {
                Scenario s = row(r.n, r.d, r.s, r.r, load, static_cast<uint64_t>(seed));
                if (argc > 1) for (auto& g : s.graphs) g.kind = ArrivalKind::Constant;
                { SqueezePlanner p(s); show(s, "squeeze2", Simulation(s, p).run()); }
                { AdaptivePlanner p; show(s, "adaptive", Simulation(s, p).run()); }
                s.fairTasks = true;
                { SqueezePlanner p(s); show(s, "sq fair", Simulation(s, p).run()); }
                { AdaptivePlanner p; show(s, "ad fair", Simulation(s, p).run()); }
            }
        }
    }
}
