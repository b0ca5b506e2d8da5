#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "utils/FileRights.h"
#include "utils/PeerCredentials.h"

namespace kelm {

namespace {

// The kernel's form of an access control list: a version, then the entries, little-endian.
constexpr char kListName[] = "system.posix_acl_access";
constexpr uint32_t kListVersion = 2;
struct ListEntry {
    uint16_t tag;
    uint16_t allowed;
    uint32_t id;
};
enum ListTag : uint16_t {
    OWNER = 0x01,
    USER = 0x02,
    OWNING_GROUP = 0x04,
    GROUP = 0x08,
    MASK = 0x10,
    OTHERS = 0x20
};

constexpr uint32_t kAll = 7;
constexpr uint32_t kNoId = ~0u;  // of an entry that names nobody

// The attribute; empty if the file has none. Nothing if it cannot be read, which must not pass
// for a file without a list: its group bits would then count as the group's.
std::optional<std::vector<char>> readList(int fd) {
    std::vector<char> bytes;
    ssize_t size = ::fgetxattr(fd, kListName, nullptr, 0);
    if (size > 0) {
        bytes.resize(static_cast<size_t>(size));
        size = ::fgetxattr(fd, kListName, bytes.data(), bytes.size());
    }
    if (size >= 0) {
        bytes.resize(static_cast<size_t>(size));
    } else if (errno == ENODATA || errno == EOPNOTSUPP) {
        bytes.clear();
    } else {
        return std::nullopt;
    }
    return bytes;
}

// The mask may stand anywhere in the list, so it is applied when all entries are known.
bool addEntries(const std::vector<char>& bytes, std::vector<FileRights::Entry>& entries) {
    uint32_t version = 0;
    if (bytes.size() < sizeof(version)) return false;
    std::memcpy(&version, bytes.data(), sizeof(version));
    if (version != kListVersion) return false;
    uint32_t mask = kAll;
    for (size_t at = sizeof(version); at + sizeof(ListEntry) <= bytes.size();
         at += sizeof(ListEntry)) {
        ListEntry entry;
        std::memcpy(&entry, bytes.data() + at, sizeof(entry));
        using Class = FileRights::Class;
        if (entry.tag == MASK) mask = entry.allowed;
        if (entry.tag == USER) entries.push_back({Class::USER, entry.id, entry.allowed});
        if (entry.tag == GROUP) entries.push_back({Class::GROUP, entry.id, entry.allowed});
        if (entry.tag == OWNING_GROUP) entries.push_back({Class::OWNING_GROUP, 0, entry.allowed});
    }
    for (FileRights::Entry& entry : entries) entry.allowed &= mask;
    return true;
}

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

std::optional<FileRights> FileRights::ofDescriptor(int fd) {
    struct stat info {};
    if (::fstat(fd, &info) != 0) return std::nullopt;
    FileRights rights;
    rights.owner = info.st_uid;
    rights.group = info.st_gid;
    rights.others = info.st_mode & kAll;
    rights.hasName = info.st_nlink != 0;
    const std::optional<std::vector<char>> list = readList(fd);
    // With a list, the group's bits of the mode are its mask and not the group's rights.
    if (list && list->empty()) {
        rights.entries = {{Class::OWNING_GROUP, 0, (info.st_mode >> 3) & kAll}};
    } else if (!list || !addEntries(*list, rights.entries)) {
        rights.entries.clear();
        rights.others = 0;
    }
    return rights;
}

// In the order that the kernel wants.
bool FileRights::grant(int fd, uid_t user) {
    constexpr uint16_t kBoth = READ | WRITE;
    const struct {
        uint32_t version;
        ListEntry entries[5];
    } list = {kListVersion,
              {{OWNER, kBoth, kNoId},
               {ListTag::USER, kBoth, user},
               {ListTag::OWNING_GROUP, 0, kNoId},
               {MASK, kBoth, kNoId},
               {OTHERS, 0, kNoId}}};
    static_assert(sizeof(list) == sizeof(kListVersion) + sizeof(list.entries));
    return ::fsetxattr(fd, kListName, &list, sizeof(list), 0) == 0;
}

// An entry for the user decides alone, also when a group of the user would be let in.
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
