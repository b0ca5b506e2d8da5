#include "utils/TextHelper.h"

#include <algorithm>
#include <iomanip>
#include <optional>
#include <sstream>

#include "utils/Utf8.h"

namespace kelm {

namespace {
constexpr size_t kEllipsisWidth = 3;
constexpr size_t kWidestHeadOnly = 7;

// C0, the deletion and C1; ends of lines and paragraphs; and what turns the direction of writing,
// so that the rest of a line reads otherwise than it is.
bool isControl(char32_t character) {
    constexpr struct {
        char32_t first;
        char32_t last;
    } kRanges[] = {{0x00, 0x1f},     {0x7f, 0x9f},     {0x61c, 0x61c},
                   {0x200e, 0x200f}, {0x2028, 0x202e}, {0x2066, 0x2069}};
    return std::ranges::any_of(kRanges, [character](const auto& range) {
        return character >= range.first && character <= range.last;
    });
}

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

// A character that is escaped shows each of its bytes.
std::string escapeControls(std::string_view text) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string result;
    while (!text.empty()) {
        const std::string_view before = text;
        const std::optional<char32_t> character = Utf8::takeCharacter(text);
        const std::string_view bytes = before.substr(0, before.size() - text.size());
        if (character && !isControl(*character)) {
            result += bytes;
            continue;
        }
        for (const char byte : bytes) {
            const auto value = static_cast<unsigned char>(byte);
            result += {'\\', 'x', kDigits[value >> 4], kDigits[value & 0xf]};
        }
    }
    return result;
}

std::string escapeControls(const char* text) {
    return escapeControls(text != nullptr ? std::string_view(text) : "(null)");
}

// By hand: the library's function depends on the locale.
std::string toLower(std::string text) {
    for (char& letter : text) {
        if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
    }
    return text;
}

std::string formatFixed(double value, int decimals) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(decimals) << value;
    return text.str();
}

}  // namespace kelm
