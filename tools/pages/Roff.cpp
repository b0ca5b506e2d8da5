#include "tools/pages/Roff.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <regex>

namespace kelm::pages {

namespace {

// `isLiteral`: a hyphen is to be copied as a minus.
std::string escape(const std::string& text, bool isLiteral) {
    std::string roff;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte == '\\') {
            roff += "\\e";
        } else if (byte == '-' && isLiteral) {
            roff += "\\-";
        } else if (byte < 0x80) {
            roff += text[i];
        } else {
            const int more = byte >= 0xf0 ? 3 : byte >= 0xe0 ? 2 : 1;
            uint32_t code = byte & (0x3fU >> more);
            for (int k = 0; k < more && i + 1 < text.size(); ++k) {
                code = code << 6 | (static_cast<unsigned char>(text[++i]) & 0x3fU);
            }
            roff += fmt::format("\\[u{:04X}]", code);
        }
    }
    return roff;
}

// A link to another page of docs/, for a reader of the manual.
std::string linked(const std::string& text, const std::string& file) {
    static const std::map<std::string, std::string> kManual{
        {"configuration.md", "kelm_service.config(5)"},
        {"kelmctl.md", "kelmctl(1)"},
        {"operating.md", "kelmdaemon(8)"},
        {"tracing.md", "kelmctl-trace(1)"}};
    const auto page = kManual.find(file);
    const std::string target = page == kManual.end() ? file : page->second;
    if (target.empty() || target.starts_with(text + "(")) return text;
    return text + " (" + target + ")";
}

std::string inlined(const std::string& text) {
    static const std::regex kMarks(
        R"(`([^`]+)`|\*\*([^*]+)\*\*|\*([A-Za-z][^*]*)\*|\[([^\]]+)\]\(([^)#]*)[^)]*\))");
    std::string roff;
    auto rest = text.cbegin();
    for (std::sregex_iterator it(text.begin(), text.end(), kMarks), end; it != end; ++it) {
        const std::smatch& mark = *it;
        roff += escape({rest, mark[0].first}, false);
        rest = mark[0].second;
        if (mark[1].matched) {
            roff += "\\fB" + escape(mark[1], true) + "\\fR";
        } else if (mark[2].matched) {
            roff += "\\fB" + escape(mark[2], false) + "\\fR";
        } else if (mark[3].matched) {
            roff += "\\fI" + escape(mark[3], false) + "\\fR";
        } else {
            roff += inlined(linked(mark[4], mark[5]));
        }
    }
    return roff + escape({rest, text.cend()}, false);
}

// A line that begins so would be a request.
std::string line(const std::string& roff) {
    return (roff.starts_with('.') || roff.starts_with('\'') ? "\\&" : "") + roff + "\n";
}

Lines cells(const std::string& row) {
    Lines cells;
    for (size_t from = 1; from < row.size();) {
        const size_t bar = std::min(row.find('|', from), row.size());
        const std::string cell = row.substr(from, bar - from);
        const size_t first = cell.find_first_not_of(' ');
        cells.push_back(
            first == cell.npos ? "" : cell.substr(first, cell.find_last_not_of(' ') + 1 - first));
        from = bar + 1;
    }
    return cells;
}

// One block after the other; a block ends where another one begins.
class Converter {
 public:
    Converter(const Lines& lines, size_t topLevel) : m_lines(lines), m_topLevel(topLevel) {}

    std::string run() {
        while (m_next < m_lines.size()) {
            const std::string& text = m_lines[m_next];
            if (text.starts_with("```")) {
                fence();
            } else if (m_paragraph.empty() && text.starts_with("    ")) {
                indented();
            } else if (text.starts_with('|')) {
                table();
            } else if (text.starts_with('#')) {
                heading();
            } else {
                prose();
            }
        }
        endParagraph();
        return m_roff;
    }

 private:
    void heading() {
        endParagraph();
        const std::string& text = m_lines[m_next++];
        const size_t level = text.find_first_not_of('#');
        std::string title = text.substr(level + 1);
        const bool isSection = level <= m_topLevel;
        const bool isWord = std::erase(title, '`') > 0;  // of a file, where capitals matter
        if (isSection && !isWord) std::ranges::transform(title, title.begin(), ::toupper);
        m_roff += fmt::format(".{} \"{}\"\n", isSection ? "SH" : "SS", escape(title, false));
    }

    void prose() {
        const std::string& text = m_lines[m_next++];
        const bool isItem = text.starts_with("- ");
        if (isItem || text.empty()) endParagraph();
        m_isItem = m_isItem || isItem;
        if (text.empty()) return;
        const size_t first = text.find_first_not_of(' ', isItem ? 2 : 0);
        m_paragraph += (m_paragraph.empty() ? "" : " ") + text.substr(first);
    }

    void endParagraph() {
        if (!m_paragraph.empty()) {
            m_roff += (m_isItem ? ".IP \\(bu 2\n" : ".PP\n") + line(inlined(m_paragraph));
        }
        m_paragraph.clear();
        m_isItem = false;
    }

    void fence() {
        endParagraph();
        Lines code;
        while (++m_next < m_lines.size() && !m_lines[m_next].starts_with("```")) {
            code.push_back(m_lines[m_next]);
        }
        ++m_next;
        verbatim(code);
    }

    void indented() {
        Lines code;
        for (; m_next < m_lines.size() && m_lines[m_next].starts_with("    "); ++m_next) {
            code.push_back(m_lines[m_next].substr(4));
        }
        verbatim(code);
    }

    void verbatim(const Lines& code) {
        m_roff += ".PP\n.RS 4\n.nf\n";
        for (const std::string& text : code) m_roff += line(escape(text, true));
        m_roff += ".fi\n.RE\n";
    }

    // A paragraph for each row, with the first cell for its tag. Of more than two columns the
    // others are told by their headings, the meaning apart.
    void table() {
        endParagraph();
        const Lines headings = cells(m_lines[m_next]);
        m_next += 2;
        for (; m_next < m_lines.size() && m_lines[m_next].starts_with('|'); ++m_next) {
            const Lines row = cells(m_lines[m_next]);
            Lines parts;
            for (size_t i = 1; i < std::min(row.size(), headings.size()); ++i) {
                const bool isPlain =
                    headings.size() == 2 || headings[i] == "Meaning" || headings[i].empty();
                if (row[i].empty()) continue;
                parts.insert(isPlain ? parts.begin() : parts.end(),
                             line(inlined(isPlain ? row[i] : headings[i] + ": " + row[i])));
            }
            m_roff += ".TP\n" + line(row[0].empty() ? "\\&" : inlined(row[0]));
            m_roff += fmt::format("{}", fmt::join(parts, ".br\n"));
        }
    }

    const Lines& m_lines;
    const size_t m_topLevel;
    size_t m_next = 0;
    std::string m_paragraph;
    bool m_isItem = false;
    std::string m_roff;
};

}  // namespace

std::string toRoff(const Lines& markdown, size_t topLevel) {
    return Converter(markdown, topLevel).run();
}

}  // namespace kelm::pages
