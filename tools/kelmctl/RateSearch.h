#pragma once

#include <optional>

namespace kelm::ctl {

// Looks for the highest rate that holds a bound: doubles or halves it until it lies between a rate
// that holds and one that does not, then narrows that down to 5%.
//
// Threads: one.
class RateSearch {
 public:
    // `first` is tried first, `least` is the lowest rate worth a try; requests a second, above 0.
    RateSearch(double first, double least);

    // The rate to try now; none when the search has ended.
    std::optional<double> next() const;
    // How next() went.
    void tell(bool held);
    // The highest rate that has held, if any.
    std::optional<double> found() const;

 private:
    const double m_least;
    double m_next;
    double m_held = 0.0;    // 0: none yet
    double m_failed = 0.0;  // 0: none yet
    int m_steps = 0;
};

}  // namespace kelm::ctl
