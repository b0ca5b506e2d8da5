#include "tools/kelmctl/TopControls.h"

#include <algorithm>
#include <utility>

namespace kelm::ctl {

namespace {

constexpr ptrdiff_t kPage = 10;
constexpr size_t kLongestFilter = 40;
constexpr int kEscape = 27;

}  // namespace

// One row a key. Those of the filter line are apart, as they mean characters there.
struct TopControls::KeyRow {
    int key;
    void (*act)(TopControls& controls);
};

const TopControls::KeyRow TopControls::kKeys[] = {
    {'p', [](TopControls& c) { c.m_paused = !c.m_paused; }},
    {' ', [](TopControls& c) { c.m_paused = !c.m_paused; }},
    {'\t', [](TopControls& c) { c.select(1); }},
    {kTopKeyBackTab, [](TopControls& c) { c.select(kTopSections - 1); }},
    {'s', [](TopControls& c) { c.sortByNext(); }},
    {'r',
     [](TopControls& c) {
         bool& reversed = c.m_reversed[static_cast<size_t>(c.m_selected)];
         reversed = !reversed;
     }},
    {'z', [](TopControls& c) { c.m_zoomed = !c.m_zoomed; }},
    {'/', [](TopControls& c) { c.m_editing = true; }},
    {'?', [](TopControls& c) { c.m_helping = true; }},
    {kEscape, [](TopControls& c) { c.m_filter.clear(); }},
    {kTopKeyUp, [](TopControls& c) { c.scroll(-1); }},
    {kTopKeyDown, [](TopControls& c) { c.scroll(1); }},
    {kTopKeyPageUp, [](TopControls& c) { c.scroll(-kPage); }},
    {kTopKeyPageDown, [](TopControls& c) { c.scroll(kPage); }},
    {kTopKeyHome, [](TopControls& c) { c.m_offsets[static_cast<size_t>(c.m_selected)] = 0; }},
};

TopControls::TopControls() {
    for (size_t i = 0; i < kTopSections; ++i) {
        m_columns[i] = topFirstOrder(static_cast<TopSection>(i));
    }
}

bool TopControls::handleKey(int key) {
    // While the filter is edited every key belongs to it, that for leaving as well.
    if (m_editing) {
        editFilter(key);
        return true;
    }
    if (key == 'q' || key == 'Q') return false;
    // The key that leaves the help does nothing else.
    if (std::exchange(m_helping, false)) return true;
    for (const KeyRow& row : kKeys) {
        if (row.key == key) row.act(*this);
    }
    return true;
}

// ASCII only: other characters come as several keys.
void TopControls::editFilter(int key) {
    if (key == '\n' || key == '\r') m_editing = false;
    if (key == kEscape) {
        m_editing = false;
        m_filter.clear();
    }
    if (key == kTopKeyBackspace && !m_filter.empty()) m_filter.pop_back();
    const bool printable = key >= ' ' && key <= '~';
    if (printable && m_filter.size() < kLongestFilter) m_filter += static_cast<char>(key);
}

void TopControls::select(size_t step) {
    m_selected = static_cast<TopSection>((static_cast<size_t>(m_selected) + step) % kTopSections);
}

// A history has no order of its own.
void TopControls::sortByNext() {
    const auto columns = topColumns(m_selected);
    size_t& column = m_columns[static_cast<size_t>(m_selected)];
    do {
        column = (column + 1) % columns.size();
    } while (columns[column].kind == TopColumn::Kind::kHistory);
}

void TopControls::scroll(ptrdiff_t rows) {
    const auto section = static_cast<size_t>(m_selected);
    const auto wanted = static_cast<ptrdiff_t>(m_offsets[section]) + rows;
    const auto most = static_cast<ptrdiff_t>(m_mostOffsets[section]);
    m_offsets[section] = static_cast<size_t>(std::clamp<ptrdiff_t>(wanted, 0, most));
}

// Called with each picture: rows may have left since, or the terminal has grown.
void TopControls::limitOffsets(const std::array<size_t, kTopSections>& most) {
    if (m_helping) return;  // the page of help has no rows
    m_mostOffsets = most;
    for (size_t i = 0; i < kTopSections; ++i) m_offsets[i] = std::min(m_offsets[i], most[i]);
}

TopOrder TopControls::order(TopSection section) const {
    const auto index = static_cast<size_t>(section);
    return {m_columns[index], m_reversed[index], m_filter};
}

}  // namespace kelm::ctl
