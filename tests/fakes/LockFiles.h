#pragma once

#include <string>

#include "utils/GlobalMutex.h"

namespace kelm {

// Whether no process, nor this one, holds the lock of the file.
inline bool isFree(const std::string& path) { return GlobalMutex(path, true).trylock(); }

}  // namespace kelm
