#pragma once

namespace kelm {

// Acts on processes that this one did not start.
class ProcessHelper {
 public:
    // Asks every process of the name to end. A null name does nothing; a failure is logged.
    static void killProcessByName(const char* name);
};

}  // namespace kelm
