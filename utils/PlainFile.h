#pragma once

#include <fcntl.h>

#include "utils/UniqueFd.h"

namespace kelm {

// Files in directories that others may write to as well: what another user planted there under a
// name must neither send the caller to another file (a link, a second name) nor hold it (a pipe).
class PlainFile {
 public:
    enum class Owner { ANYBODY, THIS_USER };

    // Opens a regular file of one name, and makes it if it is not there; `flags` as for open(2),
    // with O_TRUNC done once the file is known to be the right one. None on failure, with errno
    // set: ELOOP for a link, EMLINK for a second name, EPERM for another owner, EINVAL for a pipe
    // or whatever else is no file.
    static UniqueFd open(const char* path, int flags, mode_t mode, Owner owner);
};

}  // namespace kelm
