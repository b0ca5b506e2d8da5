#pragma once

#include <string>
#include <string_view>

namespace kelm {

// The text with blanks behind it, or before it, up to `width`; a longer text comes back whole.
std::string alignLeft(std::string_view text, size_t width);
std::string alignRight(std::string_view text, size_t width);
// A text longer than `width` as its head, "..." and its tail; for a width of 7 and less its head.
std::string shortenText(std::string_view text, size_t width);
// Fixed notation.
std::string formatFixed(double value, int decimals);

}  // namespace kelm
