#include "utils/FileRights.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include "fakes/TempDir.h"
#include "fakes/TestPch.h"
#include "utils/PeerCredentials.h"
#include "utils/UniqueFd.h"

namespace kelm {
namespace {

using Class = FileRights::Class;
using Entries = std::vector<FileRights::Entry>;

constexpr uid_t kService = 10;
constexpr uid_t kOwner = 20;
constexpr uid_t kStranger = 30;
constexpr gid_t kFilesGroup = 40;
constexpr gid_t kNamedGroup = 50;

FileRights plain(uint32_t mode) {
    return {kOwner, kFilesGroup, {{Class::OWNING_GROUP, 0, (mode >> 3) & 7}}, mode & 7, true};
}
FileRights listed(const Entries& entries, uint32_t others) {
    return {kOwner, kFilesGroup, entries, others, true};
}
FileRights nameless(uint32_t mode) {
    FileRights file = plain(mode);
    file.hasName = false;
    return file;
}

TEST(FileRightsTest, FilesAreForTheirOwnersAndForThoseWhomTheModeLetsIn) {
    const Entries namedUser = {{Class::USER, kStranger, 4}, {Class::OWNING_GROUP, 0, 6}};
    const Entries groups = {{Class::OWNING_GROUP, 0, 0}, {Class::GROUP, kNamedGroup, 4}};
    const struct {
        const char* what;
        uid_t user;
        std::vector<gid_t> memberOf;
        FileRights file;
        bool mayRead;
        bool mayWrite;
    } rows[] = {
        {"owner, no rights", kOwner, {}, plain(0000), true, true},
        {"owner, no name", kOwner, {}, nameless(0000), true, true},
        {"root", 0, {}, plain(0000), true, true},
        {"the service's user", kService, {}, plain(0000), true, true},
        {"private", kStranger, {}, plain(0700), false, false},
        {"others read", kStranger, {}, plain(0604), true, false},
        {"others write", kStranger, {}, plain(0602), false, true},
        {"others execute", kStranger, {}, plain(0711), false, false},
        {"foreign group", kStranger, {kNamedGroup}, plain(0660), false, false},
        {"group reads", kStranger, {1, kFilesGroup}, plain(0640), true, false},
        {"group writes", kStranger, {kFilesGroup, 1}, plain(0620), false, true},
        {"group shut out", kStranger, {kFilesGroup}, plain(0606), false, false},
        {"no name", kStranger, {kFilesGroup}, nameless(0777), false, false},
        {"named user", kStranger, {kFilesGroup}, listed(namedUser, 6), true, false},
        {"another one named", 31, {}, listed(namedUser, 0), false, false},
        {"named group", kStranger, {kNamedGroup}, listed(groups, 2), true, false},
        {"one of two groups",
         kStranger,
         {kFilesGroup, kNamedGroup},
         listed(groups, 0),
         true,
         false},
        {"owning group of a list", kStranger, {kFilesGroup}, listed(groups, 6), false, false},
        {"not in the list", kStranger, {}, listed(groups, 6), true, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const PeerCredentials peer{1, row.user, row.memberOf};
        EXPECT_EQ(mayAccess(peer, row.file, FileRights::READ, kService), row.mayRead);
        EXPECT_EQ(mayAccess(peer, row.file, FileRights::WRITE, kService), row.mayWrite);
    }
}

// A list's mask stands where the group's rights are in a plain mode.
TEST(FileRightsTest, GroupBitsOfAFileWithAListAreNotItsGroups) {
    const TempDir directory;
    const UniqueFd file(::open(directory.write("file", "").c_str(), O_RDWR));
    ASSERT_EQ(::fchmod(file.get(), 0640), 0);
    const auto before = FileRights::ofDescriptor(file.get());
    ASSERT_TRUE(before && before->entries.size() == 1);
    EXPECT_EQ(before->entries[0].allowed, 4U);
    EXPECT_TRUE(before->hasName);
    const struct {
        uint32_t version = 2;
        struct {
            uint16_t tag, allowed;
            uint32_t id;
        } lines[5] = {
            {0x01, 6, ~0U}, {0x02, 6, 30}, {0x04, 0, ~0U}, {0x10, 4, ~0U}, {0x20, 0, ~0U}};
    } list;
    if (::fsetxattr(file.get(), "system.posix_acl_access", &list, sizeof(list), 0) != 0) {
        GTEST_SKIP() << "no access control lists in the temporary directory";
    }
    const auto rights = FileRights::ofDescriptor(file.get());
    ASSERT_TRUE(rights);
    const PeerCredentials named{1, 30, {}};
    const PeerCredentials member{1, 31, {rights->group}};
    EXPECT_TRUE(mayAccess(named, *rights, FileRights::READ, kService));
    EXPECT_FALSE(mayAccess(named, *rights, FileRights::WRITE, kService));  // the mask
    EXPECT_FALSE(mayAccess(member, *rights, FileRights::READ, kService));
}

TEST(FileRightsTest, FileWhoseListCannotBeReadIsItsOwnersAlone) {
    const TempDir directory;
    const std::string path = directory.write("file", "");
    ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
    const UniqueFd file(::open(path.c_str(), O_PATH));  // refuses to tell any attribute
    const auto rights = FileRights::ofDescriptor(file.get());
    ASSERT_TRUE(rights);
    EXPECT_TRUE(mayAccess({1, rights->owner, {}}, *rights, FileRights::READ, kService));
    EXPECT_FALSE(mayAccess({1, kStranger, {rights->group}}, *rights, FileRights::READ, kService));
}

TEST(FileRightsTest, PeerIsWhoConnected) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const UniqueFd one(ends[0]);
    const UniqueFd two(ends[1]);
    const auto peer = PeerCredentials::ofSocket(one.get());
    ASSERT_TRUE(peer);
    EXPECT_EQ(peer->pid, ::getpid());
    EXPECT_EQ(peer->user, ::geteuid());
    EXPECT_NE(std::count(peer->groups.begin(), peer->groups.end(), ::getegid()), 0);
    const UniqueFd file(::open("/dev/null", O_RDONLY));
    EXPECT_EQ(PeerCredentials::ofSocket(file.get()), nullptr);
}

}  // namespace
}  // namespace kelm
