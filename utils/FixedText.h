#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <string_view>

namespace kelm {

// A short text put together in place, without the heap, from texts and integers. What does not fit
// is left out.
template <size_t Capacity>
class FixedText {
 public:
    template <class... Parts>
    explicit FixedText(const Parts&... parts) {
        (append(parts), ...);
    }

    std::string_view view() const { return {m_text.data(), m_size}; }
    const char* c_str() const { return m_text.data(); }

 private:
    void append(std::string_view text) {
        const size_t count = std::min(text.size(), Capacity - m_size);
        std::copy_n(text.data(), count, m_text.data() + m_size);
        m_size += count;
    }

    void append(std::integral auto number) {
        const auto result = std::to_chars(m_text.data() + m_size, m_text.data() + Capacity, number);
        if (result.ec == std::errc()) m_size = static_cast<size_t>(result.ptr - m_text.data());
    }

    std::array<char, Capacity + 1> m_text{};  // one more for the closing zero
    size_t m_size = 0;
};

}  // namespace kelm
