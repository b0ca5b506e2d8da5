#include "tools/kelmctl/export/page/PageChart.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "tools/kelmctl/export/page/HtmlWriter.h"
#include "tools/kelmctl/export/page/PageNumbers.h"

namespace kelm::ctl {

namespace {

using Values = PageHistory::Values;

constexpr double kHeight = 100.0;

// A run of slots, [first, end), of which all values are known or none is.
struct Run {
    size_t first;
    size_t end;
    bool isKnown;
};

std::vector<Run> runsOf(const Values& values) {
    std::vector<Run> runs;
    for (size_t i = 0; i < values.size(); ++i) {
        const bool isKnown = values[i].has_value();
        if (runs.empty() || runs.back().isKnown != isKnown) runs.push_back({i, i, isKnown});
        runs.back().end = i + 1;
    }
    return runs;
}

std::string point(size_t slot, double value, double top) {
    return fmt::format("{} {:.1f}", slot, kHeight * (1.0 - value / top));
}

std::string lineOf(const Values& values, const Run& run, double top) {
    std::string path = "M" + point(run.first, *values[run.first], top);
    for (size_t i = run.first + 1; i < run.end; ++i) path += "L" + point(i, *values[i], top);
    // A line without a length, which its round ends make a dot.
    if (run.end == run.first + 1) path += "h0";
    return path;
}

void writeLine(HtmlWriter& html, const Values& values, const Run& run, double top) {
    const bool isDot = run.end == run.first + 1;
    html.empty("path", {{"class", isDot ? "line dot" : "line"}, {"d", lineOf(values, run, top)}});
}

struct Extent {
    double least;
    double greatest;
};

std::optional<Extent> extentOf(const Values& values) {
    std::optional<Extent> extent;
    for (const std::optional<double>& value : values) {
        if (!value) continue;
        if (!extent) extent = {*value, *value};
        extent = {std::min(extent->least, *value), std::max(extent->greatest, *value)};
    }
    return extent;
}

std::string inWords(const ChartTexts& texts, const Values& values) {
    const auto extent = extentOf(values);
    if (!extent) return fmt::format("{}: not known in the last 15 minutes", texts.title);
    const auto show = [&](double value) { return showNumber(value, texts.decimals); };
    return fmt::format("{} in the last 15 minutes, now {}, least {}, greatest {}", texts.title,
                       values.back() ? show(*values.back()) + std::string(texts.unit) : "not known",
                       show(extent->least), show(extent->greatest));
}

// For the script, which shows the value under the pointer.
std::string forScript(const Values& values) {
    std::string list;
    for (const std::optional<double>& value : values) {
        if (value) list += fmt::format("{:.1f}", *value);
        list += ',';
    }
    list.pop_back();
    return list;
}

void writePicture(HtmlWriter& html, const std::string& words, const Values& values, double top) {
    const size_t width = values.size() - 1;
    const HtmlWriter::Element svg(html, "svg",
                                  {{"viewBox", fmt::format("0 0 {} {}", width, kHeight)},
                                   {"preserveAspectRatio", "none"},
                                   {"role", "img"},
                                   {"aria-label", words}});
    bool wasKnown = false;
    for (const Run& run : runsOf(values)) {
        if (run.isKnown) {
            const std::string line = lineOf(values, run, top);
            html.empty("path", {{"class", "area"},
                                {"d", fmt::format("{}L{} {}L{} {}Z", line, run.end - 1, kHeight,
                                                  run.first, kHeight)}});
            writeLine(html, values, run, top);
        } else if (wasKnown) {
            const size_t end = std::min(run.end, width);
            html.empty("rect", {{"class", "gap"},
                                {"x", std::to_string(run.first - 1)},
                                {"y", "0"},
                                {"width", std::to_string(end - run.first + 1)},
                                {"height", "100"}});
        }
        wasKnown = wasKnown || run.isKnown;
    }
}

}  // namespace

double chartTop(const Values& values) {
    const auto extent = extentOf(values);
    if (!extent || extent->greatest <= 1.0) return 1.0;
    const double power = std::pow(10.0, std::floor(std::log10(extent->greatest)));
    for (const double step : {1.0, 1.5, 2.0, 3.0, 4.0, 5.0, 6.0, 8.0}) {
        if (extent->greatest <= step * power) return step * power;
    }
    return 10.0 * power;
}

void writeChart(HtmlWriter& html, const ChartTexts& texts, const Values& values) {
    const double top = chartTop(values);
    const HtmlWriter::Element figure(html, "figure", {{"class", "chart"}});
    {
        const HtmlWriter::Element caption(html, "figcaption", {});
        html.leaf("span", texts.title);
        const std::optional<double>& now = values.back();
        html.leaf("strong",
                  now ? showNumber(*now, texts.decimals) + std::string(texts.unit) : "\u2013");
    }
    {
        const HtmlWriter::Element plot(
            html, "div",
            {{"class", "plot"}, {"data-values", forScript(values)}, {"data-unit", texts.unit}});
        writePicture(html, inWords(texts, values), values, top);
        html.leaf("span", showNumber(top, top < 20 ? 1 : 0),
                  {{"class", "top"}, {"aria-hidden", "true"}});
        html.leaf("span", showNumber(top / 2, top < 20 ? 1 : 0),
                  {{"class", "middle"}, {"aria-hidden", "true"}});
    }
    const HtmlWriter::Element axis(html, "div", {{"class", "axis"}, {"aria-hidden", "true"}});
    for (const char* label : {"\u221215 min", "\u221210", "\u22125", "now"}) {
        html.leaf("span", label);
    }
}

void writeSparkline(HtmlWriter& html, const Values& values, double top) {
    constexpr size_t kSlotsOfOne = 3;
    Values coarse;
    for (size_t i = 0; i < values.size(); i += kSlotsOfOne) {
        // The newest known one of the three.
        std::optional<double> value;
        for (size_t j = i; j < std::min(i + kSlotsOfOne, values.size()); ++j) {
            if (values[j]) value = values[j];
        }
        coarse.push_back(value);
    }
    const HtmlWriter::Element svg(
        html, "svg",
        {{"class", "spark"},
         {"viewBox", fmt::format("0 0 {} {}", coarse.size() - 1, kHeight)},
         {"preserveAspectRatio", "none"},
         {"aria-hidden", "true"}});
    for (const Run& run : runsOf(coarse)) {
        if (run.isKnown) writeLine(html, coarse, run, top);
    }
}

}  // namespace kelm::ctl
