#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "devices/DeviceFigures.h"
#include "utils/TextTable.h"

namespace kelm {

// The table of devices that an operator reads in the log, with a column per device. Widths, labels
// and the order of rows are what tools and eyes are used to.
//
// Threads: one. Borrows the figures.
class DeviceSnapshot {
 public:
    struct Style {
        bool isList = true;    // each cell bears its label, else there is a column of labels
        bool isFull = false;   // with times, counts and the names of the cached graphs
        int slots = 1;         // blocks of rows, one for each graph that a device runs at once
        int cachedGraphs = 0;  // places for their names
    };

    struct Row;  // a line of the source's tables

    // `now` is the end of what still runs. Each device has figures of `style.slots` slots.
    DeviceSnapshot(const Style& style, const std::vector<DeviceFigures>& devices,
                   GraphFigures::TimePoint now);

    // Draws it; once. No line end behind the last line.
    std::string format(int subclass);

 private:
    // `index` is the number of a slot or of a place in the cache.
    void drawRow(const Row& row, int index);
    void drawRows(std::span<const Row> rows, int index);
    void drawSlot(int slot);

    const Style m_style;
    const std::vector<DeviceFigures>& m_devices;
    const GraphFigures::TimePoint m_now;
    TextTable m_table;
};

}  // namespace kelm
