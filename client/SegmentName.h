#pragma once

#include <string>

namespace kelm::client {

// Names of shared memory objects, which tell the process that made them:
// "/kelm-<pid>-<pid namespace>-<start time>-<random>", the first number decimal, the others
// hexadecimal. At most 62 characters; the service takes 63.
//
// Threads: any.
class SegmentName {
 public:
    static std::string make();
    // Removes the objects of this user whose makers have died. Those of other pid namespaces stay,
    // since nothing is known of their processes here.
    static void removeThoseOfDeadProcesses();
};

}  // namespace kelm::client
