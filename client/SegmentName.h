#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kelm::client {

// Names of shared memory objects, which tell the process that made them:
// "/kelm-<pid>-<pid namespace>-<start time>-<random>", the first number decimal, the others
// hexadecimal. At most 62 characters; the service takes 63.
//
// Threads: any.
class SegmentName {
 public:
    struct LeftOver {
        std::string name;  // as shm_unlink() takes it
        uid_t owner;
        uint64_t bytes;
    };

    static constexpr const char* kDirectory = "/dev/shm";  // where the names of shm_open() lie

    static std::string make();
    // The objects of all users whose makers have died. Those of other pid namespaces are not among
    // them, since nothing is known of their processes here.
    static std::vector<LeftOver> listThoseOfDeadProcesses();
    // Removes those of this user.
    static void removeThoseOfDeadProcesses();
};

}  // namespace kelm::client
