#pragma once

#include <cstddef>
#include <functional>
#include <span>
#include <vector>

namespace kelm {

// Every order in which some threads can pass their locks, one after the other, up to a number of
// preemptions: of the moments at which a thread that could go on is held up for another. A thread
// is held up only before it takes a mutex and after it has given one back, which is enough for code
// whose shared data is guarded; see Interleavings.cpp.
//
// Threads: the bodies run on threads of their own, never two at once. Threads that the bodies
// start, and pools, run freely.
class Interleavings {
 public:
    explicit Interleavings(size_t preemptions) : m_preemptions(preemptions) {}

    // One; KELM_RACES in the environment raises it, see scripts/prove.sh.
    static size_t wantedPreemptions();

    // From the next run on threads are held up only at the mutexes within these objects: where
    // others run freely, as the threads of pools, one that is held up on its way to wake them could
    // keep all from going on.
    template <class... Objects>
    void watchOnly(const Objects&... objects) {
        m_watched = {std::as_bytes(std::span(&objects, 1))...};
    }
    bool isWatched(const void* mutex) const;

    // Runs the bodies in the next order; false, and nothing is run, once all have been met.
    bool runNext(const std::vector<std::function<void()>>& bodies);

    size_t countRuns() const { return m_runs; }
    // For the one that is running: which of so many threads goes on, 0 for the one that has run
    // up to here, if it can (`isFree` false).
    size_t choose(size_t options, bool isFree);

 private:
    struct Decision {
        size_t chosen;
        size_t options;
        bool isFree;  // costs no preemption
    };
    // To the next path in the tree of decisions.
    bool advance();

    const size_t m_preemptions;
    std::vector<std::span<const std::byte>> m_watched;  // none: all
    std::vector<Decision> m_path;
    size_t m_depth = 0;  // of the next decision
    size_t m_used = 0;   // preemptions
    size_t m_runs = 0;
};

}  // namespace kelm
