#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

// One value for a message: what a printf directive can print. Borrowed text lives as long as the
// full expression that formats it.
class FormatArg {
 public:
    using Value = std::variant<int32_t, uint32_t, int64_t, uint64_t, double, char, std::string_view,
                               const void*>;

    template <class T>
    FormatArg(const T& value) : m_value(convert(value)) {}  // implicit: made for argument packs

    const Value& value() const { return m_value; }

 private:
    template <class T>
    static Value convert(const T& value) {
        using Plain = std::decay_t<T>;
        if constexpr (std::is_convertible_v<const T&, const char*>) {
            const char* text = value;
            return std::string_view(text != nullptr ? text : "(null)");
        } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
            return std::string_view(value);
        } else if constexpr (std::is_pointer_v<Plain>) {
            return static_cast<const void*>(value);
        } else if constexpr (std::is_enum_v<Plain>) {
            return convert(static_cast<std::underlying_type_t<Plain>>(value));
        } else if constexpr (std::is_same_v<Plain, char>) {
            return value;
        } else if constexpr (std::is_floating_point_v<Plain>) {
            return static_cast<double>(value);
        } else if constexpr (std::is_signed_v<Plain>) {
            if constexpr (sizeof(Plain) <= 4)
                return static_cast<int32_t>(value);
            else
                return static_cast<int64_t>(value);
        } else {
            static_assert(std::is_integral_v<Plain>, "no printf directive prints this type");
            if constexpr (sizeof(Plain) <= 4)
                return static_cast<uint32_t>(value);
            else
                return static_cast<uint64_t>(value);
        }
    }

    Value m_value;
};

class StringHelper {
 public:
    // The text of a printf-like format. A format that does not fit its arguments never throws: the
    // result is then the format with "[BoostError: ...]" behind it.
    template <class... Args>
    static std::string format(const char* format, const Args&... args) {
        const std::array<FormatArg, sizeof...(Args)> values{FormatArg(args)...};
        return formatArgs(format, std::span<const FormatArg>(values.data(), values.size()));
    }
    static std::string formatArgs(const char* format, std::span<const FormatArg> args);

    // Copies at most N - 1 characters and closes with a zero; returns the number copied.
    template <size_t N>
    static size_t copyStringSafe(char (&destination)[N], std::string_view source) {
        const size_t count = std::min(source.size(), N - 1);
        std::copy_n(source.data(), count, destination);
        destination[count] = '\0';
        return count;
    }

    // A fixed text from the wire, which need not end in NUL: at most N characters are looked at.
    template <size_t N>
    static std::string readBounded(const char (&field)[N]) {
        return std::string(field, std::find(field, field + N, '\0'));
    }
};
