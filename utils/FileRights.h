#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace kelm {

struct PeerCredentials;

// The rights of users and groups to an open file.
struct FileRights {
    enum Access : uint32_t { READ = 4, WRITE = 2 };
    enum class Class { USER, OWNING_GROUP, GROUP };
    // A line of the access control list for users other than the owner.
    struct Entry {
        Class who;
        uint32_t id;       // of USER and GROUP
        uint32_t allowed;  // a set of Access, less what the list's mask takes away
    };

    uid_t owner = 0;
    gid_t group = 0;
    std::vector<Entry> entries;  // without a list one: the group's bits of the mode
    uint32_t others = 0;         // a set of Access
    bool hasName = true;         // else it is reached through /proc only

    // Of the file behind the descriptor; nothing if it cannot be looked at. Where its list cannot
    // be read they are the owner's alone.
    static std::optional<FileRights> ofDescriptor(int fd);
    // Lets the owner and one user read and write the file, and nobody else. False, with errno set,
    // if the file system has no access control lists or does not take this one.
    static bool grant(int fd, uid_t user);
};

// Whether a service that runs as `service` may open the file for the peer. To be asked after the
// file was opened with the service's own rights. The owner, root and the service's own user may do
// all, whatever the mode says; for others it is as the kernel would decide, except that a file
// without a name, which only its processes are to reach, is its owner's alone.
bool mayAccess(const PeerCredentials& peer, const FileRights& file, FileRights::Access wanted,
               uid_t service);
// The same for this process and what it has just opened.
bool mayAccess(const PeerCredentials& peer, int fd, FileRights::Access wanted);

}  // namespace kelm
