#include "utils/FileRights.h"

#include <unistd.h>

#include <algorithm>

#include "utils/PeerCredentials.h"

namespace kelm {

namespace {

bool isMember(const PeerCredentials& peer, gid_t group) {
    return std::find(peer.groups.begin(), peer.groups.end(), group) != peer.groups.end();
}

// One group that lets the peer in is enough. With groups in the list and none that does, the rights
// of others do not count.
bool mayAsMember(const PeerCredentials& peer, const FileRights& file, FileRights::Access wanted) {
    bool member = false;
    for (const FileRights::Entry& entry : file.entries) {
        if (entry.who == FileRights::Class::USER) continue;
        const bool named = entry.who == FileRights::Class::GROUP;
        if (!isMember(peer, named ? entry.id : file.group)) continue;
        if ((entry.allowed & wanted) != 0) return true;
        member = true;
    }
    return !member && (file.others & wanted) != 0;
}

}  // namespace

bool mayAccess(const PeerCredentials& peer, const FileRights& file, FileRights::Access wanted,
               uid_t service) {
    if (peer.user == 0 || peer.user == service || peer.user == file.owner) return true;
    if (!file.hasName) return false;
    for (const FileRights::Entry& entry : file.entries) {
        if (entry.who != FileRights::Class::USER || entry.id != peer.user) continue;
        return (entry.allowed & wanted) != 0;
    }
    return mayAsMember(peer, file, wanted);
}

bool mayAccess(const PeerCredentials& peer, int fd, FileRights::Access wanted) {
    const std::optional<FileRights> file = FileRights::ofDescriptor(fd);
    return file && mayAccess(peer, *file, wanted, ::geteuid());
}

}  // namespace kelm
