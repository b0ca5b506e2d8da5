#include "tools/kelmctl/SafeText.h"

#include <langinfo.h>

#include <clocale>
#include <cwchar>

#include "utils/Utf8.h"

namespace kelm::ctl {

namespace {

constexpr char32_t kFirstPrintable = 0x20;
constexpr char32_t kDelete = 0x7f;
constexpr char32_t kReplacement = U'?';
constexpr std::u32string_view kDots = U"...";

bool isPrintable(char32_t character, bool utf8) {
    if (character < kDelete) return character >= kFirstPrintable;
    // The C library's own table, so that it agrees with what curses takes as the width.
    return utf8 && character != kDelete && ::wcwidth(static_cast<wchar_t>(character)) > 0;
}

// As much of the head of the text as fits.
std::u32string_view headOf(std::u32string_view text, size_t width) {
    size_t count = 0;
    for (size_t used = 0; count < text.size(); ++count) {
        used += columnsOf(text[count]);
        if (used > width) break;
    }
    return text.substr(0, count);
}

std::u32string_view tailOf(std::u32string_view text, size_t width) {
    size_t from = text.size();
    for (size_t used = 0; from > 0; --from) {
        used += columnsOf(text[from - 1]);
        if (used > width) break;
    }
    return text.substr(from);
}

// Head and tail: names often differ at their ends only.
std::u32string shorten(std::u32string_view text, size_t width) {
    if (columnsOf(text) <= width) return std::u32string(text);
    constexpr size_t kTooNarrowForDots = 7;
    if (width <= kTooNarrowForDots) return std::u32string(headOf(text, width));
    const size_t tail = (width - kDots.size()) / 2;
    std::u32string result(headOf(text, width - kDots.size() - tail));
    result += kDots;
    return result += tailOf(text, tail);
}

}  // namespace

bool useTerminalLocale() {
    const bool known = std::setlocale(LC_CTYPE, "") != nullptr;
    return known && std::string_view(::nl_langinfo(CODESET)) == "UTF-8";
}

std::u32string safeText(std::string_view bytes, bool utf8) {
    std::u32string result;
    while (!bytes.empty()) {
        const char32_t character = Utf8::takeCharacter(bytes).value_or(kReplacement);
        result += isPrintable(character, utf8) ? character : kReplacement;
    }
    return result;
}

// Only characters of one or two columns are printable here, see isPrintable().
size_t columnsOf(char32_t character) {
    if (character < kDelete) return 1;
    return ::wcwidth(static_cast<wchar_t>(character)) == 2 ? 2 : 1;
}

size_t columnsOf(std::u32string_view text) {
    size_t columns = 0;
    for (const char32_t character : text) columns += columnsOf(character);
    return columns;
}

std::u32string fitColumns(std::u32string_view text, size_t width) {
    std::u32string result = shorten(text, width);
    return result.append(width - columnsOf(result), U' ');
}

std::u32string fitColumnsRight(std::u32string_view text, size_t width) {
    const std::u32string result = shorten(text, width);
    return std::u32string(width - columnsOf(result), U' ') + result;
}

std::string toUtf8(std::u32string_view text) {
    std::string result;
    for (const char32_t character : text) Utf8::append(result, character);
    return result;
}

std::u32string fromAscii(std::string_view text) { return safeText(text, false); }

}  // namespace kelm::ctl
