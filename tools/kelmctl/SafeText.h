#pragma once

#include <string>
#include <string_view>

namespace kelm::ctl {

// Names come from clients and may hold any bytes. What is printed on a terminal passes here first.

// Takes over the locale of the environment; whether its terminal shows UTF-8.
bool useTerminalLocale();

// The characters of a UTF-8 text. Control characters, bytes that are no UTF-8 and what has no width
// of its own become '?'; without `utf8`, all but ASCII does.
std::u32string safeText(std::string_view bytes, bool utf8);
// Columns of a safe text on a terminal; some characters take two.
size_t columnsOf(char32_t character);
size_t columnsOf(std::u32string_view text);
// The safe text in exactly `width` columns: blanks behind it, or "..." in place of its middle.
std::u32string fitColumns(std::u32string_view text, size_t width);
// The same with blanks before it.
std::u32string fitColumnsRight(std::u32string_view text, size_t width);
std::string toUtf8(std::u32string_view text);
std::u32string fromAscii(std::string_view text);

}  // namespace kelm::ctl
