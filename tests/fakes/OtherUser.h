#pragma once

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/types.h>

namespace kelm {

// Another user than that of the tests. Only root can act for it.
class OtherUser {
 public:
    static constexpr uid_t kId = 65534;

    static bool isPossible() { return ::geteuid() == 0; }

    // Runs a call as that user or a further one, on a thread of its own: the kernel keeps a user
    // for each thread. A socket that it connects tells that user for good.
    template <class Call>
    static void run(const Call& call, uid_t id = kId) {
        bool changed = false;
        std::thread([&] {
            changed = ::syscall(SYS_setgroups, 0, nullptr) == 0 &&
                      ::syscall(SYS_setresgid, id, id, id) == 0 &&
                      ::syscall(SYS_setresuid, id, id, id) == 0;
            if (changed) call();
        }).join();
        (void)::prctl(PR_SET_DUMPABLE, 1);  // what the change has ended, and sanitizers need
        if (!changed) throw std::runtime_error("the user cannot be changed");
    }

    // Lets everybody reach a socket in a TempDir.
    static void letIn(const std::filesystem::path& socket) {
        using std::filesystem::perms;
        constexpr perms kOthers = perms::others_read | perms::others_write | perms::others_exec;
        const std::filesystem::path end = std::filesystem::temp_directory_path();
        for (std::filesystem::path at = socket; at != end; at = at.parent_path()) {
            std::filesystem::permissions(at, kOthers, std::filesystem::perm_options::add);
        }
    }
};

}  // namespace kelm
