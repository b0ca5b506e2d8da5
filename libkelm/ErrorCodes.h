#pragma once

#include <cstdint>

#include "client/Error.h"

namespace kelm::lib {

// The number by which the interface names an error: the service's own, or one of enum kelm_error.
int codeOf(const client::Error& error);
// Keeps the text for kelm_last_error() of this thread and returns the number.
int fail(const client::Error& error);
int fail(int code, const char* text);
const char* lastError();
// Of the library's numbers and the service's; "unknown" for others.
const char* nameOf(int code);

}  // namespace kelm::lib
