#include "utils/ShareMemory.h"

#include "utils/PeerCredentials.h"

namespace kelm {
namespace {

class ShareMemoryTest : public testing::Test {
 protected:
    bool exists() const { return ShareMemory().open(m_name.c_str(), 1) != nullptr; }

    // Tests run beside each other.
    const std::string m_name = "/kelm_test_segment" + std::to_string(::getpid());
    ShareMemory m_maker;
};

TEST_F(ShareMemoryTest, NameStaysUntilItsMakerIsReset) {
    EXPECT_EQ(m_maker.create(m_name.c_str(), ~0ul), nullptr);
    EXPECT_FALSE(exists());
    char* const made = static_cast<char*>(m_maker.create(m_name.c_str(), 100));
    ASSERT_NE(made, nullptr);
    ShareMemory user;
    char* const opened = static_cast<char*>(user.open(m_name.c_str(), 100));
    ASSERT_NE(opened, nullptr);
    opened[99] = 'x';
    EXPECT_EQ(made[99], 'x');
    EXPECT_EQ(user.open(m_name.c_str(), 101), nullptr) << "more than there is";
    EXPECT_EQ(user.open(m_name.c_str(), 0), nullptr) << "nothing can be mapped";
    EXPECT_EQ(user.open(nullptr, 1), nullptr);
    EXPECT_TRUE(exists());
    m_maker.reset();
    EXPECT_FALSE(exists());
}

TEST_F(ShareMemoryTest, SegmentIsOpenedForOthersAsItsModeLetsThem) {
    const PeerCredentials other{1, ::geteuid() + 1, {}};
    ASSERT_NE(m_maker.create(m_name.c_str(), 100), nullptr);
    const auto opens = [this](const PeerCredentials& peer, FileRights::Access wanted) {
        return ShareMemory().openFor(peer, wanted, m_name.c_str(), 100) != nullptr;
    };
    for (const mode_t mode : {0600, 0604, 0606}) {
        SCOPED_TRACE(mode);
        ASSERT_EQ(::chmod(("/dev/shm" + m_name).c_str(), mode), 0);
        EXPECT_EQ(opens(other, FileRights::READ), (mode & 4) != 0);
        EXPECT_EQ(opens(other, FileRights::WRITE), (mode & 2) != 0);
        EXPECT_TRUE(opens(*PeerCredentials::ofThisProcess(), FileRights::WRITE));
    }
}

}  // namespace
}  // namespace kelm
