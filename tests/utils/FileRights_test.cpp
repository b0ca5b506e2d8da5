#include "utils/FileRights.h"

#include <sys/xattr.h>

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

FileRights plain(uint32_t mode, bool hasName = true) {
    return {kOwner, kFilesGroup, {{Class::OWNING_GROUP, 0, (mode >> 3) & 7}}, mode & 7, hasName};
}
FileRights listed(const Entries& entries, uint32_t others) {
    return {kOwner, kFilesGroup, entries, others, true};
}
bool mayRead(const PeerCredentials& peer, const FileRights& file) {
    return mayAccess(peer, file, FileRights::READ, kService);
}
bool mayWrite(const PeerCredentials& peer, const FileRights& file) {
    return mayAccess(peer, file, FileRights::WRITE, kService);
}

TEST(FileRightsTest, FilesAreForTheirOwnersAndForThoseWhomTheModeLetsIn) {
    const Entries namedUser = {{Class::USER, kStranger, 4}, {Class::OWNING_GROUP, 0, 6}};
    const Entries groups = {{Class::OWNING_GROUP, 0, 0}, {Class::GROUP, kNamedGroup, 4}};
    const struct {
        const char* what;
        uid_t user;
        std::vector<gid_t> memberOf;
        FileRights file;
        const char* allowed;
    } rows[] = {
        {"owner, no rights", kOwner, {}, plain(0000), "rw"},
        {"owner, no name", kOwner, {}, plain(0000, false), "rw"},
        {"root", 0, {}, plain(0000), "rw"},
        {"the service's user", kService, {}, plain(0000), "rw"},
        {"private", kStranger, {}, plain(0700), ""},
        {"others read", kStranger, {}, plain(0604), "r"},
        {"others write", kStranger, {}, plain(0602), "w"},
        {"others execute", kStranger, {}, plain(0711), ""},
        {"foreign group", kStranger, {kNamedGroup}, plain(0660), ""},
        {"group reads", kStranger, {1, kFilesGroup}, plain(0640), "r"},
        {"group writes", kStranger, {kFilesGroup, 1}, plain(0620), "w"},
        {"group shut out", kStranger, {kFilesGroup}, plain(0606), ""},
        {"no name", kStranger, {kFilesGroup}, plain(0777, false), ""},
        {"named user", kStranger, {kFilesGroup}, listed(namedUser, 6), "r"},
        {"another one named", 31, {}, listed(namedUser, 0), ""},
        {"named group", kStranger, {kNamedGroup}, listed(groups, 2), "r"},
        {"one of two", kStranger, {kFilesGroup, kNamedGroup}, listed(groups, 0), "r"},
        {"owning group of a list", kStranger, {kFilesGroup}, listed(groups, 6), ""},
        {"not in the list", kStranger, {}, listed(groups, 6), "rw"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const PeerCredentials peer{1, row.user, row.memberOf};
        EXPECT_EQ(mayRead(peer, row.file), std::strchr(row.allowed, 'r') != nullptr);
        EXPECT_EQ(mayWrite(peer, row.file), std::strchr(row.allowed, 'w') != nullptr);
    }
}

// A list's mask stands where the group's rights are in a plain mode.
TEST(FileRightsTest, GroupBitsOfAFileWithAListAreNotItsGroups) {
    const TempDir directory;
    const std::string path = directory.write("file", "");
    ASSERT_EQ(::chmod(path.c_str(), 0646), 0);
    const auto before = FileRights::ofDescriptor(UniqueFd(::open(path.c_str(), O_RDWR)).get());
    ASSERT_TRUE(before && before->entries.size() == 1);
    EXPECT_EQ(before->entries[0].allowed, 4U);
    EXPECT_TRUE(before->hasName);
    // This descriptor refuses to tell any attribute: the file is its owner's alone.
    const auto mute = FileRights::ofDescriptor(UniqueFd(::open(path.c_str(), O_PATH)).get());
    ASSERT_TRUE(mute);
    EXPECT_TRUE(mayRead({1, mute->owner, {}}, *mute));
    EXPECT_FALSE(mayRead({1, kStranger, {mute->group}}, *mute));
    const struct {
        uint32_t version = 2;
        struct {
            uint16_t tag, allowed;
            uint32_t id;
        } lines[5] = {
            {0x01, 6, ~0U}, {0x02, 6, 30}, {0x04, 0, ~0U}, {0x10, 4, ~0U}, {0x20, 0, ~0U}};
    } list;
    if (::setxattr(path.c_str(), "system.posix_acl_access", &list, sizeof(list), 0) != 0) {
        GTEST_SKIP() << "no access control lists in the temporary directory";
    }
    const auto rights = FileRights::ofDescriptor(UniqueFd(::open(path.c_str(), O_RDWR)).get());
    ASSERT_TRUE(rights);
    EXPECT_TRUE(mayRead({1, 30, {}}, *rights));
    EXPECT_FALSE(mayWrite({1, 30, {}}, *rights));  // the mask
    EXPECT_FALSE(mayRead({1, 31, {rights->group}}, *rights));
}

}  // namespace
}  // namespace kelm
