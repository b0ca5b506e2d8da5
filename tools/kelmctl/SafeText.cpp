#include "tools/kelmctl/SafeText.h"

#include <langinfo.h>

#include <clocale>
#include <cwchar>

namespace kelm::ctl {

namespace {

constexpr char32_t kFirstPrintable = 0x20;
constexpr char32_t kDelete = 0x7f;
constexpr char32_t kReplacement = U'?';
constexpr std::u32string_view kDots = U"...";

struct Utf8Form {
    unsigned char mask;
    unsigned char lead;
    size_t size;
    char32_t least;  // smaller ones have a shorter form
};
constexpr Utf8Form kForms[] = {
    {0x80, 0x00, 1, 0}, {0xe0, 0xc0, 2, 0x80}, {0xf0, 0xe0, 3, 0x800}, {0xf8, 0xf0, 4, 0x10000}};

bool isScalar(char32_t value) { return value <= 0x10ffff && (value < 0xd800 || value > 0xdfff); }

// Reads the character at the head of the text and takes it off; the replacement for one byte that
// starts none.
char32_t takeCharacter(std::string_view& text) {
    for (const Utf8Form& form : kForms) {
        const auto first = static_cast<unsigned char>(text.front());
        if ((first & form.mask) != form.lead || text.size() < form.size) continue;
        char32_t value = first & static_cast<unsigned char>(~form.mask);
        bool valid = true;
        for (size_t i = 1; i < form.size; ++i) {
            const auto next = static_cast<unsigned char>(text[i]);
            valid = valid && (next & 0xc0) == 0x80;
            value = (value << 6) | (next & 0x3f);
        }
        if (!valid || value < form.least || !isScalar(value)) break;
        text.remove_prefix(form.size);
        return value;
    }
    text.remove_prefix(1);
    return kReplacement;
}

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
        const char32_t character = takeCharacter(bytes);
        result += isPrintable(character, utf8) ? character : kReplacement;
    }
    return result;
}

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
    for (const char32_t character : text) {
        size_t form = 0;
        while (form + 1 < std::size(kForms) && character >= kForms[form + 1].least) ++form;
        size_t shift = 6 * form;
        result += static_cast<char>(kForms[form].lead | (character >> shift));
        while (shift > 0) {
            shift -= 6;
            result += static_cast<char>(0x80 | ((character >> shift) & 0x3f));
        }
    }
    return result;
}

std::u32string fromAscii(std::string_view text) { return safeText(text, false); }

}  // namespace kelm::ctl
