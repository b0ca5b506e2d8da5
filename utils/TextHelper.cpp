#include "utils/TextHelper.h"

#include <iomanip>
#include <sstream>

namespace kelm {

namespace {
constexpr size_t kEllipsisWidth = 3;
constexpr size_t kWidestHeadOnly = 7;
}  // namespace

std::string alignLeft(std::string_view text, size_t width) {
    std::string result(text);
    if (result.size() < width) result.append(width - result.size(), ' ');
    return result;
}

std::string alignRight(std::string_view text, size_t width) {
    std::string result(text);
    if (result.size() < width) result.insert(0, width - result.size(), ' ');
    return result;
}

std::string shortenText(std::string_view text, size_t width) {
    if (text.size() <= width) return std::string(text);
    if (width <= kWidestHeadOnly) return std::string(text.substr(0, width));
    const size_t part = (width - kEllipsisWidth) / 2;
    return std::string(text.substr(0, part)) + "..." + std::string(text.substr(text.size() - part));
}

std::string formatFixed(double value, int decimals) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(decimals) << value;
    return text.str();
}

}  // namespace kelm
