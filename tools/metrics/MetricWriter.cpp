#include "tools/metrics/MetricWriter.h"

#include <fmt/format.h>

#include <iterator>
#include <utility>

#include "tools/metrics/Latencies.h"
#include "utils/Utf8.h"

namespace kelm {

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

std::string label(std::string_view name, std::string_view value) { return labels({{name, value}}); }

std::string labels(std::initializer_list<Label> list) {
    std::string text = "{";
    for (const auto& [name, value] : list) {
        if (text.size() > 1) text += ',';
        text.append(name).append("=\"");
        for (const char character : value) {
            if (character == '\\' || character == '"') text += '\\';
            text += character;
        }
        text += '"';
    }
    return text + "}";
}

void MetricWriter::begin(std::string_view name, std::string_view type, std::string_view help) {
    m_name = name;
    m_head = fmt::format("# HELP {} {}\n# TYPE {} {}\n", name, help, name, type);
}

void MetricWriter::addPart(std::string_view suffix, const std::string& labels, double value) {
    m_text += std::exchange(m_head, {});
    fmt::format_to(std::back_inserter(m_text), "{}{}{} {}\n", m_name, suffix, labels, value);
}

void MetricWriter::addHistogram(const std::string& labels, const Latencies& latencies) {
    const std::string head = labels.substr(0, labels.size() - 1);  // without the brace
    uint64_t count = 0;
    for (size_t i = 0; i < latencies.counts.size(); ++i) {
        count += latencies.counts[i];
        const std::string bound =
            i < Latencies::kBounds.size() ? fmt::format("{}", Latencies::kBounds[i]) : "+Inf";
        addPart("_bucket", fmt::format("{},le=\"{}\"}}", head, bound), static_cast<double>(count));
    }
    addPart("_sum", labels, latencies.sumSeconds);
    addPart("_count", labels, static_cast<double>(count));
}

}  // namespace kelm
