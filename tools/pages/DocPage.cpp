#include "tools/pages/DocPage.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kelm::pages {

namespace {

const std::string kBegin = "<!-- generated: ";
const std::string kBeginEnd = " -->";
const std::string kEnd = "<!-- end -->";

bool isComment(const std::string& line) {
    return line.starts_with("<!--") && line.ends_with("-->");
}

}  // namespace

Lines splitLines(const std::string& text) {
    std::istringstream stream(text);
    Lines lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

Lines::const_iterator DocPage::Section::firstHeading() const {
    return std::ranges::find_if(lines,
                                [](const std::string& line) { return line.starts_with('#'); });
}

DocPage::DocPage(const std::filesystem::path& file) : m_file(file) {
    std::ifstream stream(file);
    if (!stream) throw std::runtime_error(file.string() + " cannot be read");
    for (std::string line; std::getline(stream, line);) m_lines.push_back(line);
    const std::vector<std::string> all = blocks();
    for (const std::string& block : all) {
        endOf(findBlock(block));
        if (std::ranges::count(all, block) > 1) {
            throw std::runtime_error(file.string() + " has '" + block + "' twice; remove one");
        }
    }
}

std::string DocPage::text() const {
    std::string text;
    for (const std::string& line : m_lines) text += line + "\n";
    return text;
}

std::vector<std::string> DocPage::blocks() const {
    std::vector<std::string> names;
    for (const std::string& line : m_lines) {
        if (!line.starts_with(kBegin) || !line.ends_with(kBeginEnd)) continue;
        names.push_back(line.substr(kBegin.size(), line.size() - kBegin.size() - kBeginEnd.size()));
    }
    return names;
}

void DocPage::fill(const std::string& block, const std::string& text) {
    const size_t begin = findBlock(block);
    m_lines.erase(m_lines.begin() + static_cast<std::ptrdiff_t>(begin) + 1,
                  m_lines.begin() + static_cast<std::ptrdiff_t>(endOf(begin)));
    const Lines lines = splitLines(text);
    m_lines.insert(m_lines.begin() + static_cast<std::ptrdiff_t>(begin) + 1, lines.begin(),
                   lines.end());
}

DocPage::Section DocPage::section(const std::string& heading) const {
    for (size_t i = 0; i < m_lines.size(); ++i) {
        const size_t level = levelOf(i);
        if (level > 0 && m_lines[i].substr(level + 1) == heading) return cut(i, m_lines.size());
    }
    throw std::runtime_error(m_file.string() + " has no heading '" + heading +
                             "', of which a manual page is made");
}

DocPage::Section DocPage::sectionAround(const std::string& block) const {
    const size_t begin = findBlock(block);
    size_t heading = begin;
    while (heading > 0 && levelOf(heading) == 0) --heading;
    return cut(heading, begin);
}

// 0 if it is no heading. In the pages a line of code may begin alike, after its fence only.
size_t DocPage::levelOf(size_t line) const {
    const auto fences =
        std::count_if(m_lines.begin(), m_lines.begin() + static_cast<std::ptrdiff_t>(line),
                      [](const std::string& before) { return before.starts_with("```"); });
    const size_t level = m_lines[line].find_first_not_of('#');
    const bool isHeading = level != std::string::npos && m_lines[line][level] == ' ';
    return isHeading && fences % 2 == 0 ? level : 0;
}

size_t DocPage::findBlock(const std::string& block) const {
    const auto found = std::ranges::find(m_lines, kBegin + block + kBeginEnd);
    return static_cast<size_t>(found - m_lines.begin());
}

size_t DocPage::endOf(size_t block) const {
    for (size_t i = block + 1; i < m_lines.size() && !m_lines[i].starts_with(kBegin); ++i) {
        if (m_lines[i] == kEnd) return i;
    }
    throw std::runtime_error(m_file.string() + ": " + m_lines[block] + " has no " + kEnd);
}

// `without`: the line where the block begins that is left out.
DocPage::Section DocPage::cut(size_t heading, size_t without) const {
    const size_t level = std::max<size_t>(levelOf(heading), 1);
    Section section{m_lines[heading].substr(level + 1), level, {}};
    for (size_t i = heading + 1; i < m_lines.size(); ++i) {
        if (levelOf(i) > 0 && levelOf(i) <= level) break;
        if (i == without) i = endOf(without);
        if (!isComment(m_lines[i])) section.lines.push_back(m_lines[i]);
    }
    return section;
}

}  // namespace kelm::pages
