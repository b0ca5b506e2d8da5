#pragma once

#include <string>

namespace kelm {

// From bytes to megabytes of 2^20.
constexpr unsigned kMegabyteShift = 20;

}  // namespace kelm

class CommonHelper {
 public:
    // The value, or an empty string.
    static std::string getEnvironmentVariable(const char* name);
    static std::string getKelmInstallDir();
    // realpath, or an empty string on failure.
    static std::string getAbsPath(const std::string& path);
    // Raises the soft limit of open files to the hard limit.
    static bool liftMaxOpenFileLimit();
};
