#include "utils/CommonHelper.h"

#include <sys/resource.h>

#include <cstdlib>

#include "utils/UniqueMalloc.h"

std::string CommonHelper::getEnvironmentVariable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string CommonHelper::getKelmInstallDir() { return getEnvironmentVariable("KELM_INSTALL_DIR"); }

std::string CommonHelper::getAbsPath(const std::string& path) {
    const kelm::UniqueMalloc<char> resolved(::realpath(path.c_str(), nullptr));
    return resolved ? resolved.get() : "";
}

// A client's task brings up to three descriptors, so the usual soft limit would be used up by a few
// hundred tasks.
bool CommonHelper::liftMaxOpenFileLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
    limit.rlim_cur = limit.rlim_max;
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}
