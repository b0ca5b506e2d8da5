#pragma once

#include <algorithm>
#include <chrono>

#include "client/Client.h"
#include "tools/kelmctl/UsageError.h"

namespace kelm::ctl {

// How long a command may take, as an option gives it.
//
// Threads: any.
class Timeout {
 public:
    using Clock = std::chrono::steady_clock;

    // Throws UsageError unless these are 0 to 1000000 seconds. The time begins now.
    explicit Timeout(double seconds) {
        constexpr double kMostSeconds = 1e6;
        if (!(seconds >= 0.0 && seconds <= kMostSeconds)) {
            throw UsageError("a time-out is 0 to 1000000 seconds");
        }
        m_end = Clock::now() +
                std::chrono::ceil<Clock::duration>(std::chrono::duration<double>(seconds));
    }

    Clock::time_point end() const { return m_end; }
    bool isOver() const { return Clock::now() >= m_end; }
    // What is left, for a call to the service, whose shortest time is 1 ms.
    client::Deadline left() const {
        const auto left = std::chrono::ceil<client::Deadline>(m_end - Clock::now());
        return std::max(left, client::Deadline(1));
    }

 private:
    Clock::time_point m_end;
};

}  // namespace kelm::ctl
