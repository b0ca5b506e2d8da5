#pragma once

namespace kelm {

// The libraries that the service loads by their names when it uses accelerators.
constexpr const char* kTevoLibraryName = "libtevo-kelm.so.0";
constexpr const char* kIonLibraryName = "libion.so.0";

}  // namespace kelm
