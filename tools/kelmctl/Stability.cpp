#include "tools/kelmctl/Stability.h"

#include <algorithm>

namespace kelm::ctl {

namespace {

constexpr double kMostRatio = 1.1;

}  // namespace

// Windows without results are alike, but tell nothing.
bool Stability::isWithin(double Window::*figure) const {
    const auto [least, most] = std::minmax_element(
        m_windows.end() - kWindows, m_windows.end(),
        [figure](const Window& a, const Window& b) { return a.*figure < b.*figure; });
    return (*least).*figure > 0.0 && (*most).*figure <= kMostRatio * (*least).*figure;
}

bool Stability::isStable() const {
    return m_windows.size() >= kWindows && isWithin(&Window::rate) && isWithin(&Window::p99Millis);
}

}  // namespace kelm::ctl
