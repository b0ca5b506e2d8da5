#include "utils/ShareMemory.h"

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

}  // namespace
}  // namespace kelm
