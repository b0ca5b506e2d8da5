#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/kelmctl/export/ExportModel.h"

namespace kelm::ctl {

// Of all graphs; nothing where the service did not tell.
std::optional<uint64_t> waitingTasks(const ExportSnapshot& snapshot);

// The last 15 minutes of some figures, as means of 5 seconds each. Its size is bounded: 180 means
// of at most kMostDevices devices and three figures of the whole service.
//
// Threads: one at a time.
class PageHistory {
 public:
    using Time = std::chrono::steady_clock::time_point;
    // Oldest first, one a slot; nothing where nothing was known.
    using Values = std::vector<std::optional<double>>;

    static constexpr size_t kSlots = 180;
    static constexpr std::chrono::seconds kSlot{5};
    static constexpr size_t kMostDevices = 64;

    // Of the whole service.
    enum Figure { kRate, kWaiting, kHottest, kFigures };

    // What was not looked at for a while has gaps. Times do not go back.
    void add(const ExportSnapshot& snapshot, Time now);

    Values values(Figure figure) const { return valuesOf(m_figures.at(figure)); }
    // The rate of the devices of this name.
    Values deviceRate(const std::string& name) const;

 private:
    struct Mean {
        double sum = 0.0;
        uint32_t count = 0;
        std::optional<double> newest;
    };
    // The newest last; shorter where the figure is younger.
    using Series = std::deque<Mean>;

    static Values valuesOf(const Series& series);
    static void addTo(Series& series, std::optional<double> value);
    // No newest value is known then.
    void advance(int64_t slot);

    std::optional<int64_t> m_slot;  // of the newest means
    std::array<Series, kFigures> m_figures;
    std::map<std::string, Series> m_devices;
};

}  // namespace kelm::ctl
