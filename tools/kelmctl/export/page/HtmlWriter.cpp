#include "tools/kelmctl/export/page/HtmlWriter.h"

#include <algorithm>
#include <array>

#include "utils/Utf8.h"

namespace kelm::ctl {

namespace {

constexpr char32_t kReplacement = U'\uFFFD';
constexpr std::u32string_view kEllipsis = U"\u2026";

struct Range {
    char32_t first;
    char32_t last;
};

// Controls, marks and overrides of direction, separators of lines, what has no width, the halves of
// pairs, and what is no character. The joiners stay: scripts need them.
constexpr std::array kHidden = std::to_array<Range>({{0x00, 0x1f},
                                                     {0x7f, 0x9f},
                                                     {0xad, 0xad},
                                                     {0x61c, 0x61c},
                                                     {0x180e, 0x180e},
                                                     {0x200b, 0x200b},
                                                     {0x200e, 0x200f},
                                                     {0x2028, 0x202e},
                                                     {0x2060, 0x206f},
                                                     {0xd800, 0xdfff},
                                                     {0xfeff, 0xfeff},
                                                     {0xfff9, 0xfffb},
                                                     {0xfffe, 0xffff},
                                                     {0xe0000, 0xe007f}});

char32_t takeShown(std::string_view& text) {
    const char32_t character = Utf8::takeCharacter(text).value_or(kReplacement);
    const bool isHidden = std::ranges::any_of(kHidden, [&](const Range& range) {
        return character >= range.first && character <= range.last;
    });
    return isHidden ? kReplacement : character;
}

void appendEscaped(std::string& html, std::string_view text) {
    while (!text.empty()) {
        const char32_t character = takeShown(text);
        switch (character) {
            case U'&':
                html += "&amp;";
                break;
            case U'<':
                html += "&lt;";
                break;
            case U'>':
                html += "&gt;";
                break;
            case U'"':
                html += "&quot;";
                break;
            case U'\'':
                html += "&#39;";
                break;
            default:
                Utf8::append(html, character);
        }
    }
}

// Names often differ at their ends only.
std::string shortenName(std::string_view name) {
    constexpr size_t kLongest = 40;
    constexpr size_t kTail = 12;
    std::u32string characters;
    while (!name.empty()) characters += takeShown(name);
    if (characters.size() > kLongest) {
        characters.replace(kLongest - kTail - 1, characters.size() - kLongest + 1, kEllipsis);
    }
    std::string result;
    for (const char32_t character : characters) Utf8::append(result, character);
    return result;
}

}  // namespace

HtmlWriter::Element::Element(HtmlWriter& html, std::string_view tag, Attributes attributes)
    : m_html(html), m_tag(tag) {
    html.open(tag, attributes);
}

HtmlWriter::Element::~Element() { m_html.m_html.append("</").append(m_tag).append(">"); }

void HtmlWriter::open(std::string_view tag, Attributes attributes) {
    m_html.append("<").append(tag);
    for (const auto& [name, value] : attributes) {
        m_html.append(" ").append(name).append("=\"");
        appendEscaped(m_html, value);
        m_html += '"';
    }
    m_html += '>';
}

void HtmlWriter::empty(std::string_view tag, Attributes attributes) {
    open(tag, attributes);
    m_html.back() = '/';
    m_html += '>';
}

void HtmlWriter::leaf(std::string_view tag, std::string_view text, Attributes attributes) {
    const Element element(*this, tag, attributes);
    appendEscaped(m_html, text);
}

void HtmlWriter::text(std::string_view text) { appendEscaped(m_html, text); }

void HtmlWriter::name(std::string_view name) {
    if (name.empty()) {
        leaf("i", "no name");
        return;
    }
    leaf("bdi", shortenName(name));
}

}  // namespace kelm::ctl
