#include "bench/placement/RatioChart.h"

#include <fmt/format.h>

#include <algorithm>

namespace kelm {

namespace {

constexpr double kWidth = 640.0;
constexpr double kHeight = 360.0;
constexpr double kLeft = 60.0;
constexpr double kTop = 20.0;
constexpr double kPlotWidth = 550.0;
constexpr double kPlotHeight = 280.0;
constexpr double kLowest = 0.5;
constexpr double kHighest = 1.05;
constexpr std::array<const char*, CONTENDERS> kColours{"#b04020", "#3070b0", "#208040"};

double xOf(double ratio) {
    const double part = (std::clamp(ratio, kLowest, kHighest) - kLowest) / (kHighest - kLowest);
    return kLeft + part * kPlotWidth;
}

double yOf(double part) { return kTop + (1.0 - part) * kPlotHeight; }

std::string drawText(double x, double y, const char* anchor, const std::string& text) {
    return fmt::format("<text x=\"{:.0f}\" y=\"{:.0f}\" text-anchor=\"{}\">{}</text>\n", x, y,
                       anchor, text);
}

std::string drawLine(double fromX, double fromY, double toX, double toY) {
    return fmt::format(
        "<line x1=\"{:.0f}\" y1=\"{:.0f}\" x2=\"{:.0f}\" y2=\"{:.0f}\" stroke=\"#ccc\"/>\n", fromX,
        fromY, toX, toY);
}

}  // namespace

std::string drawRatios(const std::array<std::vector<double>, CONTENDERS>& ratios) {
    std::string svg = fmt::format(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0:.0f}\" height=\"{1:.0f}\" "
        "viewBox=\"0 0 {0:.0f} {1:.0f}\" font-family=\"sans-serif\" font-size=\"12\">\n"
        "<rect width=\"100%\" height=\"100%\" fill=\"#fff\"/>\n",
        kWidth, kHeight);
    for (int tenth = 5; tenth <= 10; ++tenth) {
        const double x = xOf(tenth / 10.0);
        svg += drawLine(x, kTop, x, kTop + kPlotHeight);
        svg +=
            drawText(x, kTop + kPlotHeight + 16.0, "middle", fmt::format("{:.1f}", tenth / 10.0));
    }
    for (int quarter = 0; quarter <= 4; ++quarter) {
        const double y = yOf(quarter / 4.0);
        svg += drawLine(kLeft, y, kLeft + kPlotWidth, y);
        svg += drawText(kLeft - 6.0, y + 4.0, "end", fmt::format("{}%", quarter * 25));
    }
    svg += drawText(kLeft + kPlotWidth / 2.0, kHeight - 20.0, "middle",
                    "work done, of the bound in hindsight");
    for (size_t i = 0; i < CONTENDERS; ++i) {
        std::string points;
        for (size_t mix = 0; mix < ratios[i].size(); ++mix) {
            const double part =
                static_cast<double>(mix + 1) / static_cast<double>(ratios[i].size());
            points += fmt::format("{:.1f},{:.1f} ", xOf(ratios[i][mix]), yOf(part));
        }
        svg += fmt::format(
            "<polyline points=\"{}\" fill=\"none\" stroke=\"{}\" stroke-width=\"2\"/>\n", points,
            kColours[i]);
        const double y = kTop + 20.0 + 18.0 * static_cast<double>(i);
        svg += fmt::format("<g fill=\"{}\">{}</g>\n", kColours[i],
                           drawText(kLeft + 10.0, y, "start", kContenderNames[i]));
    }
    return svg + "</svg>\n";
}

}  // namespace kelm
