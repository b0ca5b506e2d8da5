#pragma once

#include <string_view>

#include "tools/kelmctl/export/page/PageHistory.h"

namespace kelm::ctl {

class HtmlWriter;

// Charts of a history as inline SVG. Their lines stretch with the page and their labels do not, so
// that these stand beside the picture and not in it.

struct ChartTexts {
    std::string_view title;
    std::string_view unit;  // behind a value, with the blank before it if it has one
    int decimals = 0;       // of the value now
};

// A figure with title, newest value, axes, and in words what the line shows.
void writeChart(HtmlWriter& html, const ChartTexts& texts, const PageHistory::Values& values);
// The line alone, without words: the value stands beside it. `top` is the value at the upper edge.
void writeSparkline(HtmlWriter& html, const PageHistory::Values& values, double top);
// The upper edge for the values: 1 at least, and round.
double chartTop(const PageHistory::Values& values);

}  // namespace kelm::ctl
