#pragma once

#include <array>
#include <string>

#include "tools/kelmctl/TopColumns.h"
#include "tools/kelmctl/TopModel.h"

namespace kelm::ctl {

// A key as the terminal gives it: a character, or one of these.
enum TopKey : int {
    kTopKeyUp = 0x110000,
    kTopKeyDown,
    kTopKeyPageUp,
    kTopKeyPageDown,
    kTopKeyHome,
    kTopKeyBackspace,
    kTopKeyBackTab,
    kTopKeyOther,
};

// What the user has chosen by keys.
//
// Threads: one.
class TopControls {
 public:
    TopControls();

    // False when the user wants to leave.
    bool handleKey(int key);
    // How far each section may be scrolled, as the last picture tells.
    void limitOffsets(const std::array<size_t, kTopSections>& most);

    TopSection selected() const { return m_selected; }
    TopOrder order(TopSection section) const;
    size_t offset(TopSection section) const { return m_offsets[static_cast<size_t>(section)]; }
    const std::string& filter() const { return m_filter; }
    bool isEditing() const { return m_editing; }  // the filter
    bool isPaused() const { return m_paused; }
    bool isHelping() const { return m_helping; }  // the keys are shown
    bool isZoomed() const { return m_zoomed; }

 private:
    struct KeyRow;
    static const KeyRow kKeys[];

    void editFilter(int key);
    void select(size_t step);
    void sortByNext();
    void scroll(ptrdiff_t rows);

    TopSection m_selected = TopSection::kDevices;
    std::array<size_t, kTopSections> m_columns;  // that rows are sorted by
    std::array<bool, kTopSections> m_reversed{};
    std::array<size_t, kTopSections> m_offsets{};
    std::array<size_t, kTopSections> m_mostOffsets{};
    std::string m_filter;
    bool m_editing = false;
    bool m_helping = false;
    bool m_paused = false;
    bool m_zoomed = false;
};

}  // namespace kelm::ctl
