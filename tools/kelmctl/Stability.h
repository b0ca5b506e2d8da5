#pragma once

#include <cstddef>
#include <vector>

namespace kelm::ctl {

// Tells when a run has become stable: the last three of its windows lie within 10% of each other,
// in rate and in 99th percentile.
//
// Threads: one.
class Stability {
 public:
    static constexpr size_t kWindows = 3;

    struct Window {
        double rate = 0.0;       // results a second
        double p99Millis = 0.0;  // of their latencies
    };

    void add(const Window& window) { m_windows.push_back(window); }
    bool isStable() const;
    const std::vector<Window>& windows() const { return m_windows; }

 private:
    bool isWithin(double Window::*figure) const;

    std::vector<Window> m_windows;
};

}  // namespace kelm::ctl
