#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <deque>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>

namespace kelm::ctl {

// The last two minutes of a rate that is looked at once a second.
class TopHistory {
 public:
    void add(std::optional<double> value) {
        m_values.push_back(value);
        if (m_values.size() > kLength) m_values.pop_front();
    }

    // The newest values, the last one rightmost, each as the height of one character between 0 and
    // the greatest shown; blanks where nothing is known.
    std::u32string line(size_t width, bool utf8) const {
        constexpr std::u32string_view kBars = U"\u2581\u2582\u2583\u2584\u2585\u2586\u2587\u2588";
        constexpr std::u32string_view kAscii = U"_.:-=+*#";
        const std::u32string_view levels = utf8 ? kBars : kAscii;
        const size_t count = std::min(width, m_values.size());
        const auto first = m_values.end() - static_cast<std::ptrdiff_t>(count);
        // An unknown value is less than any.
        const double greatest =
            count > 0 ? std::max_element(first, m_values.end())->value_or(0.0) : 0.0;
        std::u32string text(width - count, U' ');
        std::transform(first, m_values.end(), std::back_inserter(text),
                       [&](const std::optional<double>& value) {
                           if (!value) return U' ';
                           if (!(*value > 0.0)) return levels[0];
                           const double level =
                               *value / greatest * static_cast<double>(levels.size() - 1);
                           return levels[static_cast<size_t>(std::lround(level))];
                       });
        return text;
    }

 private:
    static constexpr size_t kLength = 120;
    std::deque<std::optional<double>> m_values;  // oldest first; finite and not negative
};

}  // namespace kelm::ctl
