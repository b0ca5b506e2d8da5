#include "tools/kelmctl/TopView.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "tools/kelmctl/SafeText.h"
#include "utils/TimeHelper.h"

namespace kelm::ctl {

namespace {

constexpr size_t kBannerLine = 2;
constexpr size_t kHelpLines = 1;
constexpr size_t kGutter = 1;  // shows the selected section, also without colours
constexpr std::chrono::seconds kBackShown(10);

struct HelpRow {
    std::u32string_view keys;
    std::u32string_view does;
};
constexpr HelpRow kHelp[] = {
    {U"q, Ctrl-C", U"quit"},
    {U"p, space", U"hold the rows as they are, or go on"},
    {U"Tab, Shift-Tab", U"select the next, previous section, marked with >"},
    {U"s", U"sort the section by its next column"},
    {U"r", U"reverse the order"},
    {U"arrows, Page, Home", U"scroll the section"},
    {U"z", U"show the section alone, or all again"},
    {U"/", U"show only rows with a text; Enter keeps it, Esc drops it"},
    {U"?", U"this page"},
    {U"", U""},
    {U"-", U"not known, or not measured yet"},
    {U"THROTTLE", U"no, or the level at which a hot device is slowed down"},
    {U"WAITING", U"tasks that no device has taken yet"},
    {U"DEVICES", U"of a graph: those that hold it now"},
    {U"INFERENCES", U"results so far; of a device since it has its graph"},
    {U"HISTORY", U"a sample a second, the newest to the right"},
};

// All of these fit into the columns for numbers, whatever the value: a number is never cut.
std::u32string count(double value) {
    constexpr double kMostDigits = 1e8;
    constexpr double kMost = 9999e18;
    constexpr const char* kUnits[] = {"k", "M", "G", "T", "P", "E"};
    if (value < kMostDigits) return fromAscii(fmt::format("{:.0f}", value));
    if (value > kMost) return U">9999E";
    size_t unit = 0;
    for (value /= 1e3; value >= 1e4 && unit + 1 < std::size(kUnits); value /= 1e3) ++unit;
    return fromAscii(fmt::format("{:.1f}{}", value, kUnits[unit]));
}

std::u32string rate(double value) {
    constexpr double kMostWithDecimal = 1e6;
    return value < kMostWithDecimal ? fromAscii(fmt::format("{:.1f}", value)) : count(value);
}

std::u32string degrees(double value) {
    constexpr double kMost = 9999.0;
    return fromAscii(fmt::format("{:.1f}", std::clamp(value, -kMost, kMost)));
}

std::u32string level(double value) { return value > 0.0 ? U"L" + count(value) : U"no"; }

std::u32string number(std::optional<double> value, TopFormat format) {
    if (!value) return U"-";
    switch (format) {
        case TopFormat::kRate:
            return rate(*value);
        case TopFormat::kDegrees:
            return degrees(*value);
        case TopFormat::kLevel:
            return level(*value);
        default:
            return count(*value);
    }
}

std::u32string_view sortMark(bool upwards, bool utf8) {
    if (utf8) return upwards ? U"\u25b2" : U"\u25bc";
    return upwards ? U"^" : U"v";
}

// Between words where it can be.
std::vector<std::u32string> breakLines(std::u32string_view text, size_t width) {
    std::vector<std::u32string> lines;
    while (!text.empty()) {
        size_t end = 0;
        size_t columns = 0;
        while (end < text.size() && (columns += columnsOf(text[end])) <= width) ++end;
        const size_t blank = text.rfind(U' ', end);
        if (end < text.size() && blank != text.npos && blank > 0) end = blank + 1;
        end = std::max<size_t>(end, 1);
        lines.emplace_back(text.substr(0, end));
        text.remove_prefix(end);
    }
    return lines;
}

// Shares `lines` out: no section gets more than it needs, what one leaves is for the others.
std::vector<size_t> shareOut(size_t lines, const std::vector<size_t>& needs) {
    std::vector<size_t> shares(needs.size(), 0);
    while (lines > 0 && shares != needs) {
        for (size_t i = 0; i < needs.size() && lines > 0; ++i) {
            if (shares[i] == needs[i]) continue;
            ++shares[i];
            --lines;
        }
    }
    return shares;
}

}  // namespace

std::u32string TopView::safe(const std::string& text) const { return safeText(text, m_utf8); }

TopFrame TopView::draw(size_t width, size_t height, TopModel::Time now) const {
    TopFrame frame{TopGrid(width, height), {}};
    drawTitle(frame.grid, now);
    drawCounts(frame.grid);
    const size_t y = kBannerLine + drawBanner(frame.grid, now);
    if (m_controls.isHelping()) {
        drawKeys(frame.grid, y);
    } else {
        drawParts(frame, y);
    }
    drawHelp(frame.grid);
    return frame;
}

void TopView::drawKeys(TopGrid& grid, size_t y) {
    constexpr size_t kKeyWidth = 20;
    for (const auto& [keys, does] : kHelp) {
        if (y + kHelpLines >= grid.height()) return;
        grid.put(kGutter, y, keys, TopStyle::kHeading);
        grid.put(kGutter + kKeyWidth, y++, does, TopStyle::kPlain);
    }
}

void TopView::drawParts(TopFrame& frame, size_t y) const {
    const size_t height = frame.grid.height();
    const std::vector<Part> parts = partsFor(height > y + kHelpLines ? height - y - kHelpLines : 0);
    size_t used = 0;
    for (const Part& part : parts) used += part.lines + 1;
    // Blank lines between the sections only where nothing is cut for them.
    const bool spaced = y + used + parts.size() - 1 + kHelpLines <= height;
    for (const Part& part : parts) {
        drawPart(frame.grid, y, part);
        y += part.lines + 1 + (spaced ? 1 : 0);
        frame.mostOffsets[static_cast<size_t>(part.section)] = part.rows.size() - part.lines;
    }
}

void TopView::drawTitle(TopGrid& grid, TopModel::Time now) const {
    size_t x =
        grid.put(0, 0, U"kelmctl top  " + fromAscii(putTime(now, "%T")) + U"  ", TopStyle::kTitle);
    constexpr size_t kHistory = 30;
    const auto fps = static_cast<double>(m_model.status().serviceFps);
    const std::u32string results =
        (m_model.service().measured ? rate(fps) : U"-") + U" results/s  ";
    x = grid.put(x, 0, results, TopStyle::kTitle);
    x = grid.put(x, 0, m_model.serviceHistory().line(kHistory, m_utf8), TopStyle::kPlain);
    if (m_controls.isPaused()) grid.put(x + 1, 0, U" PAUSED ", TopStyle::kAlarm);
}

void TopView::drawCounts(TopGrid& grid) const {
    const client::ServiceStatus& status = m_model.status();
    const auto known = [this](uint32_t number) {
        return m_model.service().measured ? count(number) : U"-";
    };
    std::u32string text = known(status.deviceCount) + U" devices  " + known(status.graphCount) +
                          U" graphs  " + known(status.clientCount) + U" clients";
    if (!status.deviceScheduler.empty() || !status.taskScheduler.empty()) {
        text += U"  " + safe(status.deviceScheduler) + U", " + safe(status.taskScheduler);
    }
    if (m_model.snapshot()) {
        const client::MemorySnapshot& memory = m_model.snapshot()->memory;
        text += U"  " + count(static_cast<double>(memory.residentMB)) + U" of " +
                count(static_cast<double>(memory.totalMB)) + U" MB";
    }
    grid.put(0, 1, text, TopStyle::kPlain);
}

// Two lines at most. What does not fit is left without its first part, which tells what was tried,
// and then without its middle: the end tells what to do.
size_t TopView::drawBanner(TopGrid& grid, TopModel::Time now) const {
    constexpr size_t kLines = 2;
    constexpr std::u32string_view kMark = U": ";
    const Banner banner = findBanner(now);
    const size_t width = grid.width();
    auto lines = breakLines(banner.head + banner.why, width);
    if (lines.size() > kLines) {
        const size_t mark = banner.why.find(kMark);
        const size_t cause = mark == std::u32string::npos ? 0 : mark + kMark.size();
        const std::u32string text = banner.head + banner.why.substr(cause);
        lines = breakLines(text, width);
        // Less than the two lines have room for, since words are not broken.
        if (lines.size() > kLines) lines = breakLines(fitColumns(text, width * 7 / 4), width);
        lines.resize(std::min(lines.size(), kLines));
    }
    for (size_t i = 0; i < lines.size(); ++i) {
        if (banner.style != TopStyle::kPlain) grid.fill(kBannerLine + i, banner.style);
        grid.put(0, kBannerLine + i, lines[i], banner.style);
    }
    return std::max<size_t>(lines.size(), 1);
}

TopView::Banner TopView::findBanner(TopModel::Time now) const {
    const TopModel::Service& service = m_model.service();
    const std::u32string since = fromAscii(putTime(service.since, "%T"));
    if (!service.known) return {U"connecting", U"", TopStyle::kPlain};
    if (!service.up) {
        return {U"NO SERVICE since " + since + U": ", safe(service.why), TopStyle::kAlarm};
    }
    if (service.goneSince && now - service.since < kBackShown) {
        const auto gone =
            std::chrono::duration_cast<std::chrono::seconds>(service.since - *service.goneSince);
        return {U"the service is back since " + since + U", after " +
                    count(static_cast<double>(gone.count())) + U" s",
                U"", TopStyle::kGood};
    }
    if (m_model.snapshotWhy().empty()) return {};
    return {U"no throttling, no waiting tasks: ", safe(m_model.snapshotWhy()), TopStyle::kWarning};
}

void TopView::drawHelp(TopGrid& grid) const {
    if (grid.height() <= kBannerLine + 1) return;
    const size_t y = grid.height() - 1;
    size_t x = 0;
    if (m_controls.isEditing()) {
        x = grid.put(x, y, U"filter: " + safe(m_controls.filter()) + U"_", TopStyle::kTitle);
        grid.put(x, y, U"   Enter keeps it, Esc drops it", TopStyle::kPlain);
        return;
    }
    if (!m_controls.filter().empty()) {
        x = grid.put(x, y, U"[" + safe(m_controls.filter()) + U"] ", TopStyle::kWarning);
    }
    grid.put(x, y,
             m_controls.isHelping()
                 ? U"any key goes back, q quits"
                 : U"? help  q quit  p pause  Tab section  s sort  r reverse  z zoom  / filter",
             TopStyle::kDim);
}

// A service that tells of no moves leaves the lines to the others.
bool TopView::isShown(TopSection section) const {
    if (section == m_controls.selected()) return true;
    if (m_controls.isZoomed()) return false;
    return section != TopSection::kMoves || m_model.rowCount(section) > 0;
}

// Each section costs a line for its heading, also without rows.
std::vector<TopView::Part> TopView::partsFor(size_t lines) const {
    std::vector<Part> parts;
    std::vector<size_t> needs;
    for (size_t i = 0; i < kTopSections; ++i) {
        const auto section = static_cast<TopSection>(i);
        if (!isShown(section)) continue;
        parts.push_back({section, m_model.rows(section, m_controls.order(section))});
        needs.push_back(parts.back().rows.size());
    }
    const std::vector<size_t> shares =
        shareOut(lines > parts.size() ? lines - parts.size() : 0, needs);
    for (size_t i = 0; i < parts.size(); ++i) parts[i].lines = shares[i];
    return parts;
}

// What the fixed columns leave is shared by weight. Each width is the difference of two rounded
// sums, so that no column of the terminal is lost.
void TopView::drawPart(TopGrid& grid, size_t y, const Part& part) const {
    constexpr size_t kGap = 1;
    size_t fixed = kGutter;
    size_t weights = 0;
    std::vector<Place> places;
    for (const TopColumn& column : topColumns(part.section)) {
        if (column.leastColumns > grid.width()) continue;
        places.push_back({&column, 0, column.width});
        fixed += column.width + kGap;
        weights += column.weight;
    }
    const size_t rest = grid.width() > fixed - kGap ? grid.width() + kGap - fixed : 0;
    size_t x = kGutter;
    size_t given = 0;
    for (Place& place : places) {
        const size_t before = rest * given / weights;
        given += place.column->weight;
        place.width += rest * given / weights - before;
        place.x = x;
        x += place.width + kGap;
    }
    drawHeading(grid, y, part, places);
    for (size_t i = 0; i < part.lines; ++i) {
        drawRow(grid, y + 1 + i, *part.rows[firstRow(part) + i], places);
    }
}

void TopView::drawHeading(TopGrid& grid, size_t y, const Part& part,
                          const std::vector<Place>& places) const {
    if (y + 1 >= grid.height()) return;
    const bool selected = part.section == m_controls.selected();
    const TopStyle style = selected ? TopStyle::kSelected : TopStyle::kHeading;
    grid.fill(y, style);
    if (selected) grid.put(0, y, U">", style);
    const TopOrder order = m_controls.order(part.section);
    const TopColumn* const sorted = &topColumns(part.section)[order.column];
    for (const Place& place : places) {
        std::u32string title = fromAscii(place.column->title);
        const bool isNumber = place.column->kind == TopColumn::Kind::kValue;
        // Numbers are sorted downwards and texts upwards, see isBefore(): the mark is of what is
        // shown.
        if (place.column == sorted) title += sortMark(order.reversed == isNumber, m_utf8);
        if (place.column->kind == TopColumn::Kind::kName) title += shownRange(part);
        if (place.column->kind == TopColumn::Kind::kName && part.section == TopSection::kMoves) {
            const auto total = m_model.moveCount();
            if (total) title += U" of " + count(static_cast<double>(*total));
        }
        grid.put(place.x, y,
                 isNumber ? fitColumnsRight(title, place.width) : fitColumns(title, place.width),
                 style);
    }
}

// " 3-7/12" where not all rows are shown.
std::u32string TopView::shownRange(const Part& part) const {
    if (part.lines >= part.rows.size()) return U"";
    const std::u32string all = U"/" + count(static_cast<double>(part.rows.size()));
    if (part.lines == 0) return U" 0" + all;
    const size_t first = firstRow(part) + 1;
    return U" " + count(static_cast<double>(first)) + U"-" +
           count(static_cast<double>(first + part.lines - 1)) + all;
}

size_t TopView::firstRow(const Part& part) const {
    return std::min(m_controls.offset(part.section), part.rows.size() - part.lines);
}

std::u32string TopView::cellText(const TopRow& row, const Place& place) const {
    const TopColumn& column = *place.column;
    switch (column.kind) {
        case TopColumn::Kind::kName:
            return fitColumns(safe(row.name), place.width);
        case TopColumn::Kind::kDetail:
            return fitColumns(safe(row.detail), place.width);
        case TopColumn::Kind::kHistory:
            return row.histories[static_cast<size_t>(column.value)].line(place.width, m_utf8);
        default:
            return fitColumnsRight(number(row.value(column.value), column.format), place.width);
    }
}

// Rows of a service that is lost are dimmed: they tell what was.
void TopView::drawRow(TopGrid& grid, size_t y, const TopRow& row,
                      const std::vector<Place>& places) const {
    const bool stale = m_model.service().known && !m_model.service().up;
    const TopStyle plain = stale ? TopStyle::kDim : TopStyle::kPlain;
    for (const Place& place : places) {
        const bool throttled = place.column->value == TopValue::kThrottling &&
                               row.value(TopValue::kThrottling).value_or(0.0) > 0.0;
        grid.put(place.x, y, cellText(row, place), throttled ? TopStyle::kWarning : plain);
    }
}

}  // namespace kelm::ctl
