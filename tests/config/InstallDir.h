#pragma once

namespace kelm {

// One install directory for the whole process: the parser reads KELM_INSTALL_DIR only once.
inline const TempDir& installDir() {
    static const TempDir dir;
    static const ScopedEnv env("KELM_INSTALL_DIR", dir.path());
    return dir;
}

}  // namespace kelm
