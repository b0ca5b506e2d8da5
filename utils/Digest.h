#pragma once

#include <string>

namespace kelm {

// SHA-256 as 64 lower-case hexadecimal digits; an empty string is the sign of failure. Any thread.
// A file that cannot be opened is logged; a read error looks like the end of the file.
std::string sha256ForFile(const char* path);
// Null or a size of 0 gives the empty string, unlike an empty file.
std::string sha256ForBuffer(const char* data, unsigned long size);
std::string sha256ForString(const std::string& text);

}  // namespace kelm
