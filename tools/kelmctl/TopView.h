#pragma once

#include <array>
#include <vector>

#include "tools/kelmctl/TopControls.h"
#include "tools/kelmctl/TopGrid.h"
#include "tools/kelmctl/TopModel.h"

namespace kelm::ctl {

// A picture, and how far each section may be scrolled in it.
struct TopFrame {
    TopGrid grid;
    std::array<size_t, kTopSections> mostOffsets{};
};

// Draws the model as the controls want it. Pure.
class TopView {
 public:
    // Both are borrowed for the view's life.
    TopView(const TopModel& model, const TopControls& controls, bool utf8)
        : m_model(model), m_controls(controls), m_utf8(utf8) {}

    TopFrame draw(size_t width, size_t height, TopModel::Time now) const;

 private:
    // A section with its rows and the lines that it gets for them.
    struct Part {
        TopSection section;
        std::vector<const TopRow*> rows;
        size_t lines = 0;
    };
    struct Banner {
        std::u32string head;
        std::u32string why;
        TopStyle style = TopStyle::kPlain;
    };
    // A column with its place on the line.
    struct Place {
        const TopColumn* column;
        size_t x;
        size_t width;
    };

    void drawTitle(TopGrid& grid, TopModel::Time now) const;
    void drawCounts(TopGrid& grid) const;
    // The lines that it takes, one at least.
    size_t drawBanner(TopGrid& grid, TopModel::Time now) const;
    // What is most urgent; empty if nothing is.
    Banner findBanner(TopModel::Time now) const;
    void drawHelp(TopGrid& grid) const;
    static void drawKeys(TopGrid& grid, size_t y);
    void drawParts(TopFrame& frame, size_t y) const;
    std::vector<Part> partsFor(size_t lines) const;
    void drawPart(TopGrid& grid, size_t y, const Part& part) const;
    void drawHeading(TopGrid& grid, size_t y, const Part& part,
                     const std::vector<Place>& places) const;
    void drawRow(TopGrid& grid, size_t y, const TopRow& row,
                 const std::vector<Place>& places) const;
    bool isShown(TopSection section) const;
    std::u32string shownRange(const Part& part) const;
    size_t firstRow(const Part& part) const;
    std::u32string cellText(const TopRow& row, const Place& place) const;
    std::u32string safe(const std::string& text) const;

    const TopModel& m_model;
    const TopControls& m_controls;
    const bool m_utf8;
};

}  // namespace kelm::ctl
