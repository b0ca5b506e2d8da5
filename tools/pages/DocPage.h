#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace kelm::pages {

using Lines = std::vector<std::string>;

Lines splitLines(const std::string& text);

// A page of docs/. What is generated in it, a block, stands between the comments
// "<!-- generated: NAME -->" and "<!-- end -->"; all else is written by hand.
class DocPage {
 public:
    struct Section {
        std::string heading;
        size_t level;  // of its heading, 1 for the page itself
        Lines lines;   // without the heading and the comments

        // What stands before its first further heading, and the rest.
        Lines intro() const { return {lines.begin(), firstHeading()}; }
        Lines rest() const { return {firstHeading(), lines.end()}; }

     private:
        Lines::const_iterator firstHeading() const;
    };

    // Throws if the file cannot be read, or a block has no end or is there twice.
    explicit DocPage(const std::filesystem::path& file);

    const std::filesystem::path& file() const { return m_file; }
    std::string text() const;
    // The names of the blocks.
    std::vector<std::string> blocks() const;
    void fill(const std::string& block, const std::string& text);
    // Throws if there is none of that heading.
    Section section(const std::string& heading) const;
    // The smallest one that holds the block, and without what is in the block.
    Section sectionAround(const std::string& block) const;

 private:
    size_t levelOf(size_t line) const;
    size_t findBlock(const std::string& block) const;
    size_t endOf(size_t block) const;
    Section cut(size_t heading, size_t without) const;

    const std::filesystem::path m_file;
    Lines m_lines;
};

}  // namespace kelm::pages
