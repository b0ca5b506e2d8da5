#pragma once

#include <string>
#include <string_view>

namespace kelm {

// The text with blanks behind it, or before it, up to `width`; a longer text comes back whole.
std::string alignLeft(std::string_view text, size_t width);
std::string alignRight(std::string_view text, size_t width);
// A text longer than `width` as its head, "..." and its tail; for a width of 7 and less its head.
std::string shortenText(std::string_view text, size_t width);
// A text that a client or another program chose, for the log: a line of it stays one line, and a
// terminal that shows it obeys nothing in it. Control characters and bytes that are no UTF-8 become
// \xNN, all else stays. Null becomes "(null)".
std::string escapeControls(std::string_view text);
std::string escapeControls(const char* text);
// ASCII letters in lower case; bytes of other characters stay.
std::string toLower(std::string text);
// Fixed notation.
std::string formatFixed(double value, int decimals);

}  // namespace kelm
