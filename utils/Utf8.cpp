#include "utils/Utf8.h"

#include <iterator>

namespace kelm {

namespace {

struct Form {
    unsigned char mask;
    unsigned char lead;
    size_t size;
    char32_t least;  // smaller ones have a shorter form
};
constexpr Form kForms[] = {
    {0x80, 0x00, 1, 0}, {0xe0, 0xc0, 2, 0x80}, {0xf0, 0xe0, 3, 0x800}, {0xf8, 0xf0, 4, 0x10000}};

// The halves of pairs are no characters by themselves.
bool isScalar(char32_t value) { return value <= 0x10ffff && (value < 0xd800 || value > 0xdfff); }

}  // namespace

// The first byte decides the form. A longer form than needed is refused: a character would have two
// spellings, of which checks may know only one.
std::optional<char32_t> Utf8::takeCharacter(std::string_view& text) {
    for (const Form& form : kForms) {
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
    return std::nullopt;
}

void Utf8::append(std::string& text, char32_t character) {
    size_t form = 0;
    while (form + 1 < std::size(kForms) && character >= kForms[form + 1].least) ++form;
    size_t shift = 6 * form;
    text += static_cast<char>(kForms[form].lead | (character >> shift));
    while (shift > 0) {
        shift -= 6;
        text += static_cast<char>(0x80 | ((character >> shift) & 0x3f));
    }
}

std::string_view Utf8::head(std::string_view text, size_t size) {
    std::string_view rest = text;
    size_t count = 0;
    while (!rest.empty()) {
        (void)takeCharacter(rest);  // a byte that is no character counts as one
        if (text.size() - rest.size() > size) break;
        count = text.size() - rest.size();
    }
    return text.substr(0, count);
}

}  // namespace kelm
