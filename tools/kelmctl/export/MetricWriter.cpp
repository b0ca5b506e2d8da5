#include "tools/kelmctl/export/MetricWriter.h"

#include <fmt/format.h>

#include <iterator>
#include <utility>

#include "utils/Utf8.h"

namespace kelm::ctl {

std::string labelText(std::string_view text) {
    constexpr char32_t kFirstPrintable = 0x20;
    constexpr char32_t kDelete = 0x7f;
    constexpr char32_t kReplacement = 0xfffd;
    std::string result;
    while (!text.empty()) {
        const char32_t character = Utf8::takeCharacter(text).value_or(kReplacement);
        const bool isControl = character < kFirstPrintable || character == kDelete;
        Utf8::append(result, isControl ? kReplacement : character);
    }
    return result;
}

std::string label(std::string_view name, std::string_view value) {
    std::string escaped;
    for (const char character : value) {
        if (character == '\\' || character == '"') escaped += '\\';
        escaped += character;
    }
    return fmt::format("{{{}=\"{}\"}}", name, escaped);
}

void MetricWriter::begin(std::string_view name, std::string_view type, std::string_view help) {
    m_name = name;
    m_head = fmt::format("# HELP {} {}\n# TYPE {} {}\n", name, help, name, type);
}

void MetricWriter::addPart(std::string_view suffix, const std::string& labels, double value) {
    m_text += std::exchange(m_head, {});
    fmt::format_to(std::back_inserter(m_text), "{}{}{} {}\n", m_name, suffix, labels, value);
}

}  // namespace kelm::ctl
