#pragma once

#include <string>

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
