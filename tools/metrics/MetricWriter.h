#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kelm {

struct Latencies;

// A text that a client chose, as the value of a label: UTF-8 without control characters.
std::string labelText(std::string_view text);
using Label = std::pair<std::string_view, std::string_view>;
// `{name="value"}`, escaped.
std::string label(std::string_view name, std::string_view value);
std::string labels(std::initializer_list<Label> list);

// Writes the samples of metrics in Prometheus' text format.
//
// Threads: one. Owns: the text.
class MetricWriter {
 public:
    // What follows are samples of this metric, which is only mentioned if there are any.
    void begin(std::string_view name, std::string_view type, std::string_view help);

    void add(const std::string& labels, double value) { addPart("", labels, value); }
    // What is not known is left out.
    template <class Number>
    void add(const std::string& labels, const std::optional<Number>& value) {
        if (value) addPart("", labels, static_cast<double>(*value));
    }
    // Of a metric of several series: "_bucket", "_sum", "_count".
    void addPart(std::string_view suffix, const std::string& labels, double value);
    // A histogram's; there must be a label.
    void addHistogram(const std::string& labels, const Latencies& latencies);

    std::string take() { return std::move(m_text); }

 private:
    std::string_view m_name;
    std::string m_head;  // of the metric; empty: written
    std::string m_text;
};

}  // namespace kelm
