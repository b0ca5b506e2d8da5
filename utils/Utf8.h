#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kelm {

// Texts of clients, which may be any bytes, as UTF-8.
class Utf8 {
 public:
    // Reads the character at the head of a text that is not empty and takes it off; nothing for one
    // byte that starts none.
    static std::optional<char32_t> takeCharacter(std::string_view& text);
    static void append(std::string& text, char32_t character);
    // As many whole characters of the head as fit into so many bytes.
    static std::string_view head(std::string_view text, size_t size);
};

}  // namespace kelm
